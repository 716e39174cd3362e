// The scripted PC/SC stand-in (tests/pcsc_standin/pcsc_standin.cpp), built as libpcsclite.so.1:
// its entries, exported under PC/SC's names, record each call as one line of text (what the data
// files list under "pcsc") and answer as the script says. The C++ tests link it, so the library's
// dlopen finds it by its soname; the case driver also puts its entries into services of its own.
#pragma once

#include <winscard.h>

#include <cstdint>
#include <string>
#include <vector>

namespace scard_test {

using bytes = std::vector<std::uint8_t>;

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

// Takes `script` and forgets the calls; while no PC/SC call runs.
void standin_reset(const c_script& script = {});
// The calls so far, one line each.
std::vector<std::string> standin_calls();
// True once a GetStatusChange is waiting, false after `ms` milliseconds.
bool standin_wait_blocked(int ms);
// Bytes as the data files write them: "[3b 00*29]", a run of four or more as byte*count.
std::string octets(const void* p, std::size_t n);

}  // namespace scard_test
