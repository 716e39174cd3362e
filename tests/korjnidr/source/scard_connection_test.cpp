#include "scard_fakes.h"

namespace {

constexpr std::uint32_t k_connect_a = 172, k_connect_w = 176, k_reconnect = 180, k_disconnect = 184,
                        k_begin = 188, k_end = 192;
constexpr SCARDCONTEXT k_pcsc_context = 0x00000ABC00000DEF;
constexpr SCARDHANDLE k_pcsc_card = 0x7000000080000001;

SCARDHANDLE card_out;
DWORD protocol_out;

// The reader name lands in fake.sent (null_in when absent); the call's numbers in a, b, c.
LONG fake_connect(SCARDCONTEXT ctx, LPCSTR reader, DWORD share, DWORD protocols, LPSCARDHANDLE card, LPDWORD active) {
    record(ctx, reader, reader ? std::strlen(reader) : 0, nullptr, 0, {share, protocols});
    if (fake.answer == 0) *card = card_out, *active = protocol_out;
    return fake.answer;
}
LONG fake_reconnect(SCARDHANDLE card, DWORD share, DWORD protocols, DWORD init, LPDWORD active) {
    record(card, nullptr, 0, nullptr, 0, {share, protocols, init});
    if (fake.answer == 0) *active = protocol_out;
    return fake.answer;
}
LONG fake_end(SCARDHANDLE card, DWORD disposition) { return record(card, nullptr, 0, nullptr, 0, {disposition}); }
LONG fake_begin(SCARDHANDLE card) { return fake_end(card, 0); }

// ConnectA sends `name` as bytes, ConnectW as 16-bit units; an empty name is sent as none.
// The context is the fixture's (wire id 1) unless `context_wire` says otherwise; 0 sends none.
bytes connect_request(bool wide, const std::vector<std::uint16_t>& name, std::uint32_t context_wire = 1) {
    request r;
    r.u32s({name.empty() ? 0u : 1u, 4, context_wire ? 1u : 0u, 2, 3});
    if (!name.empty()) text(r, wide, name);
    return (context_wire ? r.handle(context_wire) : r).build();
}

// A call on a REDIR_SCARDHANDLE followed by `fields`; card_wire 0 sends no card array.
bytes card_request(std::uint32_t card_wire, std::initializer_list<std::uint32_t> fields) {
    request r;
    r.u32s({4, 1, card_wire ? 4u : 0u, card_wire ? 1u : 0u}).u32s(fields).handle(1);
    return (card_wire ? r.handle(card_wire) : r).build();
}

struct ScardConnection : fake_fixture {
    void SetUp() override {
        fake_fixture::SetUp();
        card_out = k_pcsc_card, protocol_out = 2;
        service().SCardConnect = &fake_connect;
        service().SCardReconnect = &fake_reconnect;
        service().SCardDisconnect = &fake_end;
        service().SCardBeginTransaction = &fake_begin;
        service().SCardEndTransaction = &fake_end;
        ASSERT_EQ(service().add_context(5, k_pcsc_context), 1u);
    }
    std::uint32_t connected_card() {
        const bytes reply = call(k_connect_a, connect_request(false, {'R', 0}));
        EXPECT_EQ(result_of(reply), 0u);
        return u32_at(reply, 20 + 24);
    }
};

}  // namespace

TEST_F(ScardConnection, ConnectAReplyAndRecords) {
    const bytes reply = call(k_connect_a, connect_request(false, {'V', 'P', 'C', 'D', 0}));
    const bytes expected = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 32, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0,
                            2, 0, 0, 0, 4, 0, 0, 0, 2, 0, 0, 0};
    EXPECT_EQ(reply, expected);
    EXPECT_EQ(fake.handle, k_pcsc_context);
    EXPECT_EQ(std::make_pair(fake.a, fake.b), std::make_pair(DWORD{2}, DWORD{3}));
    ASSERT_EQ(service().cards.size(), 1u);
    EXPECT_EQ(service().cards.front().owner, 5);
    ASSERT_EQ(service().card_readers.size(), 1u);
    EXPECT_EQ(service().card_readers.front().protocol, 2u);
    EXPECT_STREQ(service().card_readers.front().reader_name.get(), "VPCD");
}

