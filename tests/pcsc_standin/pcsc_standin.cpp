// PC/SC stand-in, built as libpcsclite.so.1: a PC/SC with contexts and no reader. It defines the
// context calls (context 0xc0000001) and Connect (answering SCARD_E_NO_READERS_AVAILABLE) only, so the library finds every other entry missing and answers
// 120 for it. A Java test puts its folder first on LD_LIBRARY_PATH, where the library's dlopen of
// "libpcsclite.so.1" finds it. The C++ tests link it, so that the dlopen finds this very object
// by its soname, and read its counts; where they need more, they put their fakes (scard_fakes.h)
// into the service built.
#include <winscard.h>

#include <atomic>

extern "C" {

// Calls of EstablishContext, Cancel and ReleaseContext.
std::atomic<int> standin_counts[3];

LONG SCardEstablishContext(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT context) {
    *context = 0xc0000001;
    ++standin_counts[0];
    return SCARD_S_SUCCESS;
}
LONG SCardCancel(SCARDCONTEXT) { return ++standin_counts[1], SCARD_S_SUCCESS; }
LONG SCardReleaseContext(SCARDCONTEXT) { return ++standin_counts[2], SCARD_S_SUCCESS; }
LONG SCardIsValidContext(SCARDCONTEXT) { return SCARD_S_SUCCESS; }
LONG SCardConnect(SCARDCONTEXT, LPCSTR, DWORD, DWORD, LPSCARDHANDLE, LPDWORD) { return SCARD_E_NO_READERS_AVAILABLE; }

}  // extern "C"
