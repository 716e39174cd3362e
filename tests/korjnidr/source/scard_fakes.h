// Shared stand-ins for PC/SC entries in the smart card handler tests: one recorder of what the
// last call was given, a generic answer that writes the bytes the test chose, and body builders.
#pragma once

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "scard_test_support.h"

namespace scard_test {

struct recorder {
    int calls = 0;
    std::uint64_t handle = 0;                    // context or card
    DWORD a = 0, b = 0, c = 0;                   // the call's other numbers, in order
    bytes sent;                                  // the input, as long as its given length
    bool null_in = false, null_out = false;
    DWORD room = 0;                              // the output length PC/SC was told
    std::vector<std::pair<bool, DWORD>> offers;  // (null output, room) of every call
    LONG answer = 0;                             // returned instead of writing `reply`, when not 0
    bytes reply;
    DWORD report = 0;  // when not 0: the length reported instead of the reply's
};
inline recorder fake;

inline void record(std::uint64_t handle, const void* in, DWORD in_len, const void* out, DWORD room) {
    ++fake.calls;
    fake.handle = handle;
    fake.null_in = in == nullptr;
    const auto* p = static_cast<const std::uint8_t*>(in);
    fake.sent = in ? bytes(p, p + in_len) : bytes{};
    fake.null_out = out == nullptr;
    fake.room = room;
    fake.offers.emplace_back(out == nullptr, room);
}

// Writes fake.reply into `out`; a reply longer than `room` is refused, as PC/SC does.
inline LONG answer(void* out, DWORD room, DWORD* len) {
    if (fake.answer) return fake.answer;
    if (out && room < fake.reply.size()) return static_cast<LONG>(kor::jni::k_scard_e_insufficient_buffer);
    if (out && !fake.reply.empty()) std::memcpy(out, fake.reply.data(), fake.reply.size());
    *len = fake.report ? fake.report : static_cast<DWORD>(fake.reply.size());
    return 0;
}

class fake_fixture : public service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        fake = recorder{};
    }
};

inline bytes run(void (*handler)(kor::jni::c_ndr_reader&, kor::jni::c_ndr_writer&), const bytes& req) {
    kor::jni::c_ndr_reader in(req.data(), req.size());
    kor::jni::c_ndr_writer out;
    handler(in, out);
    return reply_bytes(out);
}

inline bytes le32(std::initializer_list<std::uint32_t> values) {
    bytes out;
    for (auto v : values)
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return out;
}
inline bytes cat(bytes a, const bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
// A reply body: the fields, then `tail`, padded so that result code and body fill 8-byte units.
inline bytes body(std::initializer_list<std::uint32_t> fields, const bytes& tail = {}) {
    bytes out = cat(le32(fields), tail);
    while ((out.size() + 4) % 8) out.push_back(0);
    return out;
}
// A success carrying one array: n, referent 1, n, the bytes.
inline bytes array_body(const bytes& v) {
    const auto n = static_cast<std::uint32_t>(v.size());
    return body({n, 1, n}, v);
}
inline const bytes no_body(12, 0);

inline bytes le16(std::initializer_list<std::uint16_t> units) {
    bytes out;
    for (auto u : units) out.insert(out.end(), {static_cast<std::uint8_t>(u), static_cast<std::uint8_t>(u >> 8)});
    return out;
}

}  // namespace scard_test
