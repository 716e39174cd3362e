// Scripted PC/SC stand-in, built as libpcsclite.so.1 for the tests.
//
// It implements the 17 PC/SC functions that the library resolves, with pcsc-lite's signatures.
// Every call is recorded as one text line; its result comes from the script, else it succeeds with
// default outputs (contexts 0xc0000001, 0xc0000002, ..., cards 0xca000001, ..., protocol T=0,
// reader "Standin Reader 00 00", ATR 3B 00, Transmit answer 90 00).
//
// Loading. The library under test dlopens "libpcsclite.so.1". A C++ test dlopens this file by its
// path (RTLD_NOW | RTLD_GLOBAL) before that: the soname matches, so both get the same object and
// the test scripts it through the extern "C" control functions below. A Java test calls
// kor.plox.ldm.PcscStandin, whose natives live here too; the JVM runs with LD_LIBRARY_PATH
// pointing at the variant's directory (tests/standin/full or tests/standin/partial in the build).
//
// Control API (C):
//   void   standin_reset(void)                 forget script and records; end blocked calls
//   void   standin_script(const char* line)    set a function's answer: "SCardCancel rc=0x80100003"
//   size_t standin_calls(char* buf, size_t n)  records joined by '\n' (NUL-terminated when it fits);
//                                              returns the size needed including the NUL
//   int    standin_wait_blocked(int n, int ms) 1 once n GetStatusChange calls are blocked
// Script keys: rc=<number> (the result, for every function) and, for SCardGetStatusChange,
// block=1: wait until SCardCancel or SCardReleaseContext of that context (or a reset), then
// answer SCARD_E_CANCELLED unless rc= says otherwise. An answer stays until the next reset.
//
// Records: fields in parameter order, handles and DWORDs as "0x%llx", buffers as upper-case hex,
// texts quoted, pointers as "null" or "ptr", e.g.
//   SCardEstablishContext scope=0x2 r1=null r2=null ctx_out=ptr
// Building with STANDIN_PARTIAL leaves out SCardEstablishContext, SCardListReaders, SCardTransmit.
#include <jni.h>
#include <winscard.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<unsigned char>;
using c_answer = std::map<std::string, std::string>;

struct c_state {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, c_answer> script;
    std::vector<std::string> calls;
    std::map<SCARDCONTEXT, unsigned> cancels;  // per context: SCardCancel / SCardReleaseContext count
    unsigned resets = 0;
    int blocked = 0;
    unsigned long long next_context = 0xc0000001;
    unsigned long long next_card = 0xca000001;
};

c_state& state() {
    static c_state* s = new c_state();  // never destroyed: blocked threads may outlive unload
    return *s;
}

std::string num(unsigned long long v) {
    char b[32];
    std::snprintf(b, sizeof b, "0x%llx", v);
    return b;
}
std::string hex(const void* p, std::size_t n) {
    std::string out;
    char b[3];
    for (std::size_t i = 0; p && i < n; ++i) {
        std::snprintf(b, sizeof b, "%02X", static_cast<const unsigned char*>(p)[i]);
        out += b;
    }
    return out;
}
std::string text(const char* s) { return s ? "\"" + std::string(s) + "\"" : "null"; }
std::string ptr(const void* p) { return p ? "ptr" : "null"; }
std::string len(const DWORD* p) { return p ? num(*p) : "null"; }

// Records `line` ("<function> fields...") and returns the function's scripted answer.
c_answer enter(const std::string& line) {
    std::lock_guard<std::mutex> l(state().mutex);
    state().calls.push_back(line);
    const auto it = state().script.find(line.substr(0, line.find(' ')));
    return it == state().script.end() ? c_answer{} : it->second;
}

LONG result(const c_answer& a, LONG computed) {
    const auto it = a.find("rc");
    return it == a.end() ? computed : static_cast<LONG>(std::strtoull(it->second.c_str(), nullptr, 0));
}

unsigned long long next(unsigned long long c_state::*counter) {
    std::lock_guard<std::mutex> l(state().mutex);
    return (state().*counter)++;
}

// A literal's bytes including its terminating NUL ("A\0" gives a multi-string).
template <std::size_t n>
bytes literal(const char (&s)[n]) {
    return bytes(s, s + n);
}

