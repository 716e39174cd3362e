// Fuzz entry for the whole smart card decode-and-dispatch path, with a PC/SC stand-in that reads
// and writes every byte it is told it may, so that an address sanitizer catches any length the
// library hands PC/SC beyond a buffer. Input: two bytes of control code, one byte choosing how
// PC/SC answers, then the request.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "kor_jnidr_scard.h"

using namespace kor::jni;

namespace {

unsigned g_variant = 0;
volatile unsigned char g_sink = 0;

bool fails() { return g_variant & 1; }
bool big() { return g_variant & 2; }
LONG failure() { return static_cast<LONG>(0x80100069); }  // SCARD_W_REMOVED_CARD

void read_all(const void* p, DWORD n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (DWORD i = 0; i < n; ++i) g_sink = static_cast<unsigned char>(g_sink + b[i]);
}
void write_all(void* p, DWORD n, unsigned char v = 0x5A) {
    if (p && n) std::memset(p, v, n);
}

const char k_multi[] = "Fuzz Reader 00 00\0Second\xC3 Reader\0";
constexpr DWORD k_multi_len = sizeof k_multi;  // both final NULs included

LONG multi_string(LPSTR out, LPDWORD len) {
    const DWORD need = big() ? 70000 : k_multi_len;
    if (fails()) return failure();
    if (!out) {
        *len = need;
        return SCARD_S_SUCCESS;
    }
    if (*len < need) {
        *len = need;
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    write_all(out, *len);
    std::memcpy(out, k_multi, k_multi_len);
    *len = need;
    return SCARD_S_SUCCESS;
}

LONG establish(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT ctx) {
    *ctx = 0x1234;
    return fails() ? failure() : SCARD_S_SUCCESS;
}
LONG context_call(SCARDCONTEXT) { return fails() ? failure() : SCARD_S_SUCCESS; }
LONG connect(SCARDCONTEXT, LPCSTR name, DWORD, DWORD, LPSCARDHANDLE card, LPDWORD protocol) {
    if (name) read_all(name, static_cast<DWORD>(std::strlen(name) + 1));
    *card = 0x5678;
    *protocol = 2;
    return fails() ? failure() : SCARD_S_SUCCESS;
}
LONG reconnect(SCARDHANDLE, DWORD, DWORD, DWORD, LPDWORD protocol) {
    *protocol = 1;
    return fails() ? failure() : SCARD_S_SUCCESS;
}
LONG card_disposition(SCARDHANDLE, DWORD) { return fails() ? failure() : SCARD_S_SUCCESS; }
LONG card_call(SCARDHANDLE) { return fails() ? failure() : SCARD_S_SUCCESS; }
LONG status(SCARDHANDLE, LPSTR name, LPDWORD len, LPDWORD state, LPDWORD protocol, LPBYTE atr, LPDWORD atr_len) {
    write_all(atr, *atr_len);
    *atr_len = 11;
    *state = 0x34;
    *protocol = big() ? 4 : 2;
    return multi_string(name, len);
}
LONG status_change(SCARDCONTEXT, DWORD, SCARD_READERSTATE* states, DWORD n) {
    for (DWORD i = 0; i < n; ++i) {
        if (states[i].szReader) read_all(states[i].szReader, static_cast<DWORD>(std::strlen(states[i].szReader) + 1));
        read_all(states[i].rgbAtr, sizeof states[i].rgbAtr);
        states[i].dwEventState = states[i].dwCurrentState | 0x20;
        states[i].cbAtr = big() ? 0xFFFFFFFFul : 11;
        write_all(states[i].rgbAtr, sizeof states[i].rgbAtr, 0x3B);
    }
    return fails() ? failure() : SCARD_S_SUCCESS;
}
LONG control(SCARDHANDLE, DWORD, LPCVOID in, DWORD in_len, LPVOID out, DWORD out_len, LPDWORD returned) {
    if (in) read_all(in, in_len);
    write_all(out, out_len);
    *returned = big() ? out_len : (out_len < 3 ? out_len : 3);
    return fails() ? failure() : SCARD_S_SUCCESS;
}
LONG transmit(SCARDHANDLE, const SCARD_IO_REQUEST* send_pci, LPCBYTE send, DWORD send_len, SCARD_IO_REQUEST*,
              LPBYTE recv, LPDWORD recv_len) {
    read_all(send_pci, sizeof *send_pci);
    if (send) read_all(send, send_len);
    write_all(recv, *recv_len);
    if (!big() && *recv_len > 2) *recv_len = 2;
    return fails() ? failure() : SCARD_S_SUCCESS;
}
LONG get_attrib(SCARDHANDLE, DWORD attr, LPBYTE out, LPDWORD len) {
    if (attr == 0x7FFF0003 || attr == 0x7FFF0005 || attr == 0x00080201 || fails())
        return static_cast<LONG>(0x8010001F);
    if (*len == SCARD_AUTOALLOCATE && out) {
        auto* block = static_cast<unsigned char*>(std::malloc(5));
        write_all(block, 5);
        std::memcpy(out, &block, sizeof block);
        *len = 5;
        return SCARD_S_SUCCESS;
    }
    write_all(out, *len);
    return SCARD_S_SUCCESS;
}
LONG set_attrib(SCARDHANDLE, DWORD, LPCBYTE in, DWORD len) {
    if (in) read_all(in, len);
    return fails() ? failure() : SCARD_S_SUCCESS;
}
LONG list_groups(SCARDCONTEXT, LPSTR out, LPDWORD len) { return multi_string(out, len); }
LONG list_readers(SCARDCONTEXT, LPCSTR groups, LPSTR out, LPDWORD len) {
    if (groups) read_all(groups, 1);
    return multi_string(out, len);
}

void install() {
    auto* s = new c_scard_service();
    s->SCardEstablishContext = establish;
    s->SCardReleaseContext = context_call;
    s->SCardIsValidContext = context_call;
    s->SCardConnect = connect;
    s->SCardReconnect = reconnect;
    s->SCardDisconnect = card_disposition;
    s->SCardBeginTransaction = card_call;
    s->SCardEndTransaction = card_disposition;
    s->SCardStatus = status;
    s->SCardGetStatusChange = status_change;
    s->SCardControl = control;
    s->SCardTransmit = transmit;
    s->SCardListReaderGroups = list_groups;
    s->SCardListReaders = list_readers;
    s->SCardCancel = context_call;
    s->SCardGetAttrib = get_attrib;
    s->SCardSetAttrib = set_attrib;
    // Records for the handles the stand-in hands out, so lookups and the attribute fallback run.
    s->add_context(1, 0x1234);
    s->add_card(1, 0x5678);
    s->add_reader(0x5678, 2, "Fuzz Reader 00 00");
    g_scard_service.store(s);
}

[[noreturn]] void oracle_failure(const char* what) {
    std::fprintf(stderr, "oracle: %s\n", what);
    std::abort();
}

std::uint32_t le32(const std::uint8_t* p) {
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[3]} << 24;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const std::uint32_t code = 0x00090000u | data[0] | std::uint32_t{data[1]} << 8;
    g_variant = data[2];
    install();
    c_ndr_reader in(data + 3, size - 3);
    c_ndr_writer out;
    try {
        scard_dispatch(1, code, in, out);
        const std::size_t n = out.size();
        if (n) {
            std::string reply(n, '\0');
            out.copy_to(reply.data(), n);
            const auto* r = reinterpret_cast<const std::uint8_t*>(reply.data());
            static const std::uint8_t head[8] = {1, 0x10, 8, 0, 0xCC, 0xCC, 0xCC, 0xCC};
            if (n < 24 || std::memcmp(r, head, 8) != 0) oracle_failure("reply header");
            if (le32(r + 8) != n - 16 || (n - 16) % 8 != 0) oracle_failure("ObjectBufferLength or padding");
            if (le32(r + 12) != 0) oracle_failure("private header filler");
        }
    } catch (const std::runtime_error& e) {
        const std::string m = e.what();
        if (m != "provide" && m != "wrong endianess" && m != "bad handle") oracle_failure(e.what());
    }
    delete g_scard_service.exchange(nullptr);
    return 0;
}
