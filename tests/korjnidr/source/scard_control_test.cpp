#include <cstdlib>

#include "scard_fakes.h"

namespace {

constexpr std::uint32_t k_control = 212, k_get_attrib = 216, k_set_attrib = 220;
constexpr SCARDHANDLE k_card = 0xCA4D;
constexpr std::uint32_t k_refused = 0x80100004;  // PC/SC not asked

LONG fake_control(SCARDHANDLE card, DWORD code, LPCVOID in, DWORD in_len, LPVOID out, DWORD out_len,
                  LPDWORD returned) {
    record(card, in, in_len, out, out_len, {code});
    return answer(out, out_len, returned);
}
LONG fake_get_attrib(SCARDHANDLE card, DWORD attr, LPBYTE attr_out, LPDWORD len) {
    record(card, nullptr, 0, attr_out, *len, {attr});
    if (*len != ~DWORD{0} || fake.answer) return answer(attr_out, *len, len);
    void* block = std::malloc(fake.reply.size() + 1);  // allocating mode: the caller frees
    std::memcpy(block, fake.reply.data(), fake.reply.size());
    std::memcpy(attr_out, &block, sizeof block);
    *len = fake.reply.size();
    return 0;
}
LONG fake_set_attrib(SCARDHANDLE h, DWORD attr, LPCBYTE v, DWORD n) { return record(h, v, n, nullptr, 0, {attr}); }

struct ScardControl : fake_fixture {
    void SetUp() override {
        fake_fixture::SetUp();
        service().SCardControl = &fake_control;
        service().SCardGetAttrib = &fake_get_attrib;
        service().SCardSetAttrib = &fake_set_attrib;
        ASSERT_EQ(service().add_card(1, k_card), 1u);
    }
};

}  // namespace

TEST_F(ScardControl, Control) {
    const bytes input = {0x01, 0x02, 0x03, 0x04, 0x05};
    struct {
        std::uint32_t in_size;
        bool with_input, out_is_null;
        std::uint32_t out_len;
        bytes returned;
        LONG answer;
        DWORD room;  // what PC/SC is told
        std::uint32_t result;
        bytes body;
    } const cases[] = {
        {5, true, false, 16, {0xAA, 0xBB, 0xCC}, 0, 16, 0, array_body({0xAA, 0xBB, 0xCC})},
        {5, true, false, 16, {}, 0, 16, 0, no_body},
        {5, true, false, 16, {0xAA}, static_cast<LONG>(0x80100009), 16, 0x80100009, no_body},
        {5, true, true, 16, bytes(5, 0xAA), 0, 16, 0, array_body(bytes(5, 0))},  // no buffer: zeros
        {2, true, false, 8, {}, 0, 8, 0, no_body},
        {0, false, false, 8, {}, 0, 8, 0, no_body},
        // An input length beyond the bytes received, or without an array, is refused unheard.
        {6, true, false, 8, {}, 0, 0, k_refused, no_body},
        {~0u, true, false, 8, {}, 0, 0, k_refused, no_body},
        {1, false, false, 8, {}, 0, 0, k_refused, no_body},
        // A hostile output size is cut to the channel's largest buffer, and PC/SC is told so.
        {0, false, false, ~0u, {}, 0, 66560, 0, no_body},
    };
    for (const auto& c : cases) {
        fake = recorder{};
        fake.reply = c.returned, fake.answer = c.answer;
        const bytes reply = call(k_control, on_card({0x00313520, c.in_size, c.with_input, c.out_is_null, c.out_len},
                                                       c.with_input ? &input : nullptr));
        EXPECT_EQ(result_of(reply), c.result) << c.in_size;
        EXPECT_EQ(body_of(reply), c.body) << c.in_size;
        EXPECT_EQ(u32_at(reply, 8), 4 + c.body.size());  // ObjectBufferLength
        ASSERT_EQ(fake.calls, c.result == k_refused ? 0 : 1) << c.in_size;
        if (c.result == k_refused) continue;
        EXPECT_EQ(fake.handle, k_card);
        EXPECT_EQ(fake.a, 0x00313520u);
        EXPECT_EQ(fake.sent, c.with_input ? bytes(input.begin(), input.begin() + c.in_size) : bytes{});
        EXPECT_EQ(std::make_pair(fake.null_in, fake.null_out), std::make_pair(!c.with_input, c.out_is_null));
        EXPECT_EQ(fake.room, c.room);
    }
}

