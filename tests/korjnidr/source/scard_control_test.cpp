#include <cstdlib>
#include <cstring>
#include <string>

#include "scard_test_support.h"

using namespace kor::jni;
using scard_test::bytes;
using scard_test::request;

namespace {

constexpr SCARDHANDLE k_card = 0xCA4D;

// One record of what the fakes were called with, and what they answer.
struct {
    int calls;
    SCARDHANDLE card;
    DWORD code_or_attr;
    bytes sent;  // Control's input or SetAttrib's value, as long as the length given
    bool null_in;
    bool null_out;
    DWORD length;  // Control's receive length, Get/SetAttrib's length
    LONG answer;
    bytes reply;  // bytes the fake returns
} fake;

void record(SCARDHANDLE card, DWORD id, const void* in, DWORD in_len) {
    ++fake.calls;
    fake.card = card;
    fake.code_or_attr = id;
    fake.null_in = in == nullptr;
    fake.sent = in ? bytes(static_cast<const std::uint8_t*>(in), static_cast<const std::uint8_t*>(in) + in_len) : bytes{};
}

LONG fake_control(SCARDHANDLE card, DWORD code, LPCVOID in, DWORD in_len, LPVOID out, DWORD out_len,
                  LPDWORD returned) {
    record(card, code, in, in_len);
    fake.null_out = out == nullptr;
    fake.length = out_len;
    if (fake.answer) return fake.answer;
    if (out && !fake.reply.empty()) std::memcpy(out, fake.reply.data(), fake.reply.size());
    *returned = fake.reply.size();
    return 0;
}

LONG fake_get_attrib(SCARDHANDLE card, DWORD attr, LPBYTE attr_out, LPDWORD len) {
    record(card, attr, nullptr, 0);
    fake.null_out = attr_out == nullptr;
    fake.length = *len;
    if (fake.answer) return fake.answer;
    if (*len == ~DWORD{0}) {
        void* block = std::malloc(fake.reply.size() + 1);
        if (!fake.reply.empty()) std::memcpy(block, fake.reply.data(), fake.reply.size());
        std::memcpy(attr_out, &block, sizeof block);
    } else if (attr_out && !fake.reply.empty()) {
        std::memcpy(attr_out, fake.reply.data(), std::min<std::size_t>(*len, fake.reply.size()));
    }
    *len = fake.reply.size();
    return 0;
}

LONG fake_set_attrib(SCARDHANDLE card, DWORD attr, LPCBYTE value, DWORD len) {
    record(card, attr, value, len);
    fake.length = len;
    return fake.answer;
}

// The calls, each on the card of wire id 1 with no context.
bytes control_call(std::uint32_t in_size, const bytes* input, bool out_is_null, std::uint32_t out_len) {
    request r;
    r.u32s({0, 0, 4, 1, 0x00313520, in_size, input ? 1u : 0u, out_is_null ? 1u : 0u, out_len}).handle(1);
    if (input) r.byte_array(*input);
    return r.build();
}

bytes get_attrib_call(std::uint32_t attr, bool length_only, std::uint32_t len) {
    return request().u32s({0, 0, 4, 1, attr, length_only ? 1u : 0u, len}).handle(1).build();
}

bytes set_attrib_call(std::uint32_t len, const bytes* value) {
    request r;
    r.u32s({0, 0, 4, 1, 0x00090303, len, value ? 1u : 0u}).handle(1);
    if (value) r.byte_array(*value);
    return r.build();
}

bytes run(void (*handler)(c_ndr_reader&, c_ndr_writer&), const bytes& req) {
    c_ndr_reader in(req.data(), req.size());
    c_ndr_writer out;
    handler(in, out);
    return scard_test::reply_bytes(out);
}

// Body of a success that carries an array: n, referent 1, n, the bytes, padded to 8 with the
// result code.
bytes array_body(const bytes& value) {
    const auto n = static_cast<std::uint32_t>(value.size());
    request r;
    r.u32s({n, 1, n}).raw(value);
    bytes b = r.build();
    b.erase(b.begin(), b.begin() + 16);
    while ((4 + b.size()) % 8) b.push_back(0);
    return b;
}

class ScardControl : public scard_test::service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        fake = {};
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
        {{}, 0, false, bytes(12, 0), 16},
        {{0xAA}, static_cast<LONG>(0x80100009), false, bytes(12, 0), 16},  // failure: 0, 0
        {{0xAA, 0xBB, 0xCC, 0xDD, 0xEE}, 0, true, array_body(bytes(5, 0)), 24},  // no buffer: zeros
    };
    for (const auto& c : cases) {
        fake.reply = c.returned;
        fake.answer = c.answer;
        const bytes reply = run(scard_control, control_call(5, &input, c.out_is_null, 16));
        EXPECT_EQ(fake.card, k_card);
        EXPECT_EQ(fake.code_or_attr, DWORD{0x00313520});
        EXPECT_EQ(fake.sent, input);
        EXPECT_EQ(fake.null_out, c.out_is_null);
        EXPECT_EQ(fake.length, 16u);
        EXPECT_EQ(scard_test::result_of(reply), static_cast<std::uint32_t>(c.answer));
        EXPECT_EQ(scard_test::u32_at(reply, 8), c.object_length);
        EXPECT_EQ(scard_test::body_of(reply), c.body);
    }
}

