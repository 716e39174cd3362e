#include <cstring>
#include <string>
#include <vector>

#include "scard_fakes.h"

using namespace kor::jni;
using namespace scard_test;

namespace {

constexpr std::uint32_t k_connect_a = 172, k_connect_w = 176, k_reconnect = 180, k_disconnect = 184,
                        k_begin = 188, k_end = 192;
constexpr SCARDCONTEXT k_pcsc_context = 0x00000ABC00000DEF;
constexpr SCARDHANDLE k_pcsc_card = 0x7000000080000001;
constexpr std::int32_t k_owner = 5;

SCARDHANDLE card_out;
DWORD protocol_out;

// The reader name lands in fake.sent (null_in when absent), share mode or disposition in a,
// protocols in b, initialization in c.
LONG fake_connect(SCARDCONTEXT ctx, LPCSTR reader, DWORD share, DWORD protocols, LPSCARDHANDLE card, LPDWORD active) {
    record(ctx, reader, reader ? std::strlen(reader) : 0, nullptr, 0);
    fake.a = share, fake.b = protocols;
    if (fake.answer == 0) *card = card_out, *active = protocol_out;
    return fake.answer;
}
LONG fake_reconnect(SCARDHANDLE card, DWORD share, DWORD protocols, DWORD init, LPDWORD active) {
    record(card, nullptr, 0, nullptr, 0);
    fake.a = share, fake.b = protocols, fake.c = init;
    if (fake.answer == 0) *active = protocol_out;
    return fake.answer;
}
LONG fake_end(SCARDHANDLE card, DWORD disposition) {
    record(card, nullptr, 0, nullptr, 0);
    fake.a = disposition;
    return fake.answer;
}
LONG fake_begin(SCARDHANDLE card) { return fake_end(card, 0); }

// ConnectA sends `name` as bytes, ConnectW as 16-bit units; an empty name is sent as none.
bytes connect_request(bool wide, std::uint32_t context_wire, const std::vector<std::uint16_t>& name) {
    request r;
    const auto c = static_cast<std::uint32_t>(name.size());
    r.u32s({name.empty() ? 0u : 1u, 4, context_wire ? 1u : 0u, 2, 3});
    if (!name.empty()) {
        r.u32s({c, 0, c});
        for (auto u : name) wide ? r.u16(u) : r.raw({static_cast<std::uint8_t>(u)});
        r.pad4();
    }
    if (context_wire) r.handle(context_wire);
    return r.build();
}

// A call on a REDIR_SCARDHANDLE followed by `fields`; card_wire 0 sends no card array.
bytes card_request(std::uint32_t card_wire, std::initializer_list<std::uint32_t> fields) {
    request r;
    r.u32s({4, 1, card_wire ? 4u : 0u, card_wire ? 1u : 0u}).u32s(fields).handle(1);
    if (card_wire) r.handle(card_wire);
    return r.build();
}

class ScardConnection : public fake_fixture {
protected:
    void SetUp() override {
        fake_fixture::SetUp();
        card_out = k_pcsc_card, protocol_out = 2;
        service().SCardConnect = &fake_connect;
        service().SCardReconnect = &fake_reconnect;
        service().SCardDisconnect = &fake_end;
        service().SCardBeginTransaction = &fake_begin;
        service().SCardEndTransaction = &fake_end;
        context_wire = service().add_context(k_owner, k_pcsc_context);
    }
    std::uint32_t connected_card() {
        const bytes reply = call(k_connect_a, connect_request(false, context_wire, {'R', 0}));
        EXPECT_EQ(result_of(reply), 0u);
        return u32_at(reply, 20 + 24);
    }
    std::uint32_t context_wire = 0;
};

}  // namespace

TEST_F(ScardConnection, ConnectAReplyAndRecords) {
    const bytes reply = call(k_connect_a, connect_request(false, context_wire, {'V', 'P', 'C', 'D', 0}));
    const bytes expected = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 32, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0,
                            2, 0, 0, 0, 4, 0, 0, 0, 2, 0, 0, 0};
    EXPECT_EQ(reply, expected);
    EXPECT_EQ(fake.handle, k_pcsc_context);
    EXPECT_EQ(fake.a, 2u);
    EXPECT_EQ(fake.b, 3u);
    ASSERT_EQ(service().cards.size(), 1u);
    EXPECT_EQ(service().cards.front().owner, k_owner);
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
        {true, {0x41, 0x42}, "AB"},
        {false, {}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        service().card_readers.clear();
        EXPECT_EQ(result_of(call(c.wide ? k_connect_w : k_connect_a, connect_request(c.wide, context_wire, c.name))), 0u);
        EXPECT_EQ(fake.null_in, c.name.empty());
        EXPECT_EQ(std::string(fake.sent.begin(), fake.sent.end()), c.expected);
        ASSERT_EQ(service().card_readers.size(), 1u);
        EXPECT_EQ(std::string(service().card_readers.front().reader_name.get()), c.expected);
    }
}

