#include "scard_fakes.h"

namespace {

// Reports `name` plus its NUL as the length and writes it when the offered length suffices;
// otherwise answers `sizing_answer`. The offered ATR length lands in fake.a.
std::string name;
DWORD protocol;
LONG sizing_answer;

LONG fake_status(SCARDHANDLE card, LPSTR names, LPDWORD cch, LPDWORD state, LPDWORD proto, LPBYTE atr,
                 LPDWORD atr_len) {
    record(card, nullptr, 0, names, *cch, {*atr_len});
    const DWORD offered = *cch;
    *cch = name.size() + 1;
    if (names && offered < *cch) return sizing_answer;
    if (fake.answer != 0) return fake.answer;
    if (names) std::memcpy(names, name.c_str(), *cch);
    *state = 0x34, *proto = protocol, *atr_len = 3;
    std::memcpy(atr, "\x3B\0\0", 3);
    return 0;
}

// A success: cBytes, referent 1, state 6, protocol, the 32-byte ATR field holding 3B 00 00,
// cbAtrLen 3, then the names array.
bytes success(const bytes& names) {
    const auto n = static_cast<std::uint32_t>(names.size());
    bytes atr(32, 0);
    atr[0] = 0x3B;
    return body({n, 1, 6, 2}, cat(cat(atr, le32({3, n})), names));
}

struct ScardStatus : fake_fixture {
    void SetUp() override {
        fake_fixture::SetUp();
        name = "R1", protocol = 2, sizing_answer = static_cast<LONG>(k_scard_e_insufficient_buffer);
        service().SCardStatus = &fake_status;
        ASSERT_EQ(service().add_card(1, 0xCA4D), 1u);
    }
};

}  // namespace

TEST_F(ScardStatus, FixedModeRepliesInBothWidths) {
    bytes reply = call(200, on_card({0, 100, 77}));
    EXPECT_EQ(fake.handle, SCARDHANDLE{0xCA4D});
    EXPECT_EQ(fake.room, 99u);  // one less than the buffer
    EXPECT_EQ(fake.a, 32u);     // whatever the request's cbAtrLen
    EXPECT_EQ(result_of(reply), 0u);
    EXPECT_EQ(body_of(reply), success({0x52, 0x31, 0, 0}));  // 64 bytes with the result
    reply = call(204, on_card({0, 100, 0}));
    EXPECT_EQ(body_of(reply), success(le16({0x52, 0x31, 0, 0})));  // 68, padded by 4

    // PC/SC's protocol, as the peer knows it.
    for (const auto& [pcsc, sent] : {std::pair<DWORD, std::uint32_t>{0, 0}, {1, 1}, {3, 0}, {4, 0x10000}, {8, 0}}) {
        protocol = pcsc;
        EXPECT_EQ(u32_at(call(200, on_card({0, 10, 0})), 32), sent) << pcsc;
    }
}

TEST_F(ScardStatus, AllocatingModeSizesFirst) {
    name = "ABCDEFGH";  // PC/SC reports 9
    const bytes reply = call(200, on_card({0, ~0u, 0}));
    EXPECT_EQ(fake.offers, (offers{{false, 1}, {false, 9}}));  // of a 10-byte buffer
    EXPECT_EQ(body_of(reply), success({'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0, 0}));
    const bytes wide = call(204, on_card({0, ~0u, 0}));
    EXPECT_EQ(body_of(wide), success(le16({'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0, 0})));

    // Without the insufficient-buffer answer there is no length: PC/SC rejecting the handle, a
    // success on the sizing call, or a missing entry (120 elsewhere) all answer 0x8010001F.
    for (auto [answer, entry] : {std::pair{static_cast<LONG>(0x80100003), true}, {0L, true}, {0L, false}}) {
        fake.offers.clear();
        sizing_answer = answer;
        service().SCardStatus = entry ? &fake_status : nullptr;
        const bytes failed = call(200, on_card({0, ~0u, 0}));
        EXPECT_EQ(result_of(failed), 0x8010001Fu);
        EXPECT_EQ(body_of(failed), bytes(52, 0));  // 4 + 4 + 4 + 4 + 32 + 4, no array
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
        const bytes reply = call(200, on_card({c.is_null, c.cch, 0}));
        EXPECT_EQ(fake.offers, (offers{{c.is_null != 0, c.offered}})) << c.cch;
        EXPECT_EQ(result_of(reply), c.result) << c.cch;
    }
    EXPECT_EQ(body_of(call(204, on_card({1, 0, 0}))), success(bytes(8, 0)));
}
