#include <cstring>
#include <string>
#include <vector>

#include "scard_test_support.h"

using namespace kor::jni;
using scard_test::bytes;
using scard_test::request;

namespace {

// The fake SCardStatus answers from `script`: the name it reports (and writes when the offered
// length suffices), its protocol and ATR; it records every call's arguments.
struct c_status_call {
    SCARDHANDLE card;
    bool null_names;
    DWORD offered;
    DWORD atr_offered;
};
struct {
    std::string name = "R1";  // without its NUL; PC/SC reports name.size() + 1
    DWORD protocol = 2;
    bytes atr = {0x3B, 0x00, 0x00};
    DWORD state = 0x34;
    LONG answer = 0;                  // result when the buffer suffices
    LONG sizing_answer = 0x80100008;  // result of a call offered less than the name
    std::vector<c_status_call> calls;
} script;

LONG fake_status(SCARDHANDLE card, LPSTR names, LPDWORD cch, LPDWORD state, LPDWORD protocol, LPBYTE atr,
                 LPDWORD atr_len) {
    script.calls.push_back({card, names == nullptr, *cch, *atr_len});
    const DWORD needed = script.name.size() + 1;
    const DWORD offered = *cch;
    *cch = needed;
    if (names && offered < needed) return script.sizing_answer;
    if (script.answer != 0) return script.answer;
    if (names) std::memcpy(names, script.name.c_str(), needed);
    *state = script.state;
    *protocol = script.protocol;
    std::memcpy(atr, script.atr.data(), script.atr.size());
    *atr_len = script.atr.size();
    return 0;
}

// Status_Call with a card handle of wire id 1 and no context.
bytes status_call(std::uint32_t names_is_null, std::uint32_t cch, std::uint32_t cb_atr = 0) {
    return request().u32s({0, 0, 4, 1, names_is_null, cch, cb_atr}).handle(1).build();
}

bytes run(void (*handler)(c_ndr_reader&, c_ndr_writer&), const bytes& req) {
    c_ndr_reader in(req.data(), req.size());
    c_ndr_writer out;
    handler(in, out);
    return scard_test::reply_bytes(out);
}

// The fixed fields of a success: cBytes, referent 1, state 6, protocol, the 32-byte ATR field
// holding 3B 00 00, cbAtrLen 3, then the array count.
bytes success_head(std::uint32_t length, std::uint32_t protocol) {
    request r;
    r.u32s({length, 1, 6, protocol}).raw({0x3B, 0, 0}).raw(bytes(29, 0)).u32s({3, length});
    const bytes b = r.build();
    return bytes(b.begin() + 16, b.end());
}

bytes concat(bytes a, const bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class ScardStatus : public scard_test::service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        script = {};
        service().SCardStatus = &fake_status;
        ASSERT_EQ(service().add_card(1, 0xCA4D), 1u);
    }
};

}  // namespace

