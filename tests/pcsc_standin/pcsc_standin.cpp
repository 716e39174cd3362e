// Scripted PC/SC stand-in, built as libpcsclite.so.1 (interface in scard_fakes.h). Every entry
// records its call and answers as the script says; calls may come from many threads at once.
#include "scard_fakes.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>

namespace scard_test {
namespace {

std::mutex g_mutex;  // guards all below
std::condition_variable g_changed;
c_script g_script;
std::vector<std::string> g_calls;
std::map<SCARDCONTEXT, unsigned> g_ends;  // per context: Cancel and ReleaseContext calls
int g_waiting = 0;                        // GetStatusChange calls waiting

std::string hex(std::uint64_t v) {
    char b[24];
    std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
    return b;
}
std::string len(DWORD v) { return v == ~DWORD{0} ? "~0" : std::to_string(v); }
std::string given(const void* p) { return p ? "set" : "null"; }
std::string text(const char* s) { return s ? '"' + std::string(s) + '"' : "null"; }
std::string out_arg(const void* p, DWORD n) { return std::string(p ? "buf" : "null") + " n=" + len(n); }
std::string shown(const std::string& s) { return s; }
std::string shown(std::uint64_t v) { return hex(v); }

// Records one call as "<entry> <label>=<value>..." (`labels`: the entry, then one label per
// value; numbers show in hex) and returns its scripted result.
template <class... V>
LONG note(const char* labels, const V&... values) {
    std::istringstream in(labels);
    std::string line, label;
    in >> line;
    ((in >> label, line += ' ' + label + '=' + shown(values)), ...);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.push_back(line);
    const std::size_t i = g_calls.size() - 1;
    return i < g_script.results.size() ? g_script.results[i] : 0;
}

// The natural answer of an entry with an output: its length reported (even for too small a
// buffer, which gets PC/SC's insufficient-buffer code), out's bytes written. A scripted result
// comes first.
LONG give(LONG scripted, void* out, DWORD room, DWORD* n) {
    *n = g_script.report ? g_script.report : static_cast<DWORD>(g_script.out.size());
    if (scripted) return scripted;
    if (out && room < g_script.out.size()) return SCARD_E_INSUFFICIENT_BUFFER;
    if (out && !g_script.out.empty()) std::memcpy(out, g_script.out.data(), g_script.out.size());
    return 0;
}

// Cancel and ReleaseContext: each ends the calls waiting on its context.
LONG ending(const char* labels, SCARDCONTEXT context) {
    const LONG r = note(labels, context);
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_ends[context];
    g_changed.notify_all();
    return r;
}

// A waiting GetStatusChange: SCARD_E_CANCELLED once its context is ended; after a minute
// SCARD_E_TIMEOUT, so that a test whose call is never ended fails rather than hangs.
LONG wait_for_end(SCARDCONTEXT context) {
    std::unique_lock<std::mutex> lock(g_mutex);
    const unsigned ends = g_ends[context];
    ++g_waiting;
    g_changed.notify_all();
    const bool ended = g_changed.wait_for(lock, std::chrono::minutes(1), [&] { return g_ends[context] != ends; });
    --g_waiting;
    return ended ? SCARD_E_CANCELLED : SCARD_E_TIMEOUT;
}

// Each state as its name, states, ATR length and ATR (up to its last non-zero byte), joined by
// " | "; state i then gets the event state 0x22 + i.
std::string reader_states(SCARD_READERSTATE* states, DWORD n) {
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

}  // namespace

void standin_reset(const c_script& script) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_script = script;
    g_calls.clear();
}

std::vector<std::string> standin_calls() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls;
}

bool standin_wait_blocked(int ms) {
    std::unique_lock<std::mutex> lock(g_mutex);
    return g_changed.wait_for(lock, std::chrono::milliseconds(ms), [] { return g_waiting > 0; });
}

std::string octets(const void* p, std::size_t n) {
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

}  // namespace scard_test

using namespace scard_test;