TEST_F(ScardControl, LengthsFromTheRequestAreChecked) {
    const bytes input = {0x01, 0x02, 0x03};
    // An input length beyond the bytes received, or without an array, is refused unheard.
    struct {
        std::uint32_t in_size;
        const bytes* array;
        bool called;
        std::size_t sent;
    } const cases[] = {
        {4, &input, false, 0},
        {0xFFFFFFFF, &input, false, 0},
        {1, nullptr, false, 0},
        {0, nullptr, true, 0},
        {2, &input, true, 2},  // a shorter length is honoured
        {3, &input, true, 3},
    };
    for (const auto& c : cases) {
        fake.calls = 0;
        fake.null_in = false;
        const bytes reply = run(scard_control, control_call(c.in_size, c.array, false, 8));
        EXPECT_EQ(fake.calls, c.called ? 1 : 0) << c.in_size;
        EXPECT_EQ(scard_test::result_of(reply), c.called ? 0u : 0x80100004u);
        if (c.called) {
            EXPECT_EQ(fake.sent.size(), c.sent);
        }
        EXPECT_EQ(fake.null_in, c.called && c.array == nullptr);
    }
    // A hostile output size is cut to the channel's largest buffer, and PC/SC is told so.
    run(scard_control, control_call(0, nullptr, false, 0xFFFFFFFF));
    EXPECT_EQ(fake.length, 66560u);
}

TEST_F(ScardControl, SetAttrib) {
    const bytes value = {0x10, 0x20, 0x30, 0x40};
    bytes reply = run(scard_set_attrib, set_attrib_call(4, &value));
    EXPECT_EQ(reply.size(), 24u);
    EXPECT_EQ(scard_test::u32_at(reply, 8), 8u);  // ObjectBufferLength: result and pad only
    EXPECT_EQ(fake.card, k_card);
    EXPECT_EQ(fake.code_or_attr, DWORD{0x00090303});
    EXPECT_EQ(fake.sent, value);

    fake.answer = static_cast<LONG>(0x80100016);
    reply = run(scard_set_attrib, set_attrib_call(4, &value));
    EXPECT_EQ(scard_test::result_of(reply), 0x80100016u);
    EXPECT_EQ(scard_test::u32_at(reply, 8), 8u);

    fake.calls = 0;
    EXPECT_EQ(scard_test::result_of(run(scard_set_attrib, set_attrib_call(5, &value))), 0x80100004u);
    EXPECT_EQ(scard_test::result_of(run(scard_set_attrib, set_attrib_call(1, nullptr))), 0x80100004u);
    EXPECT_EQ(fake.calls, 0);

    service().SCardSetAttrib = nullptr;
    EXPECT_EQ(scard_test::result_of(run(scard_set_attrib, set_attrib_call(4, &value))), 120u);
}

