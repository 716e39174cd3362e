// Scripted PC/SC stand-in, built as libpcsclite.so.1: a PC/SC with contexts and no reader. It
// defines the context calls and SCardConnect only, so the library finds every other entry missing
// and answers 120 for it. Each call is recorded as one line ("SCardCancel ctx=0xc0000001"). The
// context calls succeed (contexts 0xc0000001, ...) and Connect answers
// SCARD_E_NO_READERS_AVAILABLE; nothing but a new context is written back.
// A Java test puts its folder first on LD_LIBRARY_PATH, where the library's dlopen of
// "libpcsclite.so.1" finds it. The C++ tests link it; the library's dlopen then finds this very
// object by its soname. They drive it through the functions below:
//   standin_reset()            forget records and blocking, end blocked calls
//   standin_block()            from now on GetStatusChange waits for a Cancel or ReleaseContext of
//                              its context, then answers SCARD_E_CANCELLED
//   standin_calls()            the records joined by '\n'; read while no PC/SC call runs
//   standin_wait_blocked(n, ms) 1 once n GetStatusChange calls are blocked
#include <winscard.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

namespace {

struct c_state {
    std::mutex mutex;
    std::condition_variable changed;
    bool block = false;  // GetStatusChange waits
    std::string calls;
    std::map<SCARDCONTEXT, unsigned> cancels;  // per context: Cancel and ReleaseContext calls
    unsigned resets = 0;
    int blocked = 0;
    SCARDCONTEXT next_context = 0xc0000001;
};

c_state& state() {
    static c_state* s = new c_state();  // never destroyed: blocked threads may outlive unload
    return *s;
}

// Records "<function> <handle name>=<handle>" and returns `result`. Called with the state's lock
// held.
LONG enter(const char* function, const char* name, unsigned long long handle, LONG result) {
    char line[128];
    std::snprintf(line, sizeof line, "%s%s %s=0x%llx", state().calls.empty() ? "" : "\n", function, name, handle);
    state().calls += line;
    return result;
}

LONG context_call(const char* function, SCARDCONTEXT context, LONG otherwise = SCARD_S_SUCCESS) {
    std::lock_guard<std::mutex> l(state().mutex);
    return enter(function, "ctx", context, otherwise);
}

LONG ending_call(const char* function, SCARDCONTEXT context) {
    std::lock_guard<std::mutex> l(state().mutex);
    ++state().cancels[context];
    state().changed.notify_all();
    return enter(function, "ctx", context, SCARD_S_SUCCESS);
}

}  // namespace

extern "C" {

void standin_reset(void) {
    std::lock_guard<std::mutex> l(state().mutex);
    state().block = false;
    state().calls.clear();
    state().cancels.clear();
    state().next_context = 0xc0000001;
    ++state().resets;
    state().changed.notify_all();
}

void standin_block(void) {
    std::lock_guard<std::mutex> l(state().mutex);
    state().block = true;
}

const char* standin_calls(void) { return state().calls.c_str(); }

int standin_wait_blocked(int n, int ms) {
    std::unique_lock<std::mutex> l(state().mutex);
    return state().changed.wait_for(l, std::chrono::milliseconds(ms), [&] { return state().blocked >= n; });
}

LONG SCardEstablishContext(DWORD dwScope, LPCVOID, LPCVOID, LPSCARDCONTEXT phContext) {
    std::lock_guard<std::mutex> l(state().mutex);
    *phContext = state().next_context++;
    return enter("SCardEstablishContext", "scope", dwScope, SCARD_S_SUCCESS);
}
LONG SCardReleaseContext(SCARDCONTEXT hContext) { return ending_call("SCardReleaseContext", hContext); }
LONG SCardCancel(SCARDCONTEXT hContext) { return ending_call("SCardCancel", hContext); }
LONG SCardIsValidContext(SCARDCONTEXT hContext) { return context_call("SCardIsValidContext", hContext); }
LONG SCardConnect(SCARDCONTEXT hContext, LPCSTR, DWORD, DWORD, LPSCARDHANDLE, LPDWORD) {
    return context_call("SCardConnect", hContext, SCARD_E_NO_READERS_AVAILABLE);
}

LONG SCardGetStatusChange(SCARDCONTEXT hContext, DWORD, SCARD_READERSTATE*, DWORD) {
    c_state& s = state();
    std::unique_lock<std::mutex> l(s.mutex);
    const LONG result = enter("SCardGetStatusChange", "ctx", hContext, SCARD_S_SUCCESS);
    if (!s.block) return result;
    const unsigned cancels = s.cancels[hContext], resets = s.resets;
    ++s.blocked;
    s.changed.notify_all();
    const bool ended = s.changed.wait_for(l, std::chrono::seconds(60),
                                          [&] { return s.cancels[hContext] != cancels || s.resets != resets; });
    --s.blocked;
    return ended ? SCARD_E_CANCELLED : SCARD_E_TIMEOUT;
}

}  // extern "C"