TEST_F(ScardConnection, ReaderNamesReachPcscAsEightBitText) {
    struct {
        bool wide;
        std::vector<std::uint16_t> name;
        std::string expected;
    } const cases[] = {
        {true, {0xFF52, 0x0031, 0, 0x0041}, "R1"},  // low bytes, up to the first zero unit
        {false, {'R', '1', 0, 'X', 0}, "R1"},
        {false, {'A', 'B', 'C'}, "ABC"},  // sent without a NUL: ends after its last character
        {false, {}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        service().card_readers.clear();
        EXPECT_EQ(result_of(call(c.wide ? k_connect_w : k_connect_a, connect_request(c.wide, c.name))), 0u);
        EXPECT_EQ(fake.null_in, c.name.empty());
        EXPECT_EQ(std::string(fake.sent.begin(), fake.sent.end()), c.expected);
        ASSERT_EQ(service().card_readers.size(), 1u);
        EXPECT_EQ(std::string(service().card_readers.front().reader_name.get()), c.expected);
    }
}

TEST_F(ScardConnection, ConnectFailuresRecordNothing) {
    fake.answer = static_cast<LONG>(0x8010000C);
    const bytes reply = call(k_connect_w, connect_request(true, {0x52, 0}));
    EXPECT_EQ(reply.size(), 40u);
    EXPECT_EQ(result_of(reply), 0x8010000Cu);
    EXPECT_EQ(body_of(reply), bytes(20, 0));
    EXPECT_TRUE(service().cards.empty() && service().card_readers.empty());
    EXPECT_EQ(service().last_handle, 1u);

    // A name count beyond the request fails before PC/SC and before any allocation of that size.
    fake.calls = 0;
    for (std::uint32_t code : {k_connect_a, k_connect_w})
        EXPECT_THROW(call(code, request().u32s({1, 4, 0, 2, 3, ~0u, 0, ~0u, 0x41414141}).build()), std::runtime_error);
    EXPECT_EQ(fake.calls, 0);

    // An unknown or absent context reaches PC/SC as all ones; the card then has no owner.
    fake.answer = 0;
    for (std::uint32_t wire : {77u, 0u}) {
        EXPECT_EQ(result_of(call(k_connect_a, connect_request(false, {'R', 0}, wire))), 0u);
        EXPECT_EQ(fake.handle, k_no_handle);
        EXPECT_EQ(service().cards.back().owner, 0);
    }
}

// Calls on a connected card, in order: what PC/SC gets and what the reader record keeps.
TEST_F(ScardConnection, ReconnectTransactionsAndDisconnect) {
    const std::uint32_t card = connected_card();
    const LONG failure = static_cast<LONG>(0x8010000B);
    struct {
        std::uint32_t code;
        bytes request;
        LONG answer;
        DWORD active;  // the protocol a Reconnect reports
        SCARDHANDLE handle;
        std::vector<DWORD> values;  // what reaches PC/SC after the handle
        std::uint32_t body;         // the reply's word after the result
    } const cases[] = {
        {k_reconnect, card_request(card, {2, 0x10000, 1}), 0, 1, k_pcsc_card, {2, 0x10000, 1}, 1},
        {k_reconnect, card_request(0, {2, 3, 0}), static_cast<LONG>(0x80100069), 3, k_no_handle, {2, 3, 0}, 0},
        {k_begin, card_request(card, {0xDEADBEEF}), failure, 0, k_pcsc_card, {0, 0, 0}, 0},
        {k_end, card_request(card, {1}), failure, 0, k_pcsc_card, {1, 0, 0}, 0},
        {k_begin, card_request(card + 40, {0}), failure, 0, k_no_handle, {0, 0, 0}, 0},
        // A card array of count 8: its first four bytes select the card.
        {k_begin, request().u32s({4, 1, 8, 1, 0}).handle(1).u32s({8, card, ~0u}).build(), failure, 0, k_pcsc_card,
         {0, 0, 0}, 0},
        // A rejected Disconnect still drops the card, but not the reader record.
        {k_disconnect, card_request(card, {1}), static_cast<LONG>(0x80100011), 0, k_pcsc_card, {1, 0, 0}, 0},
        {k_disconnect, card_request(card, {0}), 0, 0, k_no_handle, {0, 0, 0}, 0},
    };
    for (const auto& c : cases) {
        fake = recorder{};
        fake.answer = c.answer, protocol_out = c.active;
        const bytes reply = call(c.code, c.request);
        EXPECT_EQ(reply.size(), 24u) << c.code;
        EXPECT_EQ(result_of(reply), static_cast<std::uint32_t>(c.answer)) << c.code;
        EXPECT_EQ(u32_at(reply, 20), c.body) << c.code;
        EXPECT_EQ(fake.handle, c.handle) << c.code;
        EXPECT_EQ(std::vector<DWORD>({fake.a, fake.b, fake.c}), c.values) << c.code;
        ASSERT_EQ(service().card_readers.size(), 1u);
    }
    EXPECT_TRUE(service().cards.empty());
    EXPECT_EQ(service().card_readers.front().protocol, 1u);  // from the Reconnect that succeeded

    // A successful Disconnect drops its own reader record only.
    card_out = k_pcsc_card + 1;
    EXPECT_EQ(result_of(call(k_disconnect, card_request(connected_card(), {3}))), 0u);
    EXPECT_EQ(fake.handle, k_pcsc_card + 1);
    ASSERT_EQ(service().card_readers.size(), 1u);
    EXPECT_EQ(service().card_readers.front().pcsc_card, k_pcsc_card);
}