// Hands `data` to a PC/SC buffer with its in/out length: a null buffer gets the length only,
// SCARD_AUTOALLOCATE (when allowed) a malloc'ed block that the caller frees, a buffer too small
// the needed length and SCARD_E_INSUFFICIENT_BUFFER.
LONG deliver(const bytes& data, void* buffer, DWORD* length, bool may_allocate = false) {
    if (!length) return SCARD_S_SUCCESS;
    const DWORD offered = *length;
    *length = static_cast<DWORD>(data.size());
    if (!buffer) return SCARD_S_SUCCESS;
    if (may_allocate && offered == SCARD_AUTOALLOCATE) {
        auto* block = static_cast<unsigned char*>(std::malloc(data.size() + 1));
        std::copy(data.begin(), data.end(), block);
        *static_cast<unsigned char**>(buffer) = block;
        return SCARD_S_SUCCESS;
    }
    if (offered < data.size()) return SCARD_E_INSUFFICIENT_BUFFER;
    std::copy(data.begin(), data.end(), static_cast<unsigned char*>(buffer));
    return SCARD_S_SUCCESS;
}

std::string all_calls() {
    std::lock_guard<std::mutex> l(state().mutex);
    std::string out;
    for (const auto& c : state().calls) out += (out.empty() ? "" : "\n") + c;
    return out;
}

LONG cancel(const std::string& line, SCARDCONTEXT ctx) {
    const c_answer a = enter(line + num(ctx));
    std::lock_guard<std::mutex> l(state().mutex);
    ++state().cancels[ctx];
    state().changed.notify_all();
    return result(a, SCARD_S_SUCCESS);
}

}  // namespace