TEST_F(ScardConnection, ConnectFailuresRecordNothing) {
    fake.answer = static_cast<LONG>(0x8010000C);
    bytes reply = call(k_connect_w, connect_request(true, context_wire, {0x52, 0}));
    EXPECT_EQ(reply.size(), 40u);
    EXPECT_EQ(result_of(reply), 0x8010000Cu);
    EXPECT_EQ(body_of(reply), bytes(20, 0));
    service().SCardConnect = nullptr;
    EXPECT_EQ(result_of(call(k_connect_a, connect_request(false, context_wire, {'R', 0}))), k_not_implemented);
    EXPECT_TRUE(service().cards.empty());
    EXPECT_TRUE(service().card_readers.empty());
    EXPECT_EQ(service().last_handle, 1u);

    // A name count beyond the request fails before PC/SC and before any allocation of that size.
    service().SCardConnect = &fake_connect;
    fake.calls = 0;
    for (std::uint32_t code : {k_connect_a, k_connect_w})
        EXPECT_THROW(call(code, request().u32s({1, 4, 0, 2, 3, 0xFFFFFFFF, 0, 0xFFFFFFFF, 0x41414141}).build()),
                     std::runtime_error);
    EXPECT_EQ(fake.calls, 0);

    // An unknown or absent context reaches PC/SC as all ones; the card then has no owner.
    fake.answer = 0;
    for (std::uint32_t wire : {77u, 0u}) {
        EXPECT_EQ(result_of(call(k_connect_a, connect_request(false, wire, {'R', 0}))), 0u);
        EXPECT_EQ(fake.handle, k_no_handle);
        EXPECT_EQ(service().cards.back().owner, 0);
    }
}

TEST_F(ScardConnection, ReconnectPassesValuesAndUpdatesTheReaderRecord) {
    const std::uint32_t card = connected_card();
    protocol_out = 1;
    bytes reply = call(k_reconnect, card_request(card, {2, 0x10000, 1}));
    EXPECT_EQ(body_of(reply), (bytes{1, 0, 0, 0}));
    EXPECT_EQ(fake.handle, k_pcsc_card);
    EXPECT_EQ(std::vector<DWORD>({fake.a, fake.b, fake.c}), std::vector<DWORD>({2, 0x10000, 1}));
    EXPECT_EQ(service().card_readers.front().protocol, 1u);

    fake.answer = static_cast<LONG>(0x80100069);
    protocol_out = 3;
    reply = call(k_reconnect, card_request(0, {2, 3, 0}));
    EXPECT_EQ(result_of(reply), 0x80100069u);
    EXPECT_EQ(body_of(reply), bytes(4, 0));
    EXPECT_EQ(fake.handle, k_no_handle);
    EXPECT_EQ(service().card_readers.front().protocol, 1u);
}

TEST_F(ScardConnection, DisconnectDropsTheCardFirstAndTheReaderOnlyOnSuccess) {
    const std::uint32_t card = connected_card();
    fake.answer = static_cast<LONG>(0x80100011);
    const bytes reply = call(k_disconnect, card_request(card, {1}));
    EXPECT_EQ(result_of(reply), 0x80100011u);
    EXPECT_EQ(reply.size(), 24u);
    EXPECT_EQ(fake.handle, k_pcsc_card);
    EXPECT_EQ(fake.a, 1u);
    EXPECT_TRUE(service().cards.empty());
    EXPECT_EQ(service().card_readers.size(), 1u);

    // The wire handle is gone: the second attempt hands PC/SC all ones.
    fake.answer = 0;
    call(k_disconnect, card_request(card, {0}));
    EXPECT_EQ(fake.handle, k_no_handle);
    EXPECT_EQ(service().card_readers.size(), 1u);

    card_out = k_pcsc_card + 1;
    const std::uint32_t second = connected_card();
    EXPECT_EQ(result_of(call(k_disconnect, card_request(second, {3}))), 0u);
    EXPECT_EQ(fake.handle, k_pcsc_card + 1);
    ASSERT_EQ(service().card_readers.size(), 1u);
    EXPECT_EQ(service().card_readers.front().pcsc_card, k_pcsc_card);
}

TEST_F(ScardConnection, Transactions) {
    const std::uint32_t card = connected_card();
    struct {
        std::uint32_t code;
        bytes request;
        SCARDHANDLE handle;
        DWORD disposition;  // what EndTransaction passes on
    } const cases[] = {
        {k_begin, card_request(card, {0xDEADBEEF}), k_pcsc_card, 0},
        {k_end, card_request(card, {1}), k_pcsc_card, 1},
        {k_end, card_request(0, {2}), k_no_handle, 2},
        {k_begin, card_request(card + 40, {0}), k_no_handle, 0},
        // A card array of count 8: its first four bytes select the card.
        {k_begin, request().u32s({4, 1, 8, 1, 0}).handle(1).u32s({8, card, 0xFFFFFFFF}).build(), k_pcsc_card, 0},
    };
    fake.answer = static_cast<LONG>(0x8010000B);
    for (const auto& c : cases) {
        const bytes reply = call(c.code, c.request);
        EXPECT_EQ(reply.size(), 24u);
        EXPECT_EQ(result_of(reply), 0x8010000Bu);
        EXPECT_EQ(fake.handle, c.handle);
        EXPECT_EQ(fake.a, c.disposition);
    }
    service().SCardBeginTransaction = nullptr;
    EXPECT_EQ(result_of(call(k_begin, card_request(card, {0}))), k_not_implemented);
}