TEST_F(ScardControl, SetAttrib) {
    const bytes value = {0x10, 0x20, 0x30, 0x40};
    const bytes reply = call(k_set_attrib, on_card({0x00090303, 4, 1}, &value));
    EXPECT_EQ(reply.size(), 24u);
    EXPECT_EQ(u32_at(reply, 8), 8u);  // ObjectBufferLength: result and pad only
    EXPECT_EQ(fake.handle, k_card);
    EXPECT_EQ(fake.a, 0x00090303u);
    EXPECT_EQ(fake.sent, value);
    fake.calls = 0;
    EXPECT_EQ(result_of(call(k_set_attrib, on_card({0x00090303, 5, 1}, &value))), k_refused);
    EXPECT_EQ(result_of(call(k_set_attrib, on_card({0x00090303, 1, 0}))), k_refused);
    EXPECT_EQ(fake.calls, 0);
}

TEST_F(ScardControl, GetAttribFromPcsc) {
    const bytes value = {0xDE, 0xAD, 0xBE, 0xEF};
    struct {
        bool length_only;
        std::uint32_t requested;
        bytes reply;
        DWORD told;
        bytes body;
    } const cases[] = {
        {false, 16, value, 16, array_body(value)},
        {true, 16, value, 16, array_body(bytes(4, 0))},    // length only: zeros
        {true, ~0u, value, ~0u, array_body(bytes(4, 0))},  // passed unchanged
        {false, ~0u, value, ~DWORD{0}, array_body(value)},  // PC/SC allocates
        {false, 0xFFFFFFF0, value, 66560, array_body(value)},  // cut
        {false, 8, {}, 8, array_body({})},  // 0 bytes: a non-null pointer to an empty array
        {false, 2, value, 2, no_body},      // insufficient buffer
    };
    for (const auto& c : cases) {
        fake.reply = c.reply;
        const bytes reply = call(k_get_attrib, on_card({0x00010100, c.length_only, c.requested}));
        EXPECT_EQ(fake.handle, k_card);
        EXPECT_EQ(std::make_pair(fake.null_out, fake.room), std::make_pair(c.length_only, c.told)) << c.requested;
        EXPECT_EQ(result_of(reply), c.body == no_body ? k_scard_e_insufficient_buffer : 0u);
        EXPECT_EQ(body_of(reply), c.body) << c.requested;
    }
}

TEST_F(ScardControl, GetAttribFallbackFromTheReaderRecord) {
    fake.answer = static_cast<LONG>(0x8010001F);
    service().add_reader(k_card, 2, "R1");
    service().add_reader(0xBEEF, 1, "\xC3");
    ASSERT_EQ(service().add_card(1, 0xBEEF), 2u);
    struct {
        std::uint32_t attr, length_only, requested, card_wire, result;
        bytes body;
    } const cases[] = {
        {0x7FFF0003, 0, 4, 1, 0, array_body({0x52, 0x31, 0, 0})},
        {0x7FFF0003, 0, 3, 1, 0x80100008, no_body},
        {0x7FFF0005, 0, ~0u, 1, 0, array_body({0x52, 0, 0x31, 0, 0, 0, 0, 0})},  // allocating mode
        {0x00080201, 0, 100, 1, 0, array_body({0x02, 0, 0, 0})},
        {0x7FFF0003, 1, 100, 1, 0, array_body(bytes(4, 0))},
        {0x00010100, 0, 100, 1, 0x8010001F, no_body},  // not one of the three
        {0x7FFF0005, 0, 100, 2, 0, array_body({0xC3, 0xFF, 0, 0, 0, 0})},  // sign-extended
        {0x7FFF0003, 0, 100, 9, 0x8010001F, no_body},  // no record for an unknown card
    };
    for (const auto& c : cases) {
        const bytes reply = call(k_get_attrib, on_card({c.attr, c.length_only, c.requested}, nullptr, c.card_wire));
        EXPECT_EQ(result_of(reply), c.result) << std::hex << c.attr << " " << c.requested;
        EXPECT_EQ(body_of(reply), c.body) << std::hex << c.attr << " " << c.requested;
    }
    EXPECT_EQ(fake.handle, k_no_handle);
}