extern "C" {

// ---- control API -----------------------------------------------------------------------------

void standin_reset(void) {
    c_state& s = state();
    std::lock_guard<std::mutex> l(s.mutex);
    s.script.clear();
    s.calls.clear();
    s.cancels.clear();
    s.next_context = 0xc0000001;
    s.next_card = 0xca000001;
    ++s.resets;
    s.changed.notify_all();
}

void standin_script(const char* line) {
    std::istringstream in(line ? line : "");
    std::string function, field;
    in >> function;
    c_answer a;
    while (in >> field) {
        const std::size_t eq = field.find('=');
        a[field.substr(0, eq)] = eq == std::string::npos ? "" : field.substr(eq + 1);
    }
    std::lock_guard<std::mutex> l(state().mutex);
    state().script[function] = a;
}

size_t standin_calls(char* buffer, size_t capacity) {
    const std::string all = all_calls();
    if (buffer && capacity > all.size()) std::copy(all.c_str(), all.c_str() + all.size() + 1, buffer);
    return all.size() + 1;
}

int standin_wait_blocked(int n, int ms) {
    std::unique_lock<std::mutex> l(state().mutex);
    return state().changed.wait_for(l, std::chrono::milliseconds(ms), [&] { return state().blocked >= n; }) ? 1 : 0;
}

// ---- PC/SC -------------------------------------------------------------------------------------

#ifndef STANDIN_PARTIAL
LONG SCardEstablishContext(DWORD dwScope, LPCVOID pvReserved1, LPCVOID pvReserved2, LPSCARDCONTEXT phContext) {
    const c_answer a = enter("SCardEstablishContext scope=" + num(dwScope) + " r1=" + ptr(pvReserved1) +
                             " r2=" + ptr(pvReserved2) + " ctx_out=" + ptr(phContext));
    if (phContext) *phContext = static_cast<SCARDCONTEXT>(next(&c_state::next_context));
    return result(a, SCARD_S_SUCCESS);
}
#endif

LONG SCardReleaseContext(SCARDCONTEXT hContext) { return cancel("SCardReleaseContext ctx=", hContext); }

LONG SCardCancel(SCARDCONTEXT hContext) { return cancel("SCardCancel ctx=", hContext); }

LONG SCardIsValidContext(SCARDCONTEXT hContext) {
    return result(enter("SCardIsValidContext ctx=" + num(hContext)), SCARD_S_SUCCESS);
}

LONG SCardConnect(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode, DWORD dwPreferredProtocols,
                  LPSCARDHANDLE phCard, LPDWORD pdwActiveProtocol) {
    const c_answer a = enter("SCardConnect ctx=" + num(hContext) + " reader=" + text(szReader) +
                             " share=" + num(dwShareMode) + " protocols=" + num(dwPreferredProtocols));
    if (phCard) *phCard = static_cast<SCARDHANDLE>(next(&c_state::next_card));
    if (pdwActiveProtocol) *pdwActiveProtocol = SCARD_PROTOCOL_T0;
    return result(a, SCARD_S_SUCCESS);
}

LONG SCardReconnect(SCARDHANDLE hCard, DWORD dwShareMode, DWORD dwPreferredProtocols, DWORD dwInitialization,
                    LPDWORD pdwActiveProtocol) {
    const c_answer a = enter("SCardReconnect card=" + num(hCard) + " share=" + num(dwShareMode) +
                             " protocols=" + num(dwPreferredProtocols) + " init=" + num(dwInitialization));
    if (pdwActiveProtocol) *pdwActiveProtocol = SCARD_PROTOCOL_T0;
    return result(a, SCARD_S_SUCCESS);
}

LONG SCardDisconnect(SCARDHANDLE hCard, DWORD dwDisposition) {
    return result(enter("SCardDisconnect card=" + num(hCard) + " disposition=" + num(dwDisposition)), SCARD_S_SUCCESS);
}

LONG SCardBeginTransaction(SCARDHANDLE hCard) {
    return result(enter("SCardBeginTransaction card=" + num(hCard)), SCARD_S_SUCCESS);
}

LONG SCardEndTransaction(SCARDHANDLE hCard, DWORD dwDisposition) {
    return result(enter("SCardEndTransaction card=" + num(hCard) + " disposition=" + num(dwDisposition)),
                  SCARD_S_SUCCESS);
}

LONG SCardStatus(SCARDHANDLE hCard, LPSTR szReaderName, LPDWORD pcchReaderLen, LPDWORD pdwState, LPDWORD pdwProtocol,
                 LPBYTE pbAtr, LPDWORD pcbAtrLen) {
    const c_answer a = enter("SCardStatus card=" + num(hCard) + " names=" + ptr(szReaderName) +
                             " names_len=" + len(pcchReaderLen) + " atr=" + ptr(pbAtr) + " atr_len=" + len(pcbAtrLen));
    const LONG r1 = deliver(literal("Standin Reader 00 00"), szReaderName, pcchReaderLen);
    const LONG r2 = deliver({0x3B, 0x00}, pbAtr, pcbAtrLen);
    if (pdwState) *pdwState = SCARD_PRESENT | SCARD_POWERED | SCARD_NEGOTIABLE;
    if (pdwProtocol) *pdwProtocol = SCARD_PROTOCOL_T0;
    return result(a, r1 ? r1 : r2);
}

LONG SCardGetStatusChange(SCARDCONTEXT hContext, DWORD dwTimeout, SCARD_READERSTATE* rgReaderStates, DWORD cReaders) {
    std::string line =
        "SCardGetStatusChange ctx=" + num(hContext) + " timeout=" + num(dwTimeout) + " count=" + num(cReaders);
    for (DWORD i = 0; rgReaderStates && i < cReaders; ++i) {
        const SCARD_READERSTATE& r = rgReaderStates[i];
        line += " reader=" + text(r.szReader) + " current=" + num(r.dwCurrentState) +
                " atr=" + hex(r.rgbAtr, std::min<DWORD>(r.cbAtr, MAX_ATR_SIZE));
    }
    const c_answer a = enter(line);
    if (!a.count("block")) return result(a, SCARD_S_SUCCESS);
    c_state& s = state();
    std::unique_lock<std::mutex> l(s.mutex);
    const unsigned cancels = s.cancels[hContext], resets = s.resets;
    ++s.blocked;
    s.changed.notify_all();
    const bool ended = s.changed.wait_for(l, std::chrono::seconds(60),
                                          [&] { return s.cancels[hContext] != cancels || s.resets != resets; });
    --s.blocked;
    return result(a, ended ? SCARD_E_CANCELLED : SCARD_E_TIMEOUT);
}

LONG SCardControl(SCARDHANDLE hCard, DWORD dwControlCode, LPCVOID pbSendBuffer, DWORD cbSendLength, LPVOID pbRecvBuffer,
                  DWORD cbRecvLength, LPDWORD lpBytesReturned) {
    const c_answer a = enter("SCardControl card=" + num(hCard) + " code=" + num(dwControlCode) +
                             " send=" + hex(pbSendBuffer, cbSendLength) + " recv=" + ptr(pbRecvBuffer) +
                             " recv_len=" + num(cbRecvLength));
    if (lpBytesReturned) *lpBytesReturned = 0;
    return result(a, SCARD_S_SUCCESS);
}

#ifndef STANDIN_PARTIAL
LONG SCardTransmit(SCARDHANDLE hCard, const SCARD_IO_REQUEST* pioSendPci, LPCBYTE pbSendBuffer, DWORD cbSendLength,
                   SCARD_IO_REQUEST* pioRecvPci, LPBYTE pbRecvBuffer, LPDWORD pcbRecvLength) {
    const c_answer a =
        enter("SCardTransmit card=" + num(hCard) + " send_pci=" + (pioSendPci ? num(pioSendPci->dwProtocol) : "null") +
              " send=" + hex(pbSendBuffer, cbSendLength) + " recv_pci=" + ptr(pioRecvPci) +
              " recv_len=" + len(pcbRecvLength));
    return result(a, deliver({0x90, 0x00}, pbRecvBuffer, pcbRecvLength));
}

LONG SCardListReaders(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders, LPDWORD pcchReaders) {
    const c_answer a = enter("SCardListReaders ctx=" + num(hContext) + " groups=" + text(mszGroups) +
                             " readers=" + ptr(mszReaders) + " len=" + len(pcchReaders));
    return result(a, deliver(literal("Standin Reader 00 00\0"), mszReaders, pcchReaders));
}
#endif

LONG SCardListReaderGroups(SCARDCONTEXT hContext, LPSTR mszGroups, LPDWORD pcchGroups) {
    const c_answer a =
        enter("SCardListReaderGroups ctx=" + num(hContext) + " groups=" + ptr(mszGroups) + " len=" + len(pcchGroups));
    return result(a, deliver(literal("SCard$DefaultReaders\0"), mszGroups, pcchGroups));
}

LONG SCardFreeMemory(SCARDCONTEXT, LPCVOID) { return SCARD_S_SUCCESS; }

LONG SCardGetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr, LPDWORD pcbAttrLen) {
    const c_answer a = enter("SCardGetAttrib card=" + num(hCard) + " attr=" + num(dwAttrId) + " buf=" + ptr(pbAttr) +
                             " len=" + len(pcbAttrLen));
    return result(a, deliver({}, pbAttr, pcbAttrLen, true));
}

LONG SCardSetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPCBYTE pbAttr, DWORD cbAttrLen) {
    return result(
        enter("SCardSetAttrib card=" + num(hCard) + " attr=" + num(dwAttrId) + " data=" + hex(pbAttr, cbAttrLen)),
        SCARD_S_SUCCESS);
}

// ---- Java: kor.plox.ldm.PcscStandin ------------------------------------------------------------

JNIEXPORT void JNICALL Java_kor_plox_ldm_PcscStandin_reset(JNIEnv*, jclass) { standin_reset(); }

JNIEXPORT void JNICALL Java_kor_plox_ldm_PcscStandin_script(JNIEnv* env, jclass, jstring line) {
    const char* s = env->GetStringUTFChars(line, nullptr);
    if (!s) return;
    standin_script(s);
    env->ReleaseStringUTFChars(line, s);
}

JNIEXPORT jstring JNICALL Java_kor_plox_ldm_PcscStandin_joinedCalls(JNIEnv* env, jclass) {
    return env->NewStringUTF(all_calls().c_str());
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_PcscStandin_waitBlocked(JNIEnv*, jclass, jint n, jint ms) {
    return standin_wait_blocked(n, ms) ? JNI_TRUE : JNI_FALSE;
}

}  // extern "C"
