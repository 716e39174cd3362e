// PC/SC entries for the handler tests: each records its call as one line of text (what the data
// files list under "pcsc") and answers as the case's script says.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "scard_test_support.h"

namespace scard_test {

using namespace kor::jni;

// How PC/SC answers, per case.
struct c_script {
    std::vector<LONG> results;  // of the case's calls in order; past the end 0, the natural answer
    bytes out;                  // what an entry with an output writes and reports
    DWORD report = 0;           // when not 0: the length reported instead of out's size
    std::uint64_t handle = 0x5000;  // the context or card that EstablishContext and Connect produce
    DWORD protocol = 2;           // the protocol that Connect, Reconnect and Status report
    std::size_t block = 0;        // GetAttrib's allocated block, when not out's size
    std::size_t pci_extra = 0;    // send PCI bytes shown after Transmit's 16-byte header
};
inline c_script g_script;
inline std::vector<std::string> g_calls;

inline std::string hex(std::uint64_t v) {
    char b[24];
    std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
    return b;
}
inline std::string len(DWORD v) { return v == ~DWORD{0} ? "~0" : std::to_string(v); }
// Bytes as the data files write them: "[3b 00*29]", a run of four or more as byte*count.
inline std::string octets(const void* p, std::size_t n) {
    if (!p) return "null";
    const auto* b = static_cast<const std::uint8_t*>(p);
    std::string s = "[";
    for (std::size_t i = 0, run; i < n; i += run) {
        for (run = 1; i + run < n && b[i + run] == b[i];) ++run;
        char t[32];
        std::snprintf(t, sizeof t, run >= 4 ? "%s%02x*%zu" : "%s%02x", i ? " " : "", b[i], run);
        if (run < 4) run = 1;
        s += t;
    }
    return s + "]";
}
inline std::string out_arg(const void* p, DWORD n) { return std::string(p ? "buf" : "null") + " n=" + len(n); }

// Records one call; returns its scripted result.
inline LONG note(const std::string& line) {
    g_calls.push_back(line);
    const std::size_t i = g_calls.size() - 1;
    return i < g_script.results.size() ? g_script.results[i] : 0;
}

// The natural answer of an entry with an output: out's bytes written and their length reported;
// too small a buffer gets PC/SC's insufficient-buffer code. A scripted result comes first.
inline LONG give(LONG scripted, void* out, DWORD room, DWORD* n) {
    if (scripted) return scripted;
    if (out && room < g_script.out.size()) return static_cast<LONG>(k_scard_e_insufficient_buffer);
    if (out && !g_script.out.empty()) std::memcpy(out, g_script.out.data(), g_script.out.size());
    *n = g_script.report ? g_script.report : static_cast<DWORD>(g_script.out.size());
    return 0;
}

inline LONG get_attrib(SCARDHANDLE card, DWORD attr, LPBYTE out, LPDWORD n) {
    const bool allocate = out && *n == k_autoallocate;
    const LONG r = note("SCardGetAttrib card=" + hex(card) + " attr=" + hex(attr) + " out=" +
                        (allocate ? "slot n=~0" : out_arg(out, *n)));
    if (!allocate) return give(r, out, *n, n);
    // PC/SC's allocation: a malloc block stored in the slot, even when it then fails.
    const std::size_t size = g_script.block ? g_script.block : g_script.out.size();
    auto* block = static_cast<std::uint8_t*>(std::malloc(size));
    std::memcpy(block, g_script.out.data(), std::min(size, g_script.out.size()));
    std::memcpy(out, &block, sizeof block);
    *n = g_script.report ? g_script.report : static_cast<DWORD>(g_script.out.size());
    return r;
}

// A service whose entries are these fakes, except those named in `missing`.
inline c_scard_service* fake_service(const std::set<std::string>& missing = {}) {
    auto* s = new c_scard_service();
    auto put = [&](auto& entry, const char* name, auto fake) { entry = missing.count(name) ? nullptr : +fake; };
    put(s->SCardEstablishContext, "SCardEstablishContext", [](DWORD scope, LPCVOID r1, LPCVOID r2, LPSCARDCONTEXT c) {
        *c = static_cast<SCARDCONTEXT>(g_script.handle);
        return note("SCardEstablishContext scope=" + hex(scope) + (r1 || r2 ? " reserved" : ""));
    });
    put(s->SCardReleaseContext, "SCardReleaseContext",
        [](SCARDCONTEXT c) { return note("SCardReleaseContext ctx=" + hex(c)); });
    put(s->SCardIsValidContext, "SCardIsValidContext",
        [](SCARDCONTEXT c) { return note("SCardIsValidContext ctx=" + hex(c)); });
    put(s->SCardCancel, "SCardCancel", [](SCARDCONTEXT c) { return note("SCardCancel ctx=" + hex(c)); });
    put(s->SCardListReaderGroups, "SCardListReaderGroups", [](SCARDCONTEXT c, LPSTR out, LPDWORD n) {
        return give(note("SCardListReaderGroups ctx=" + hex(c) + " out=" + out_arg(out, *n)), out, *n, n);
    });
    put(s->SCardListReaders, "SCardListReaders", [](SCARDCONTEXT c, LPCSTR groups, LPSTR out, LPDWORD n) {
        const std::string g = groups ? "set" : "null";
        return give(note("SCardListReaders ctx=" + hex(c) + " groups=" + g + " out=" + out_arg(out, *n)), out, *n, n);
    });
    put(s->SCardConnect, "SCardConnect",
        [](SCARDCONTEXT c, LPCSTR reader, DWORD share, DWORD protocols, LPSCARDHANDLE card, LPDWORD active) {
            const std::string name = reader ? '"' + std::string(reader) + '"' : "null";
            *card = static_cast<SCARDHANDLE>(g_script.handle), *active = g_script.protocol;
            return note("SCardConnect ctx=" + hex(c) + " reader=" + name + " share=" + hex(share) +
                        " protocols=" + hex(protocols));
        });
    put(s->SCardReconnect, "SCardReconnect",
        [](SCARDHANDLE card, DWORD share, DWORD protocols, DWORD init, LPDWORD active) {
            *active = g_script.protocol;
            return note("SCardReconnect card=" + hex(card) + " share=" + hex(share) + " protocols=" + hex(protocols) +
                        " init=" + hex(init));
        });
    put(s->SCardDisconnect, "SCardDisconnect", [](SCARDHANDLE card, DWORD d) {
        return note("SCardDisconnect card=" + hex(card) + " disposition=" + hex(d));
    });
    put(s->SCardBeginTransaction, "SCardBeginTransaction",
        [](SCARDHANDLE card) { return note("SCardBeginTransaction card=" + hex(card)); });
    put(s->SCardEndTransaction, "SCardEndTransaction", [](SCARDHANDLE card, DWORD d) {
        return note("SCardEndTransaction card=" + hex(card) + " disposition=" + hex(d));
    });
    // The name is out's bytes, NUL included; state 0x34, the script's protocol, the ATR 3B 00 00.
    put(s->SCardStatus, "SCardStatus",
        [](SCARDHANDLE card, LPSTR names, LPDWORD cch, LPDWORD state, LPDWORD protocol, LPBYTE atr, LPDWORD atr_len) {
            const LONG r = note("SCardStatus card=" + hex(card) + " out=" + out_arg(names, *cch) +
                                " atr_len=" + len(*atr_len));
            const DWORD offered = *cch;
            *cch = g_script.report ? g_script.report : g_script.out.size();
            if (r) return r;
            if (names && offered < g_script.out.size()) return static_cast<LONG>(k_scard_e_insufficient_buffer);
            if (names) std::memcpy(names, g_script.out.data(), g_script.out.size());
            *state = 0x34, *protocol = g_script.protocol, *atr_len = 3;
            std::memcpy(atr, "\x3B\0\0", 3);
            return LONG{0};
        });
    // Each state is shown as its name, states and ATR (up to its last non-zero byte); state i
    // gets the event state 0x22 + i.
    put(s->SCardGetStatusChange, "SCardGetStatusChange",
        [](SCARDCONTEXT c, DWORD timeout, SCARD_READERSTATE* states, DWORD n) {
            std::string line = "SCardGetStatusChange ctx=" + hex(c) + " timeout=" + hex(timeout) + " readers=" + len(n);
            if (!states) line += " states=null";
            for (DWORD i = 0; i < n; ++i) {
                const SCARD_READERSTATE& st = states[i];
                std::size_t atr = MAX_ATR_SIZE;
                while (atr && !st.rgbAtr[atr - 1]) --atr;
                line += std::string(" | ") + (st.szReader ? '"' + std::string(st.szReader) + '"' : "null") +
                        " current=" + hex(st.dwCurrentState) + " event=" + hex(st.dwEventState) +
                        " atr_len=" + len(st.cbAtr) + " atr=" + octets(st.rgbAtr, atr);
                states[i].dwEventState = 0x22 + i;
            }
            return note(line);
        });
    put(s->SCardControl, "SCardControl",
        [](SCARDHANDLE card, DWORD code, LPCVOID in, DWORD in_len, LPVOID out, DWORD out_len, LPDWORD returned) {
            return give(note("SCardControl card=" + hex(card) + " code=" + hex(code) + " in=" + octets(in, in_len) +
                             " in_len=" + len(in_len) + " out=" + out_arg(out, out_len)),
                        out, out_len, returned);
        });
    put(s->SCardTransmit, "SCardTransmit",
        [](SCARDHANDLE card, const SCARD_IO_REQUEST* pci, LPCBYTE send, DWORD send_len, SCARD_IO_REQUEST* recv_pci,
           LPBYTE recv, LPDWORD recv_len) {
            const std::string extra = g_script.pci_extra ? " " + octets(pci + 1, g_script.pci_extra) : "";
            return give(note("SCardTransmit card=" + hex(card) + " pci=" + hex(pci->dwProtocol) + "/" +
                             len(pci->cbPciLength) + extra + " send=" + octets(send, send_len) +
                             " send_len=" + len(send_len) + " recv_pci=" + (recv_pci ? "set" : "null") +
                             " out=" + out_arg(recv, *recv_len)),
                        recv, *recv_len, recv_len);
        });
    put(s->SCardGetAttrib, "SCardGetAttrib", get_attrib);
    put(s->SCardSetAttrib, "SCardSetAttrib", [](SCARDHANDLE card, DWORD attr, LPCBYTE v, DWORD n) {
        return note("SCardSetAttrib card=" + hex(card) + " attr=" + hex(attr) + " value=" + octets(v, n));
    });
    return s;
}

}  // namespace scard_test
