// Stand-ins for PC/SC entries in the smart card handler tests, with request and reply builders.
#pragma once

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "scard_test_support.h"

namespace scard_test {

using namespace kor::jni;

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
using offers = std::vector<std::pair<bool, DWORD>>;

// Records a call; `numbers` go to a, b, c in order. Returns fake.answer.
inline LONG record(std::uint64_t handle, const void* in, DWORD in_len, const void* out, DWORD room,
                   std::initializer_list<DWORD> numbers = {}) {
    const auto* p = static_cast<const std::uint8_t*>(in);
    ++fake.calls, fake.handle = handle, fake.null_in = !in, fake.null_out = !out, fake.room = room;
    fake.sent = in ? bytes(p, p + in_len) : bytes{};
    fake.offers.emplace_back(!out, room);
    DWORD* to[] = {&fake.a, &fake.b, &fake.c};
    for (std::size_t i = 0; i < numbers.size(); ++i) *to[i] = numbers.begin()[i];
    return fake.answer;
}

// Writes fake.reply into `out`; a reply longer than `room` is refused, as PC/SC does.
inline LONG answer(void* out, DWORD room, DWORD* len) {
    if (fake.answer) return fake.answer;
    if (out && room < fake.reply.size()) return static_cast<LONG>(k_scard_e_insufficient_buffer);
    if (out && !fake.reply.empty()) std::memcpy(out, fake.reply.data(), fake.reply.size());
    *len = fake.report ? fake.report : static_cast<DWORD>(fake.reply.size());
    return 0;
}

class fake_fixture : public service_fixture {
protected:
    void SetUp() override { service_fixture::SetUp(); fake = recorder{}; }
};

// A conformant varying string: count, offset 0, count, the units (16-bit when wide, else bytes), pad.
inline request& text(request& r, bool wide, const std::vector<std::uint16_t>& units) {
    const auto c = static_cast<std::uint32_t>(units.size());
    r.u32s({c, 0, c});
    for (auto u : units) wide ? r.u16(u) : r.raw({static_cast<std::uint8_t>(u)});
    return r.pad4();
}
// A call on the card of wire id `card` with no context: `fields`, then `data` as a byte array when given.
inline bytes on_card(std::initializer_list<std::uint32_t> fields, const bytes* data = nullptr, std::uint32_t card = 1) {
    request r;
    r.u32s({0, 0, 4, 1}).u32s(fields).handle(card);
    return (data ? r.byte_array(*data) : r).build();
}

inline bytes le32(std::initializer_list<std::uint32_t> values) {
    const bytes all = request().u32s(values).build();
    return bytes(all.begin() + 16, all.end());
}
inline bytes le16(std::initializer_list<std::uint16_t> units) {
    bytes out;
    for (auto u : units) out.insert(out.end(), {static_cast<std::uint8_t>(u), static_cast<std::uint8_t>(u >> 8)});
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

}  // namespace scard_test

using namespace scard_test;
