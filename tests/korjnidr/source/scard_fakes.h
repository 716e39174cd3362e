// PC/SC entries for the card service tests: each records its call as one line of text (what the
// data files list under "pcsc") and answers as the case's script says. Calls may come from several
// threads; the script is set while none runs.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <sstream>
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
    bool wait = false;  // GetStatusChange waits for a Cancel or ReleaseContext of its context
};
inline c_script g_script;
inline std::vector<std::string> g_calls;
inline std::mutex g_calls_mutex;  // guards g_calls and the two below
inline std::condition_variable g_calls_changed;
inline std::multiset<SCARDCONTEXT> g_ended;  // a context per Cancel or ReleaseContext of it
inline int g_waiting = 0;                    // GetStatusChange calls waiting

inline std::string hex(std::uint64_t v) {
    char b[24];
    std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
    return b;
}
inline std::string len(DWORD v) { return v == ~DWORD{0} ? "~0" : std::to_string(v); }
inline std::string given(const void* p) { return p ? "set" : "null"; }
inline std::string text(const char* s) { return s ? '"' + std::string(s) + '"' : "null"; }
inline std::string out_arg(const void* p, DWORD n) { return std::string(p ? "buf" : "null") + " n=" + len(n); }
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
inline std::string shown(const std::string& s) { return s; }
inline std::string shown(std::uint64_t v) { return hex(v); }

// Records one call as "<entry> <label>=<value>..." (`labels`: the entry, then one label per
// value; numbers show in hex) and returns its scripted result.
template <class... V>
LONG note(const char* labels, const V&... values) {
    std::istringstream in(labels);
    std::string line, label;
    in >> line;
    ((in >> label, line += ' ' + label + '=' + shown(values)), ...);
    std::lock_guard<std::mutex> lock(g_calls_mutex);
    g_calls.push_back(line);
    const std::size_t i = g_calls.size() - 1;
    return i < g_script.results.size() ? g_script.results[i] : 0;
}

// The natural answer of an entry with an output: its length reported (even for too small a
// buffer, which gets PC/SC's insufficient-buffer code), out's bytes written. A scripted result
// comes first.
inline LONG give(LONG scripted, void* out, DWORD room, DWORD* n) {
    *n = g_script.report ? g_script.report : static_cast<DWORD>(g_script.out.size());
    if (scripted) return scripted;
    if (out && room < g_script.out.size()) return static_cast<LONG>(k_scard_e_insufficient_buffer);
    if (out && !g_script.out.empty()) std::memcpy(out, g_script.out.data(), g_script.out.size());
    return 0;
}

// Cancel and ReleaseContext: each ends the calls waiting on its context.
inline LONG ending(const char* labels, SCARDCONTEXT context) {
    const LONG r = note(labels, context);
    std::lock_guard<std::mutex> lock(g_calls_mutex);
    g_ended.insert(context);
    g_calls_changed.notify_all();
    return r;
}

// A waiting GetStatusChange: SCARD_E_CANCELLED once its context is ended, SCARD_E_TIMEOUT after a
// minute (a test whose call nothing ends fails rather than hangs).
inline LONG wait_for_end(SCARDCONTEXT context) {
    std::unique_lock<std::mutex> lock(g_calls_mutex);
    const std::size_t ends = g_ended.count(context);
    ++g_waiting;
    g_calls_changed.notify_all();
    const bool ended =
        g_calls_changed.wait_for(lock, std::chrono::minutes(1), [&] { return g_ended.count(context) != ends; });
    --g_waiting;
    return ended ? SCARD_E_CANCELLED : SCARD_E_TIMEOUT;
}

// True once a GetStatusChange waits, false after `ms` milliseconds.
inline bool wait_blocked(int ms) {
    std::unique_lock<std::mutex> lock(g_calls_mutex);
    return g_calls_changed.wait_for(lock, std::chrono::milliseconds(ms), [] { return g_waiting > 0; });
}

inline LONG get_attrib(SCARDHANDLE card, DWORD attr, LPBYTE out, LPDWORD n) {
    const bool allocate = out && *n == k_autoallocate;
    const LONG r = note("SCardGetAttrib card attr out", card, attr, allocate ? "slot n=~0" : out_arg(out, *n));
    if (!allocate) return give(r, out, *n, n);
    // PC/SC's allocation: a malloc block stored in the slot, even when it then fails.
    const std::size_t size = g_script.block ? g_script.block : g_script.out.size();
    auto* block = static_cast<std::uint8_t*>(std::malloc(size));
    std::memcpy(block, g_script.out.data(), std::min(size, g_script.out.size()));
    std::memcpy(out, &block, sizeof block);
    return give(r, nullptr, 0, n);
}

