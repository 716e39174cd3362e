#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scard_test_support.h"

using namespace kor::jni;
using scard_test::bytes;

namespace {

constexpr std::uint32_t k_connect_a = 172, k_connect_w = 176, k_reconnect = 180, k_disconnect = 184,
                        k_begin = 188, k_end = 192;
constexpr SCARDCONTEXT k_pcsc_context = 0x00000ABC00000DEF;
constexpr SCARDHANDLE k_pcsc_card = 0x7000000080000001;
constexpr std::int32_t k_owner = 5;

// What the PC/SC stand-ins were last given (`got`) and what they answer (the rest).
struct fake_state {
    LONG answer = 0;
    DWORD protocol_out = 2;
    SCARDHANDLE card_out = k_pcsc_card;
    int calls = 0;
    SCARDHANDLE handle = 0;  // context (Connect) or card (the others)
    bool name_null = false;
    std::string name;
    DWORD a = 0, b = 0, c = 0;  // share mode or disposition, protocols, initialization
};
fake_state fake;

LONG fake_connect(SCARDCONTEXT ctx, LPCSTR reader, DWORD share, DWORD protocols, LPSCARDHANDLE card, LPDWORD active) {
    ++fake.calls;
    fake.handle = ctx;
    fake.name_null = reader == nullptr;
    fake.name = reader ? reader : "";
    fake.a = share;
    fake.b = protocols;
    EXPECT_EQ(*card, k_no_handle);
    EXPECT_EQ(*active, 0u);
    if (fake.answer == 0) *card = fake.card_out, *active = fake.protocol_out;
    return fake.answer;
}
LONG fake_reconnect(SCARDHANDLE card, DWORD share, DWORD protocols, DWORD init, LPDWORD active) {
    ++fake.calls;
    fake.handle = card;
    fake.a = share, fake.b = protocols, fake.c = init;
    if (fake.answer == 0) *active = fake.protocol_out;
    return fake.answer;
}
LONG fake_end(SCARDHANDLE card, DWORD disposition) {
    ++fake.calls;
    fake.handle = card;
    fake.a = disposition;
    return fake.answer;
}
LONG fake_begin(SCARDHANDLE card) { return fake_end(card, 0); }

bytes connect_a_request(std::uint32_t context_wire, const bytes& name, std::uint32_t share = 2,
                        std::uint32_t protocols = 3) {
    scard_test::request r;
    r.u32s({name.empty() ? 0u : 1u, 4, context_wire ? 1u : 0u, share, protocols});
    if (!name.empty()) r.u32s({static_cast<std::uint32_t>(name.size()), 0}).byte_array(name);
    if (context_wire) r.handle(context_wire);
    return r.build();
}

bytes connect_w_request(std::uint32_t context_wire, const std::vector<std::uint16_t>& name) {
    scard_test::request r;
    r.u32s({1, 4, context_wire ? 1u : 0u, 2, 3});
    const auto c = static_cast<std::uint32_t>(name.size());
    r.u32s({c, 0, c});
    for (auto u : name) r.u16(u);
    r.pad4();
    if (context_wire) r.handle(context_wire);
    return r.build();
}

// A call on a REDIR_SCARDHANDLE followed by `fields`; card_wire 0 sends no card array.
bytes card_request(std::uint32_t card_wire, std::initializer_list<std::uint32_t> fields) {
    scard_test::request r;
    r.u32s({4, 1, card_wire ? 4u : 0u, card_wire ? 1u : 0u}).u32s(fields).handle(1);
    if (card_wire) r.handle(card_wire);
    return r.build();
}

class ScardConnection : public scard_test::service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        fake = fake_state{};
        service().SCardConnect = &fake_connect;
        service().SCardReconnect = &fake_reconnect;
        service().SCardDisconnect = &fake_end;
        service().SCardBeginTransaction = &fake_begin;
        service().SCardEndTransaction = &fake_end;
        context_wire = service().add_context(k_owner, k_pcsc_context);
    }
    // Connects a card through ConnectA and returns its wire handle.
    std::uint32_t connected_card() {
        const bytes reply = scard_test::call(k_connect_a, connect_a_request(context_wire, {'R', 0}));
        EXPECT_EQ(scard_test::result_of(reply), 0u);
        return scard_test::u32_at(reply, 20 + 24);
    }
    std::uint32_t context_wire = 0;
};

}  // namespace

