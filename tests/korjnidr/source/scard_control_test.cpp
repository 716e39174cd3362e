#include <cstdlib>
#include <cstring>

#include "scard_fakes.h"

using namespace kor::jni;
using namespace scard_test;

namespace {

constexpr SCARDHANDLE k_card = 0xCA4D;

LONG fake_control(SCARDHANDLE card, DWORD code, LPCVOID in, DWORD in_len, LPVOID out, DWORD out_len,
                  LPDWORD returned) {
    record(card, in, in_len, out, out_len);
    fake.a = code;
    return answer(out, out_len, returned);
}
LONG fake_get_attrib(SCARDHANDLE card, DWORD attr, LPBYTE attr_out, LPDWORD len) {
    record(card, nullptr, 0, attr_out, *len);
    fake.a = attr;
    if (*len != ~DWORD{0} || fake.answer) return answer(attr_out, *len, len);
    void* block = std::malloc(fake.reply.size() + 1);  // allocating mode: the caller frees
    std::memcpy(block, fake.reply.data(), fake.reply.size());
    std::memcpy(attr_out, &block, sizeof block);
    *len = fake.reply.size();
    return 0;
}
LONG fake_set_attrib(SCARDHANDLE card, DWORD attr, LPCBYTE value, DWORD len) {
    record(card, value, len, nullptr, 0);
    fake.a = attr;
    return fake.answer;
}

// The calls, each on the card of wire id 1 with no context.
bytes control_call(std::uint32_t in_size, const bytes* input, bool out_is_null, std::uint32_t out_len) {
    request r;
    r.u32s({0, 0, 4, 1, 0x00313520, in_size, input ? 1u : 0u, out_is_null ? 1u : 0u, out_len}).handle(1);
    if (input) r.byte_array(*input);
    return r.build();
}
bytes get_attrib_call(std::uint32_t attr, bool length_only, std::uint32_t len, std::uint32_t card_wire = 1) {
    return request().u32s({0, 0, 4, 1, attr, length_only ? 1u : 0u, len}).handle(card_wire).build();
}
bytes set_attrib_call(std::uint32_t len, const bytes* value) {
    request r;
    r.u32s({0, 0, 4, 1, 0x00090303, len, value ? 1u : 0u}).handle(1);
    if (value) r.byte_array(*value);
    return r.build();
}

class ScardControl : public fake_fixture {
protected:
    void SetUp() override {
        fake_fixture::SetUp();
        service().SCardControl = &fake_control;
        service().SCardGetAttrib = &fake_get_attrib;
        service().SCardSetAttrib = &fake_set_attrib;
        ASSERT_EQ(service().add_card(1, k_card), 1u);
    }
};

}  // namespace

TEST_F(ScardControl, ControlReplies) {
    const bytes input = {0x01, 0x02, 0x03, 0x04, 0x05};
    struct {
        bytes returned;
        LONG answer;
        bool out_is_null;
        bytes body;
        std::uint32_t object_length;
    } const cases[] = {
        {{0xAA, 0xBB, 0xCC}, 0, false, array_body({0xAA, 0xBB, 0xCC}), 24},
        {{}, 0, false, no_body, 16},
        {{0xAA}, static_cast<LONG>(0x80100009), false, no_body, 16},
        {{0xAA, 0xBB, 0xCC, 0xDD, 0xEE}, 0, true, array_body(bytes(5, 0)), 24},  // no buffer: zeros
    };
    for (const auto& c : cases) {
        fake.reply = c.returned;
        fake.answer = c.answer;
        const bytes reply = run(scard_control, control_call(5, &input, c.out_is_null, 16));
        EXPECT_EQ(fake.null_out, c.out_is_null);
        EXPECT_EQ(result_of(reply), static_cast<std::uint32_t>(c.answer));
        EXPECT_EQ(u32_at(reply, 8), c.object_length);
        EXPECT_EQ(body_of(reply), c.body);
    }
    EXPECT_EQ(fake.handle, k_card);
    EXPECT_EQ(fake.a, DWORD{0x00313520});
    EXPECT_EQ(fake.sent, input);
    EXPECT_EQ(fake.room, 16u);
    service().SCardControl = nullptr;
    EXPECT_EQ(result_of(run(scard_control, control_call(5, &input, false, 16))), k_not_implemented);
}

TEST_F(ScardControl, LengthsFromTheRequestAreChecked) {
    const bytes input = {0x01, 0x02, 0x03};
    // An input length beyond the bytes received, or without an array, is refused unheard.
    struct {
        std::uint32_t in_size;
        const bytes* array;
        bool called;
    } const cases[] = {{4, &input, false}, {0xFFFFFFFF, &input, false}, {1, nullptr, false},
                       {0, nullptr, true},  {2, &input, true}};
    for (const auto& c : cases) {
        fake.calls = 0;
        const bytes reply = run(scard_control, control_call(c.in_size, c.array, false, 8));
        EXPECT_EQ(fake.calls, c.called ? 1 : 0) << c.in_size;
        EXPECT_EQ(result_of(reply), c.called ? 0u : 0x80100004u);
        if (c.called) {
            EXPECT_EQ(fake.sent.size(), c.in_size);
            EXPECT_EQ(fake.null_in, c.array == nullptr);
        }
    }
    // A hostile output size is cut to the channel's largest buffer, and PC/SC is told so.
    run(scard_control, control_call(0, nullptr, false, 0xFFFFFFFF));
    EXPECT_EQ(fake.room, 66560u);
}