// Each state as its name, states, ATR length and ATR (up to its last non-zero byte), joined by
// " | "; state i then gets the event state 0x22 + i.
inline std::string reader_states(SCARD_READERSTATE* states, DWORD n) {
    std::string s = states ? "" : "null";
    for (DWORD i = 0; i < n; ++i) {
        std::size_t atr = MAX_ATR_SIZE;
        while (atr && !states[i].rgbAtr[atr - 1]) --atr;
        s += (i ? " | " : "") + text(states[i].szReader) + " current=" + hex(states[i].dwCurrentState) +
             " event=" + hex(states[i].dwEventState) + " atr_len=" + len(states[i].cbAtr) +
             " atr=" + octets(states[i].rgbAtr, atr);
        states[i].dwEventState = 0x22 + i;
    }
    return s;
}

// Makes these fakes the entries of `s`, except those named in `missing`; returns `s`.
inline c_scard_service* with_fakes(c_scard_service* s, const std::set<std::string>& missing = {}) {
    const auto put = [&](auto& entry, const char* name, auto fake) {
        entry = fake;
        if (missing.count(name)) entry = nullptr;
    };
    put(s->SCardEstablishContext, "SCardEstablishContext", [](auto scope, auto r1, auto r2, auto c) {
        *c = static_cast<SCARDCONTEXT>(g_script.handle);
        return note("SCardEstablishContext scope reserved", scope, given(r1) + "/" + given(r2));
    });
    put(s->SCardReleaseContext, "SCardReleaseContext", [](auto c) { return ending("SCardReleaseContext ctx", c); });
    put(s->SCardIsValidContext, "SCardIsValidContext", [](auto c) { return note("SCardIsValidContext ctx", c); });
    put(s->SCardCancel, "SCardCancel", [](auto c) { return ending("SCardCancel ctx", c); });
    put(s->SCardListReaderGroups, "SCardListReaderGroups", [](auto c, auto out, auto n) {
        return give(note("SCardListReaderGroups ctx out", c, out_arg(out, *n)), out, *n, n);
    });
    put(s->SCardListReaders, "SCardListReaders", [](auto c, auto groups, auto out, auto n) {
        return give(note("SCardListReaders ctx groups out", c, given(groups), out_arg(out, *n)), out, *n, n);
    });
    put(s->SCardConnect, "SCardConnect", [](auto c, auto reader, auto share, auto protocols, auto card, auto active) {
        *card = static_cast<SCARDHANDLE>(g_script.handle), *active = g_script.protocol;
        return note("SCardConnect ctx reader share protocols", c, text(reader), share, protocols);
    });
    put(s->SCardReconnect, "SCardReconnect", [](auto card, auto share, auto protocols, auto init, auto active) {
        *active = g_script.protocol;
        return note("SCardReconnect card share protocols init", card, share, protocols, init);
    });
    put(s->SCardDisconnect, "SCardDisconnect",
        [](auto card, auto d) { return note("SCardDisconnect card disposition", card, d); });
    put(s->SCardBeginTransaction, "SCardBeginTransaction",
        [](auto card) { return note("SCardBeginTransaction card", card); });
    put(s->SCardEndTransaction, "SCardEndTransaction",
        [](auto card, auto d) { return note("SCardEndTransaction card disposition", card, d); });
    // The name is out's bytes, NUL included; state 0x34, the script's protocol, the ATR 3B 00 00.
    put(s->SCardStatus, "SCardStatus", [](auto card, auto names, auto cch, auto state, auto proto, auto atr, auto n) {
        const LONG r = note("SCardStatus card out atr_len", card, out_arg(names, *cch), len(*n));
        if (const LONG answer = give(r, names, *cch, cch)) return answer;
        *state = 0x34, *proto = g_script.protocol, *n = 3;
        std::memcpy(atr, "\x3B\0\0", 3);
        return LONG{0};
    });
    put(s->SCardGetStatusChange, "SCardGetStatusChange", [](auto c, auto timeout, auto states, auto n) {
        const LONG r = note("SCardGetStatusChange ctx timeout readers states", c, timeout, len(n), reader_states(states, n));
        return g_script.wait ? wait_for_end(c) : r;
    });
    put(s->SCardControl, "SCardControl", [](auto card, auto code, auto in, auto in_len, auto out, auto room, auto n) {
        return give(note("SCardControl card code in in_len out", card, code, octets(in, in_len), len(in_len),
                         out_arg(out, room)),
                    out, room, n);
    });
    put(s->SCardTransmit, "SCardTransmit", [](auto card, auto pci, auto send, auto send_len, auto recv_pci, auto out,
                                              auto n) {
        const std::string extra = g_script.pci_extra ? " " + octets(pci + 1, g_script.pci_extra) : "";
        const LONG r = note("SCardTransmit card pci send send_len recv_pci out", card,
                            hex(pci->dwProtocol) + "/" + len(pci->cbPciLength) + extra, octets(send, send_len),
                            len(send_len), given(recv_pci), out_arg(out, *n));
        return give(r, out, *n, n);
    });
    put(s->SCardGetAttrib, "SCardGetAttrib", get_attrib);
    put(s->SCardSetAttrib, "SCardSetAttrib", [](auto card, auto attr, auto v, auto n) {
        return note("SCardSetAttrib card attr value", card, attr, octets(v, n));
    });
    return s;
}

}  // namespace scard_test
