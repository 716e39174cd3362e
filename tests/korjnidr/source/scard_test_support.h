// Helpers for C++ tests of the smart card channel: a request builder, one call through the
// dispatcher, reply readers, and the PC/SC stand-in's counts (tests/pcsc_standin).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "scard_handler.h"

namespace scard_test {

using bytes = std::vector<std::uint8_t>;

// A request: the 16-byte type-serialization header (ObjectBufferLength filled in by build), then
// the fields the test appends.
class request {
public:
    request() { b_ = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0, 0, 0, 0, 0, 0, 0, 0}; }
    request& u32s(std::initializer_list<std::uint32_t> vs) {
        for (auto v : vs)
            for (int i = 0; i < 4; ++i) b_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        return *this;
    }
    request& raw(const bytes& v) {
        b_.insert(b_.end(), v.begin(), v.end());
        return *this;
    }
    bytes build() const {
        bytes out = b_;
        const auto len = static_cast<std::uint32_t>(out.size() - 16);
        for (int i = 0; i < 4; ++i) out[8 + i] = static_cast<std::uint8_t>(len >> (8 * i));
        return out;
    }

private:
    bytes b_;
};

inline bytes reply_bytes(const kor::jni::c_ndr_writer& w) {
    bytes out(w.size());
    w.copy_to(out.data(), out.size());
    return out;
}

inline std::uint32_t u32_at(const bytes& b, std::size_t off) {
    return std::uint32_t{b.at(off)} | std::uint32_t{b.at(off + 1)} << 8 | std::uint32_t{b.at(off + 2)} << 16 |
           std::uint32_t{b.at(off + 3)} << 24;
}

// Runs one call through the dispatcher with `owner` and returns the finished reply (empty for a
// code without a handler).
inline bytes call(std::uint32_t code, const bytes& req, std::int32_t owner = 1) {
    kor::jni::c_ndr_reader in(req.data(), req.size());
    kor::jni::c_ndr_writer out;
    kor::jni::scard_dispatch(owner, code, in, out);
    return reply_bytes(out);
}

// Calls of EstablishContext, Cancel and ReleaseContext that reached the PC/SC stand-in
// (tests/pcsc_standin), linked into the test binaries.
extern "C" std::atomic<int> standin_counts[3];

}  // namespace scard_test
