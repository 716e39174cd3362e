#include "scard_fakes.h"

namespace {

constexpr std::uint32_t k_transmit = 208;
constexpr SCARDHANDLE k_pcsc_card = 0x0000000100000002;

bytes pci_extra;  // the three bytes behind the send PCI's header

LONG fake_transmit(SCARDHANDLE h, const SCARD_IO_REQUEST* send_pci, LPCBYTE send, DWORD send_len,
                   SCARD_IO_REQUEST* recv_pci, LPBYTE recv, LPDWORD recv_len) {
    // a, b, c: the send PCI's protocol and length, whether a receive PCI was given.
    record(h, send, send_len, recv, *recv_len, {send_pci->dwProtocol, send_pci->cbPciLength, recv_pci != nullptr});
    const auto* raw = reinterpret_cast<const std::uint8_t*>(send_pci);
    pci_extra.assign(raw + 16, raw + 19);
    return answer(recv, *recv_len, recv_len);
}

struct transmit_args {
    std::uint32_t card_wire = 2;  // the card's; 0: no card array
    std::uint32_t protocol = 2;
    bytes extra;                    // sent when not empty
    std::uint32_t extra_len = ~0u;  // default: extra.size()
    bool send_present = true;
    std::uint32_t send_len = 5;
    bool recv_pci = false;
    std::uint32_t recv_is_null = 0, recv_len = 258;
};

bytes transmit_request(const transmit_args& a) {
    const auto extra_len = a.extra_len != ~0u ? a.extra_len : static_cast<std::uint32_t>(a.extra.size());
    request r;
    r.u32s({4, 1, a.card_wire ? 4u : 0u, a.card_wire ? 1u : 0u, a.protocol, extra_len, a.extra.empty() ? 0u : 1u,
            a.send_len, a.send_present ? 1u : 0u, a.recv_pci ? 1u : 0u, a.recv_is_null, a.recv_len});
    r.handle(1);
    if (a.card_wire) r.handle(a.card_wire);
    if (!a.extra.empty()) r.byte_array(a.extra);
    if (a.send_present) r.byte_array({0x00, 0xA4, 0x04, 0x00, 0x00});
    if (a.recv_pci) r.u32s({1, 2, 1}).byte_array({0x11, 0x22});
    return r.build();
}

template <class Change>
transmit_args with(Change change) {
    transmit_args a;
    change(a);
    return a;
}

struct ScardTransmit : fake_fixture {
    void SetUp() override {
        fake_fixture::SetUp();
        service().SCardTransmit = &fake_transmit;
        service().add_context(1, 0x99);
        ASSERT_EQ(service().add_card(1, k_pcsc_card), 2u);
    }
};

}  // namespace

TEST_F(ScardTransmit, StatusWordReply) {
    fake.reply = {0x90, 0x00};
    const bytes expected = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 24, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 0x90, 0x00, 0, 0};
    EXPECT_EQ(call(k_transmit, transmit_request({})), expected);
    EXPECT_EQ(fake.handle, k_pcsc_card);
    EXPECT_EQ(fake.sent, (bytes{0x00, 0xA4, 0x04, 0x00, 0x00}));
    EXPECT_EQ(std::vector<DWORD>({fake.a, fake.b, fake.c}), std::vector<DWORD>({2, 16, 0}));

    // Extra bytes follow the 16-byte header; the protocol is zero-extended; a receive PCI is read
    // and discarded.
    transmit_args a = with([](auto& a) { a.protocol = ~0u, a.extra = {0xAA, 0xBB, 0xCC}, a.recv_pci = true; });
    EXPECT_EQ(result_of(call(k_transmit, transmit_request(a))), 0u);
    EXPECT_EQ(std::vector<DWORD>({fake.a, fake.b, fake.c}), std::vector<DWORD>({0xFFFFFFFF, 16, 0}));
    EXPECT_EQ(pci_extra, (bytes{0xAA, 0xBB, 0xCC}));

    // extra_len beyond the bytes present fails in the codec, before any allocation or PC/SC call.
    a.extra_len = 0xFFFFFFF0;
    fake.calls = 0;
    EXPECT_THROW(call(k_transmit, transmit_request(a)), std::runtime_error);
    EXPECT_EQ(fake.calls, 0);
}

TEST_F(ScardTransmit, RepliesAndWhatReachesPcsc) {
    const bytes sw = {0x90, 0x00}, huge = body({0, 66560, 2, 66560}, bytes(66560, 0));
    const std::uint32_t refused = 0x80100004;  // PC/SC not asked
    struct {
        transmit_args args;
        bytes response;
        LONG answer;
        DWORD report, send_length, recv_room;
        std::uint32_t result;
        bytes body;
    } const cases[] = {
        {{}, {}, 0, 0, 5, 258, 0, no_body},  // an empty response: no array
        {{}, sw, static_cast<LONG>(0x80100011), 0, 5, 258, 0x80100011, no_body},
        {with([](auto& a) { a.card_wire = 0; }), sw, 0, 0, 5, 258, 0, body({0, 2, 2, 2}, sw)},  // all ones
        {with([](auto& a) { a.send_present = false, a.send_len = 0; }), {}, 0, 0, 0, 258, 0, no_body},
        {with([](auto& a) { a.send_len = 4; }), {}, 0, 0, 4, 258, 0, no_body},
        {with([](auto& a) { a.send_len = 6; }), {}, 0, 0, 0, 0, refused, no_body},
        {with([](auto& a) { a.send_present = false, a.send_len = 3; }), {}, 0, 0, 0, 0, refused, no_body},
        // recv_len is capped at the channel's largest receive length; a null buffer answers zeros.
        {with([](auto& a) { a.recv_len = ~0u; }), sw, 0, 0, 5, 66560, 0, body({0, 2, 2, 2}, sw)},
        {with([](auto& a) { a.recv_len = 0x7FFFFFFF, a.recv_is_null = 1; }), {}, 0, ~0u, 5, 66560, 0, huge},
        // PC/SC reporting more than the buffer holds: only the buffer is sent.
        {with([](auto& a) { a.recv_len = 2; }), {0x61, 0x10}, 0, 4000, 5, 2, 0, body({0, 2, 2, 2}, {0x61, 0x10})},
        // extra_len without extra bytes is not a length to trust.
        {with([](auto& a) { a.extra_len = 0xFFFFFFFE; }), sw, 0, 0, 5, 258, 0, body({0, 2, 2, 2}, sw)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        fake = recorder{};
        fake.reply = c.response, fake.answer = c.answer, fake.report = c.report;
        const bytes reply = call(k_transmit, transmit_request(c.args));
        EXPECT_EQ(result_of(reply), c.result);
        EXPECT_EQ(body_of(reply), c.body);
        ASSERT_EQ(fake.calls, c.result == refused ? 0 : 1);
        if (c.result == refused) continue;
        EXPECT_EQ(fake.handle, c.args.card_wire ? k_pcsc_card : k_no_handle);
        EXPECT_EQ(fake.null_in, !c.args.send_present);
        EXPECT_EQ(fake.null_out, c.args.recv_is_null != 0);
        EXPECT_EQ(fake.sent.size(), c.send_length);
        EXPECT_EQ(fake.room, c.recv_room);
    }
}
