#include <cstring>
#include <string>

#include "scard_fakes.h"

using namespace kor::jni;
using namespace scard_test;

namespace {

// Reports `name` plus its NUL as the length and writes it when the offered length suffices;
// otherwise answers `sizing_answer`. The offered ATR length lands in fake.a.
std::string name;
DWORD protocol;
LONG sizing_answer;

LONG fake_status(SCARDHANDLE card, LPSTR names, LPDWORD cch, LPDWORD state, LPDWORD proto, LPBYTE atr,
                 LPDWORD atr_len) {
    record(card, nullptr, 0, names, *cch);
    fake.a = *atr_len;
    const DWORD offered = *cch;
    *cch = name.size() + 1;
    if (names && offered < *cch) return sizing_answer;
    if (fake.answer != 0) return fake.answer;
    if (names) std::memcpy(names, name.c_str(), *cch);
    *state = 0x34, *proto = protocol, *atr_len = 3;
    std::memcpy(atr, "\x3B\0\0", 3);
    return 0;
}

// Status_Call with a card handle of wire id 1 and no context.
bytes status_call(std::uint32_t names_is_null, std::uint32_t cch, std::uint32_t cb_atr = 0) {
    return request().u32s({0, 0, 4, 1, names_is_null, cch, cb_atr}).handle(1).build();
}

// A success: cBytes, referent 1, state 6, protocol, the 32-byte ATR field holding 3B 00 00,
// cbAtrLen 3, then the names array.
bytes success(const bytes& names, std::uint32_t protocol = 2) {
    const auto n = static_cast<std::uint32_t>(names.size());
    bytes atr(32, 0);
    atr[0] = 0x3B;
    return body({n, 1, 6, protocol}, cat(cat(atr, le32({3, n})), names));
}

class ScardStatus : public fake_fixture {
protected:
    void SetUp() override {
        fake_fixture::SetUp();
        name = "R1", protocol = 2, sizing_answer = static_cast<LONG>(k_scard_e_insufficient_buffer);
        service().SCardStatus = &fake_status;
        ASSERT_EQ(service().add_card(1, 0xCA4D), 1u);
    }
};

}  // namespace

TEST_F(ScardStatus, FixedModeRepliesInBothWidths) {
    bytes reply = run(scard_status_a, status_call(0, 100));
    EXPECT_EQ(fake.handle, SCARDHANDLE{0xCA4D});
    EXPECT_EQ(fake.room, 99u);  // one less than the buffer
    EXPECT_EQ(fake.a, 32u);     // whatever the request's cbAtrLen
    EXPECT_EQ(reply.size(), 16u + 64u);
    EXPECT_EQ(result_of(reply), 0u);
    EXPECT_EQ(body_of(reply), success({0x52, 0x31, 0, 0}));

    reply = run(scard_status_w, status_call(0, 100, 77));
    EXPECT_EQ(fake.a, 32u);
    EXPECT_EQ(reply.size(), 16u + 72u);  // 68 bytes of result and body, padded by 4
    EXPECT_EQ(body_of(reply), success(le16({0x52, 0x31, 0, 0})));

    fake.answer = static_cast<LONG>(0x80100069);  // card removed
    reply = run(scard_status_w, status_call(0, 10));
    EXPECT_EQ(result_of(reply), 0x80100069u);
    EXPECT_EQ(body_of(reply), bytes(52, 0));  // 4 + 4 + 4 + 4 + 32 + 4, no array
}

TEST_F(ScardStatus, AllocatingModeSizesFirst) {
    name = "ABCDEFGH";  // PC/SC reports 9
    const bytes reply = run(scard_status_a, status_call(0, 0xFFFFFFFF));
    EXPECT_EQ(fake.offers, (std::vector<std::pair<bool, DWORD>>{{false, 1}, {false, 9}}));  // of a 10-byte buffer
    EXPECT_EQ(body_of(reply), success({'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0, 0}));
    const bytes wide = run(scard_status_w, status_call(0, 0xFFFFFFFF));
    EXPECT_EQ(body_of(wide), success(le16({'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0, 0})));

    // Without the insufficient-buffer answer there is no length: PC/SC rejecting the handle, a
    // success on the sizing call, or a missing entry (120 elsewhere) all answer 0x8010001F.
    for (auto [answer, entry] : {std::pair{static_cast<LONG>(0x80100003), true}, {0L, true}, {0L, false}}) {
        fake.offers.clear();
        sizing_answer = answer;
        service().SCardStatus = entry ? &fake_status : nullptr;
        const bytes failed = run(scard_status_a, status_call(0, 0xFFFFFFFF));
        EXPECT_EQ(result_of(failed), 0x8010001Fu);
        EXPECT_EQ(body_of(failed), bytes(52, 0));
        EXPECT_LE(fake.offers.size(), 1u);
    }
}

TEST_F(ScardStatus, OfferedLengthsStayInsideTheBuffer) {
    struct {
        std::uint32_t is_null, cch;
        DWORD offered;
        std::uint32_t result;
    } const cases[] = {
        {1, 50, 49, 0},             // length only
        {1, 0, 0xFFFFFFFF, 0},      // no buffer to overrun: 0 less one wraps, zero-extended
        {0, 0, 0, 0x80100008},      // no room at all
        {0, 3, 2, 0x80100008},      // a name of 3 needs a buffer of 4
        {0, 4, 3, 0},
        {0, 0xFFFFFFFE, 65535, 0},  // a hostile size is cut, not allocated
    };
    for (const auto& c : cases) {
        fake.offers.clear();
        const bytes reply = run(scard_status_a, status_call(c.is_null, c.cch));
        EXPECT_EQ(fake.offers, (std::vector<std::pair<bool, DWORD>>{{c.is_null != 0, c.offered}})) << c.cch;
        EXPECT_EQ(result_of(reply), c.result) << c.cch;
    }
    EXPECT_EQ(body_of(run(scard_status_w, status_call(1, 0))), success(bytes(8, 0)));
}

TEST_F(ScardStatus, ProtocolTranslation) {
    const std::pair<DWORD, std::uint32_t> table[] = {{0, 0}, {1, 1}, {2, 2}, {3, 0}, {4, 0x10000}, {8, 0}, {0x10000, 0}};
    for (const auto& [pcsc, sent] : table) {
        protocol = pcsc;
        EXPECT_EQ(u32_at(run(scard_status_a, status_call(0, 10)), 32), sent) << pcsc;
    }
}