TEST_F(ScardConnection, ConnectAReplyAndRecords) {
    const bytes reply = scard_test::call(k_connect_a, connect_a_request(context_wire, {'V', 'P', 'C', 'D', 0}));
    const bytes expected = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 32, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0,
                            2, 0, 0, 0, 4, 0, 0, 0, 2, 0, 0, 0};
    EXPECT_EQ(reply, expected);
    EXPECT_EQ(fake.handle, k_pcsc_context);
    EXPECT_EQ(fake.name, "VPCD");
    EXPECT_EQ(fake.a, 2u);
    EXPECT_EQ(fake.b, 3u);

    ASSERT_EQ(service().cards.size(), 1u);
    EXPECT_EQ(service().cards.front().owner, k_owner);
    EXPECT_EQ(service().cards.front().pcsc_handle, k_pcsc_card);
    EXPECT_EQ(service().cards.front().wire_handle, 2u);
    ASSERT_EQ(service().card_readers.size(), 1u);
    EXPECT_EQ(service().card_readers.front().pcsc_card, k_pcsc_card);
    EXPECT_EQ(service().card_readers.front().protocol, 2u);
    EXPECT_STREQ(service().card_readers.front().reader_name.get(), "VPCD");
}

TEST_F(ScardConnection, ReaderNamesReachPcscAsEightBitText) {
    struct {
        const char* what;
        std::uint32_t code;
        bytes request;
        bool name_null;
        std::string name;
    } const cases[] = {
        {"W narrowed", k_connect_w, connect_w_request(context_wire, {0x0052, 0x0031, 0x0000}), false, "R1"},
        {"W low bytes only", k_connect_w, connect_w_request(context_wire, {0xFF52, 0x0031, 0, 0x0041}), false, "R1"},
        {"A up to the first NUL", k_connect_a, connect_a_request(context_wire, {'R', '1', 0, 'X', 0}), false, "R1"},
        // Sent without a NUL: the name ends after its last character.
        {"A unterminated", k_connect_a, connect_a_request(context_wire, {'A', 'B', 'C'}), false, "ABC"},
        {"W unterminated", k_connect_w, connect_w_request(context_wire, {0x41, 0x42}), false, "AB"},
        {"no name", k_connect_a, connect_a_request(context_wire, {}), true, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        service().card_readers.clear();
        EXPECT_EQ(scard_test::result_of(scard_test::call(c.code, c.request)), 0u);
        EXPECT_EQ(fake.name_null, c.name_null);
        EXPECT_EQ(fake.name, c.name);
        EXPECT_EQ(fake.handle, k_pcsc_context);
        ASSERT_EQ(service().card_readers.size(), 1u);
        EXPECT_EQ(std::string(service().card_readers.front().reader_name.get()), c.name);
    }
}

TEST_F(ScardConnection, ConnectFailuresRecordNothing) {
    fake.answer = static_cast<LONG>(0x8010000C);
    bytes reply = scard_test::call(k_connect_w, connect_w_request(context_wire, {0x52, 0}));
    EXPECT_EQ(reply.size(), 40u);
    EXPECT_EQ(scard_test::result_of(reply), 0x8010000Cu);
    EXPECT_EQ(scard_test::body_of(reply), bytes(20, 0));

    service().SCardConnect = nullptr;
    reply = scard_test::call(k_connect_a, connect_a_request(context_wire, {'R', 0}));
    EXPECT_EQ(scard_test::result_of(reply), k_not_implemented);
    EXPECT_EQ(scard_test::body_of(reply), bytes(20, 0));
    EXPECT_TRUE(service().cards.empty());
    EXPECT_TRUE(service().card_readers.empty());
    EXPECT_EQ(service().last_handle, 1u);

    // A name count beyond the request fails before PC/SC and before any allocation of that size.
    service().SCardConnect = &fake_connect;
    fake.calls = 0;
    for (std::uint32_t code : {k_connect_a, k_connect_w}) {
        scard_test::request r;
        r.u32s({1, 4, 0, 2, 3, 0xFFFFFFFF, 0, 0xFFFFFFFF, 0x41414141});
        EXPECT_THROW(scard_test::call(code, r.build()), std::runtime_error);
    }
    EXPECT_EQ(fake.calls, 0);
}

TEST_F(ScardConnection, ConnectThroughUnknownOrAbsentContextHasNoOwner) {
    for (const bytes& req : {connect_a_request(77, {'R', 0}), connect_a_request(0, {'R', 0})}) {
        EXPECT_EQ(scard_test::result_of(scard_test::call(k_connect_a, req)), 0u);
        EXPECT_EQ(fake.handle, k_no_handle);
        EXPECT_EQ(service().cards.back().owner, 0);
    }
}

TEST_F(ScardConnection, ReconnectPassesValuesAndUpdatesTheReaderRecord) {
    const std::uint32_t card = connected_card();
    fake.protocol_out = 1;
    bytes reply = scard_test::call(k_reconnect, card_request(card, {2, 0x10000, 1}));
    EXPECT_EQ(scard_test::result_of(reply), 0u);
    EXPECT_EQ(scard_test::body_of(reply), (bytes{1, 0, 0, 0}));
    EXPECT_EQ(fake.handle, k_pcsc_card);
    EXPECT_EQ(fake.a, 2u);
    EXPECT_EQ(fake.b, 0x10000u);
    EXPECT_EQ(fake.c, 1u);
    EXPECT_EQ(service().card_readers.front().protocol, 1u);

    fake.answer = static_cast<LONG>(0x80100069);
    fake.protocol_out = 3;
    reply = scard_test::call(k_reconnect, card_request(0, {2, 3, 0}));
    EXPECT_EQ(scard_test::result_of(reply), 0x80100069u);
    EXPECT_EQ(scard_test::body_of(reply), bytes(4, 0));
    EXPECT_EQ(fake.handle, k_no_handle);
    EXPECT_EQ(service().card_readers.front().protocol, 1u);
}

TEST_F(ScardConnection, DisconnectDropsTheCardFirstAndTheReaderOnlyOnSuccess) {
    const std::uint32_t card = connected_card();
    fake.answer = static_cast<LONG>(0x80100011);
    bytes reply = scard_test::call(k_disconnect, card_request(card, {1}));
    EXPECT_EQ(scard_test::result_of(reply), 0x80100011u);
    EXPECT_EQ(reply.size(), 24u);
    EXPECT_EQ(fake.handle, k_pcsc_card);
    EXPECT_EQ(fake.a, 1u);
    EXPECT_TRUE(service().cards.empty());
    EXPECT_EQ(service().card_readers.size(), 1u);

    // The wire handle is gone: the second attempt hands PC/SC all ones.
    fake.answer = 0;
    scard_test::call(k_disconnect, card_request(card, {0}));
    EXPECT_EQ(fake.handle, k_no_handle);
    EXPECT_EQ(service().card_readers.size(), 1u);

    fake.card_out = k_pcsc_card + 1;
    const std::uint32_t second = connected_card();
    EXPECT_EQ(service().card_readers.size(), 2u);
    EXPECT_EQ(scard_test::result_of(scard_test::call(k_disconnect, card_request(second, {3}))), 0u);
    EXPECT_EQ(fake.handle, k_pcsc_card + 1);
    EXPECT_EQ(fake.a, 3u);
    ASSERT_EQ(service().card_readers.size(), 1u);
    EXPECT_EQ(service().card_readers.front().pcsc_card, k_pcsc_card);
    EXPECT_TRUE(service().cards.empty());
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
    };
    for (const auto& c : cases) {
        fake.a = 0;
        fake.answer = static_cast<LONG>(0x8010000B);
        const bytes reply = scard_test::call(c.code, c.request);
        EXPECT_EQ(scard_test::result_of(reply), 0x8010000Bu);
        EXPECT_EQ(reply.size(), 24u);
        EXPECT_EQ(fake.handle, c.handle);
        EXPECT_EQ(fake.a, c.disposition);
    }

    // A card array of count 8: its first four bytes select the card.
    scard_test::request r;
    r.u32s({4, 1, 8, 1, 0}).handle(1).u32(8).u32(card).u32(0xFFFFFFFF);
    scard_test::call(k_begin, r.build());
    EXPECT_EQ(fake.handle, k_pcsc_card);

    service().SCardBeginTransaction = nullptr;
    EXPECT_EQ(scard_test::result_of(scard_test::call(k_begin, card_request(card, {0}))), k_not_implemented);
}