TEST_F(ScardControl, GetAttribFromPcsc) {
    fake.reply = {0xDE, 0xAD, 0xBE, 0xEF};
    struct {
        bool length_only;
        std::uint32_t requested;
        bool null_buffer;
        DWORD told;
        bytes body;
    } const cases[] = {
        {false, 16, false, 16, array_body({0xDE, 0xAD, 0xBE, 0xEF})},
        {true, 16, true, 16, array_body(bytes(4, 0))},                     // length only: zeros
        {true, 0xFFFFFFFF, true, 0xFFFFFFFF, array_body(bytes(4, 0))},     // passed unchanged
        {false, 0xFFFFFFFF, false, ~DWORD{0}, array_body({0xDE, 0xAD, 0xBE, 0xEF})},  // allocate
        {false, 0xFFFFFFF0, false, 66560, array_body({0xDE, 0xAD, 0xBE, 0xEF})},      // cut
    };
    for (const auto& c : cases) {
        const bytes reply = run(scard_get_attrib, get_attrib_call(0x00010100, c.length_only, c.requested));
        EXPECT_EQ(fake.card, k_card);
        EXPECT_EQ(fake.null_out, c.null_buffer) << c.requested;
        EXPECT_EQ(fake.length, c.told) << c.requested;
        EXPECT_EQ(scard_test::result_of(reply), 0u);
        EXPECT_EQ(scard_test::body_of(reply), c.body) << c.requested;
    }
    // A success with 0 bytes is a non-null pointer to an empty array.
    fake.reply = {};
    EXPECT_EQ(scard_test::body_of(run(scard_get_attrib, get_attrib_call(0x00010100, false, 8))),
              (bytes{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
    fake.answer = static_cast<LONG>(0x80100008);
    bytes reply = run(scard_get_attrib, get_attrib_call(0x00010100, false, 2));
    EXPECT_EQ(scard_test::result_of(reply), 0x80100008u);
    EXPECT_EQ(scard_test::body_of(reply), bytes(12, 0));
    service().SCardGetAttrib = nullptr;
    EXPECT_EQ(scard_test::result_of(run(scard_get_attrib, get_attrib_call(0x00010100, false, 8))), 120u);
}

TEST_F(ScardControl, GetAttribFallbackFromTheReaderRecord) {
    fake.answer = static_cast<LONG>(0x8010001F);
    service().add_reader(k_card, 2, "R1");
    struct {
        std::uint32_t attr;
        bool length_only;
        std::uint32_t requested;
        std::uint32_t result;
        bytes body;
    } const cases[] = {
        {0x7FFF0003, false, 100, 0, array_body({0x52, 0x31, 0, 0})},
        {0x7FFF0005, false, 100, 0, array_body({0x52, 0, 0x31, 0, 0, 0, 0, 0})},
        {0x00080201, false, 100, 0, array_body({0x02, 0, 0, 0})},
        {0x7FFF0003, false, 4, 0, array_body({0x52, 0x31, 0, 0})},
        {0x7FFF0003, false, 3, 0x80100008, bytes(12, 0)},
        {0x7FFF0003, false, 0xFFFFFFFF, 0, array_body({0x52, 0x31, 0, 0})},
        {0x7FFF0005, false, 0xFFFFFFFF, 0, array_body({0x52, 0, 0x31, 0, 0, 0, 0, 0})},
        {0x7FFF0003, true, 100, 0, array_body(bytes(4, 0))},
        {0x00010100, false, 100, 0x8010001F, bytes(12, 0)},  // not one of the three
    };
    for (const auto& c : cases) {
        const bytes reply = run(scard_get_attrib, get_attrib_call(c.attr, c.length_only, c.requested));
        EXPECT_EQ(scard_test::result_of(reply), c.result) << std::hex << c.attr << " " << c.requested;
        EXPECT_EQ(scard_test::body_of(reply), c.body) << std::hex << c.attr << " " << c.requested;
    }

    // A byte of 0x80 or more is sign-extended in the W form.
    service().add_reader(0xBEEF, 1, "\xC3");
    ASSERT_EQ(service().add_card(1, 0xBEEF), 2u);
    const bytes reply =
        run(scard_get_attrib, request().u32s({0, 0, 4, 1, 0x7FFF0005, 0, 100}).handle(2).build());
    EXPECT_EQ(scard_test::body_of(reply), array_body({0xC3, 0xFF, 0, 0, 0, 0}));

    // No record for the card (an unknown wire handle reaches PC/SC as all ones): PC/SC's answer.
    const bytes unknown =
        run(scard_get_attrib, request().u32s({0, 0, 4, 1, 0x7FFF0003, 0, 100}).handle(9).build());
    EXPECT_EQ(fake.card, k_no_handle);
    EXPECT_EQ(scard_test::result_of(unknown), 0x8010001Fu);
    EXPECT_EQ(scard_test::body_of(unknown), bytes(12, 0));
}