extern "C" {

LONG SCardEstablishContext(DWORD scope, LPCVOID r1, LPCVOID r2, LPSCARDCONTEXT c) {
    *c = static_cast<SCARDCONTEXT>(g_script.handle);
    return note("SCardEstablishContext scope reserved", scope, given(r1) + "/" + given(r2));
}
LONG SCardReleaseContext(SCARDCONTEXT c) { return ending("SCardReleaseContext ctx", c); }
LONG SCardIsValidContext(SCARDCONTEXT c) { return note("SCardIsValidContext ctx", c); }
LONG SCardCancel(SCARDCONTEXT c) { return ending("SCardCancel ctx", c); }
LONG SCardListReaderGroups(SCARDCONTEXT c, LPSTR out, LPDWORD n) {
    return give(note("SCardListReaderGroups ctx out", c, out_arg(out, *n)), out, *n, n);
}
LONG SCardListReaders(SCARDCONTEXT c, LPCSTR groups, LPSTR out, LPDWORD n) {
    return give(note("SCardListReaders ctx groups out", c, given(groups), out_arg(out, *n)), out, *n, n);
}
LONG SCardConnect(SCARDCONTEXT c, LPCSTR reader, DWORD share, DWORD protocols, LPSCARDHANDLE card, LPDWORD active) {
    *card = static_cast<SCARDHANDLE>(g_script.handle), *active = g_script.protocol;
    return note("SCardConnect ctx reader share protocols", c, text(reader), share, protocols);
}
LONG SCardReconnect(SCARDHANDLE card, DWORD share, DWORD protocols, DWORD init, LPDWORD active) {
    *active = g_script.protocol;
    return note("SCardReconnect card share protocols init", card, share, protocols, init);
}
LONG SCardDisconnect(SCARDHANDLE card, DWORD d) { return note("SCardDisconnect card disposition", card, d); }
LONG SCardBeginTransaction(SCARDHANDLE card) { return note("SCardBeginTransaction card", card); }
LONG SCardEndTransaction(SCARDHANDLE card, DWORD d) { return note("SCardEndTransaction card disposition", card, d); }

// The name is out's bytes, NUL included; state 0x34, the script's protocol, the ATR 3B 00 00.
LONG SCardStatus(SCARDHANDLE card, LPSTR names, LPDWORD cch, LPDWORD state, LPDWORD proto, LPBYTE atr, LPDWORD n) {
    const LONG r = note("SCardStatus card out atr_len", card, out_arg(names, *cch), len(*n));
    if (const LONG answer = give(r, names, *cch, cch)) return answer;
    *state = 0x34, *proto = g_script.protocol, *n = 3;
    std::memcpy(atr, "\x3B\0\0", 3);
    return 0;
}

LONG SCardGetStatusChange(SCARDCONTEXT c, DWORD timeout, SCARD_READERSTATE* states, DWORD n) {
    const LONG r = note("SCardGetStatusChange ctx timeout readers states", c, timeout, len(n), reader_states(states, n));
    return g_script.wait ? wait_for_end(c) : r;
}

LONG SCardControl(SCARDHANDLE card, DWORD code, LPCVOID in, DWORD in_len, LPVOID out, DWORD room, LPDWORD n) {
    return give(note("SCardControl card code in in_len out", card, code, octets(in, in_len), len(in_len),
                     out_arg(out, room)),
                out, room, n);
}

LONG SCardTransmit(SCARDHANDLE card, const SCARD_IO_REQUEST* pci, LPCBYTE send, DWORD send_len,
                   SCARD_IO_REQUEST* recv_pci, LPBYTE out, LPDWORD n) {
    const std::string extra = g_script.pci_extra ? " " + octets(pci + 1, g_script.pci_extra) : "";
    const LONG r = note("SCardTransmit card pci send send_len recv_pci out", card,
                        hex(pci->dwProtocol) + "/" + len(pci->cbPciLength) + extra, octets(send, send_len),
                        len(send_len), given(recv_pci), out_arg(out, *n));
    return give(r, out, *n, n);
}

LONG SCardGetAttrib(SCARDHANDLE card, DWORD attr, LPBYTE out, LPDWORD n) {
    const bool allocate = out && *n == SCARD_AUTOALLOCATE;
    const LONG r = note("SCardGetAttrib card attr out", card, attr, allocate ? "slot n=~0" : out_arg(out, *n));
    if (!allocate) return give(r, out, *n, n);
    // PC/SC's allocation: a malloc block stored in the slot, even when it then fails.
    const std::size_t size = g_script.block ? g_script.block : g_script.out.size();
    auto* block = static_cast<std::uint8_t*>(std::malloc(size));
    std::memcpy(block, g_script.out.data(), std::min(size, g_script.out.size()));
    std::memcpy(out, &block, sizeof block);
    return give(r, nullptr, 0, n);
}

LONG SCardSetAttrib(SCARDHANDLE card, DWORD attr, LPCBYTE v, DWORD n) {
    return note("SCardSetAttrib card attr value", card, attr, octets(v, n));
}

}  // extern "C"