TEST_F(ScardStatus, FixedModeRepliesInBothWidths) {
    bytes reply = run(scard_status_a, status_call(0, 100));
    ASSERT_EQ(script.calls.size(), 1u);
    EXPECT_EQ(script.calls[0].card, SCARDHANDLE{0xCA4D});
    EXPECT_EQ(script.calls[0].offered, 99u);      // one less than the buffer
    EXPECT_EQ(script.calls[0].atr_offered, 32u);  // whatever the request's cbAtrLen
    EXPECT_EQ(reply.size(), 16u + 64u);
    EXPECT_EQ(scard_test::result_of(reply), 0u);
    EXPECT_EQ(scard_test::body_of(reply), concat(success_head(4, 2), {0x52, 0x31, 0, 0}));

    reply = run(scard_status_w, status_call(0, 100, 77));
    EXPECT_EQ(script.calls.back().atr_offered, 32u);
    EXPECT_EQ(reply.size(), 16u + 72u);  // 68 bytes of result and body, padded by 4
    EXPECT_EQ(scard_test::body_of(reply),
              concat(success_head(8, 2), {0x52, 0, 0x31, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(ScardStatus, AllocatingModeSizesFirst) {
    script.name = "ABCDEFGH";  // PC/SC reports 9
    const bytes reply = run(scard_status_a, status_call(0, 0xFFFFFFFF));
    ASSERT_EQ(script.calls.size(), 2u);
    EXPECT_FALSE(script.calls[0].null_names);
    EXPECT_EQ(script.calls[0].offered, 1u);
    EXPECT_EQ(script.calls[1].offered, 9u);  // of a 10-byte buffer
    EXPECT_EQ(scard_test::u32_at(reply, 20), 10u);
    EXPECT_EQ(bytes(reply.begin() + 76, reply.begin() + 86), (bytes{'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0, 0}));

    // Same through W: 10 units.
    const bytes wide = run(scard_status_w, status_call(0, 0xFFFFFFFF));
    EXPECT_EQ(scard_test::u32_at(wide, 20), 20u);
    EXPECT_EQ(wide[76 + 14], 'H');
}

TEST_F(ScardStatus, AllocatingModeNeedsTheInsufficientBufferAnswer) {
    struct {
        LONG sizing_answer;
        bool entry;
    } const cases[] = {
        {static_cast<LONG>(0x80100003), true},  // PC/SC rejects the handle
        {0, true},                              // success on the sizing call is no length either
        {0, false},                             // missing entry: 120 there, 0x8010001F here
    };
    for (const auto& c : cases) {
        script.calls.clear();
        script.sizing_answer = c.sizing_answer;
        service().SCardStatus = c.entry ? &fake_status : nullptr;
        const bytes reply = run(scard_status_a, status_call(0, 0xFFFFFFFF));
        EXPECT_EQ(scard_test::result_of(reply), 0x8010001Fu);
        EXPECT_EQ(scard_test::body_of(reply), bytes(52, 0));
        EXPECT_LE(script.calls.size(), 1u);
    }
}

TEST_F(ScardStatus, LengthOnlyMode) {
    script.name = "R1";
    bytes reply = run(scard_status_a, status_call(1, 50));
    ASSERT_EQ(script.calls.size(), 1u);
    EXPECT_TRUE(script.calls[0].null_names);
    EXPECT_EQ(script.calls[0].offered, 49u);
    EXPECT_EQ(scard_test::body_of(reply), concat(success_head(4, 2), {0, 0, 0, 0}));

    reply = run(scard_status_w, status_call(1, 0));
    EXPECT_EQ(script.calls.back().offered, 0u);  // no wrap to 0xFFFFFFFF
    EXPECT_EQ(scard_test::body_of(reply), concat(success_head(8, 2), bytes(12, 0)));
}

TEST_F(ScardStatus, SmallAndHostileFixedLengthsStayInsideTheBuffer) {
    struct {
        std::uint32_t cch;
        DWORD offered;
        std::uint32_t result;
    } const cases[] = {
        {0, 0, 0x80100008},           // no room at all: offered 0, never 0xFFFFFFFF
        {3, 2, 0x80100008},           // name of 3 needs a buffer of 4
        {4, 3, 0},
        {0xFFFFFFFE, 65535, 0},       // a hostile size is cut, not allocated
    };
    for (const auto& c : cases) {
        script.calls.clear();
        const bytes reply = run(scard_status_a, status_call(0, c.cch));
        ASSERT_EQ(script.calls.size(), 1u);
        EXPECT_EQ(script.calls[0].offered, c.offered) << c.cch;
        EXPECT_EQ(scard_test::result_of(reply), c.result) << c.cch;
    }
}

TEST_F(ScardStatus, ProtocolTranslationAndState) {
    const std::pair<DWORD, std::uint32_t> table[] = {{0, 0}, {1, 1}, {2, 2}, {3, 0}, {4, 0x10000}, {8, 0}, {0x10000, 0}};
    for (const auto& [pcsc, sent] : table) {
        script.protocol = pcsc;
        const bytes reply = run(scard_status_a, status_call(0, 10));
        EXPECT_EQ(scard_test::u32_at(reply, 28), 6u);
        EXPECT_EQ(scard_test::u32_at(reply, 32), sent) << pcsc;
    }
}

TEST_F(ScardStatus, FailureBody) {
    script.answer = static_cast<LONG>(0x80100069);  // card removed
    const bytes reply = run(scard_status_w, status_call(0, 10));
    EXPECT_EQ(scard_test::result_of(reply), 0x80100069u);
    EXPECT_EQ(scard_test::body_of(reply), bytes(52, 0));  // 4 + 4 + 4 + 4 + 32 + 4, no array
}