TEST_F(ScardControl, SetAttrib) {
    const bytes value = {0x10, 0x20, 0x30, 0x40};
    for (LONG answer : {0L, static_cast<LONG>(0x80100016)}) {
        fake.answer = answer;
        const bytes reply = run(scard_set_attrib, set_attrib_call(4, &value));
        EXPECT_EQ(reply.size(), 24u);
        EXPECT_EQ(u32_at(reply, 8), 8u);  // ObjectBufferLength: result and pad only
        EXPECT_EQ(result_of(reply), static_cast<std::uint32_t>(answer));
        EXPECT_EQ(fake.handle, k_card);
        EXPECT_EQ(fake.a, DWORD{0x00090303});
        EXPECT_EQ(fake.sent, value);
    }
    fake.calls = 0;
    EXPECT_EQ(result_of(run(scard_set_attrib, set_attrib_call(5, &value))), 0x80100004u);
    EXPECT_EQ(result_of(run(scard_set_attrib, set_attrib_call(1, nullptr))), 0x80100004u);
    EXPECT_EQ(fake.calls, 0);
    service().SCardSetAttrib = nullptr;
    EXPECT_EQ(result_of(run(scard_set_attrib, set_attrib_call(4, &value))), k_not_implemented);
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
        {true, 16, value, 16, array_body(bytes(4, 0))},                  // length only: zeros
        {true, 0xFFFFFFFF, value, 0xFFFFFFFF, array_body(bytes(4, 0))},  // passed unchanged
        {false, 0xFFFFFFFF, value, ~DWORD{0}, array_body(value)},        // PC/SC allocates
        {false, 0xFFFFFFF0, value, 66560, array_body(value)},            // cut
        {false, 8, {}, 8, array_body({})},  // 0 bytes: a non-null pointer to an empty array
        {false, 2, value, 2, no_body},      // insufficient buffer
    };
    for (const auto& c : cases) {
        fake.reply = c.reply;
        const bytes reply = run(scard_get_attrib, get_attrib_call(0x00010100, c.length_only, c.requested));
        EXPECT_EQ(fake.handle, k_card);
        EXPECT_EQ(fake.null_out, c.length_only) << c.requested;
        EXPECT_EQ(fake.room, c.told) << c.requested;
        EXPECT_EQ(result_of(reply), c.body == no_body ? k_scard_e_insufficient_buffer : 0u);
        EXPECT_EQ(body_of(reply), c.body) << c.requested;
    }
    service().SCardGetAttrib = nullptr;
    EXPECT_EQ(result_of(run(scard_get_attrib, get_attrib_call(0x00010100, false, 8))), k_not_implemented);
}

TEST_F(ScardControl, GetAttribFallbackFromTheReaderRecord) {
    fake.answer = static_cast<LONG>(0x8010001F);
    service().add_reader(k_card, 2, "R1");
    service().add_reader(0xBEEF, 1, "\xC3");
    ASSERT_EQ(service().add_card(1, 0xBEEF), 2u);
    struct {
        std::uint32_t attr;
        bool length_only;
        std::uint32_t requested;
        std::uint32_t card_wire;
        std::uint32_t result;
        bytes body;
    } const cases[] = {
        {0x7FFF0003, false, 100, 1, 0, array_body({0x52, 0x31, 0, 0})},
        {0x7FFF0005, false, 100, 1, 0, array_body({0x52, 0, 0x31, 0, 0, 0, 0, 0})},
        {0x00080201, false, 100, 1, 0, array_body({0x02, 0, 0, 0})},
        {0x7FFF0003, false, 4, 1, 0, array_body({0x52, 0x31, 0, 0})},
        {0x7FFF0003, false, 3, 1, 0x80100008, no_body},
        {0x7FFF0005, false, 0xFFFFFFFF, 1, 0, array_body({0x52, 0, 0x31, 0, 0, 0, 0, 0})},
        {0x7FFF0003, true, 100, 1, 0, array_body(bytes(4, 0))},
        {0x00010100, false, 100, 1, 0x8010001F, no_body},  // not one of the three
        {0x7FFF0005, false, 100, 2, 0, array_body({0xC3, 0xFF, 0, 0, 0, 0})},  // sign-extended
        {0x7FFF0003, false, 100, 9, 0x8010001F, no_body},  // no record for an unknown card
    };
    for (const auto& c : cases) {
        const bytes reply = run(scard_get_attrib, get_attrib_call(c.attr, c.length_only, c.requested, c.card_wire));
        EXPECT_EQ(result_of(reply), c.result) << std::hex << c.attr << " " << c.requested;
        EXPECT_EQ(body_of(reply), c.body) << std::hex << c.attr << " " << c.requested;
    }
    EXPECT_EQ(fake.handle, k_no_handle);
}
