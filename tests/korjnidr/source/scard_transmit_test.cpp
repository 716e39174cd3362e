#include <cstring>

#include "scard_fakes.h"

using namespace kor::jni;
using namespace scard_test;

namespace {

constexpr std::uint32_t k_transmit = 208;
constexpr SCARDHANDLE k_pcsc_card = 0x0000000100000002;

std::uint64_t pci[2];  // dwProtocol, cbPciLength of the send PCI
bytes pci_extra;       // the three bytes behind its header
bool recv_pci_null;

LONG fake_transmit(SCARDHANDLE h, const SCARD_IO_REQUEST* send_pci, LPCBYTE send, DWORD send_len,
                   SCARD_IO_REQUEST* recv_pci, LPBYTE recv, LPDWORD recv_len) {
    record(h, send, send_len, recv, *recv_len);
    std::memcpy(pci, send_pci, sizeof pci);
    const auto* raw = reinterpret_cast<const std::uint8_t*>(send_pci);
    pci_extra.assign(raw + 16, raw + 19);
    recv_pci_null = recv_pci == nullptr;
    return answer(recv, *recv_len, recv_len);
}

struct transmit_args {
    std::uint32_t card_wire = 2;  // the card's; 0: no card array
    std::uint32_t protocol = 2;
    bytes extra;                           // sent when not empty
    std::uint32_t extra_len = 0xFFFFFFFF;  // default: extra.size()
    bool send_present = true;
    std::uint32_t send_len = 5;
    bool recv_pci = false;
    std::uint32_t recv_is_null = 0;
    std::uint32_t recv_len = 258;
};

bytes transmit_request(const transmit_args& a) {
    const auto extra_len = a.extra_len != 0xFFFFFFFF ? a.extra_len : static_cast<std::uint32_t>(a.extra.size());
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

class ScardTransmit : public fake_fixture {
protected:
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
    const bytes reply = call(k_transmit, transmit_request({}));
    const bytes expected = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 24, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 0x90, 0x00, 0, 0};
    EXPECT_EQ(reply, expected);
    EXPECT_EQ(fake.handle, k_pcsc_card);
    EXPECT_EQ(pci[0], 2u);
    EXPECT_EQ(pci[1], 16u);
    EXPECT_EQ(fake.sent, (bytes{0x00, 0xA4, 0x04, 0x00, 0x00}));
    EXPECT_TRUE(recv_pci_null);
    EXPECT_EQ(fake.room, 258u);
}

TEST_F(ScardTransmit, SendPciCarriesExtraBytesAfterTheHeader) {
    transmit_args a;
    a.protocol = 0xFFFFFFFF;  // zero-extended, not sign-extended
    a.extra = {0xAA, 0xBB, 0xCC};
    a.recv_pci = true;  // read and discarded
    fake.reply = {0x6A, 0x82};
    EXPECT_EQ(result_of(call(k_transmit, transmit_request(a))), 0u);
    EXPECT_EQ(pci[0], 0xFFFFFFFFu);
    EXPECT_EQ(pci[1], 16u);
    EXPECT_EQ(pci_extra, (bytes{0xAA, 0xBB, 0xCC}));
    EXPECT_TRUE(recv_pci_null);

    // extra_len beyond the bytes present fails in the codec, before any allocation or PC/SC call.
    a.extra_len = 0xFFFFFFF0;
    fake.calls = 0;
    EXPECT_THROW(call(k_transmit, transmit_request(a)), std::runtime_error);
    EXPECT_EQ(fake.calls, 0);
}

TEST_F(ScardTransmit, RepliesAndWhatReachesPcsc) {
    const bytes sw = {0x90, 0x00};
    const bytes huge = body({0, 66560, 2, 66560}, bytes(66560, 0));
    struct {
        const char* what;
        transmit_args args;
        bytes response;
        LONG answer;
        DWORD report;
        bool called;
        bool card_known;  // false: PC/SC gets all ones
        DWORD send_length, recv_room;
        std::uint32_t result;
        bytes body;
    } const cases[] = {
        {"empty response: no array", {}, {}, 0, 0, true, true, 5, 258, 0, no_body},
        {"recv_is_null: n zero bytes", with([](auto& a) { a.recv_is_null = 1; }), {}, 0, 3, true, true, 5, 258, 0,
         body({0, 3, 2, 3}, bytes(3, 0))},
        {"PC/SC failure", {}, sw, static_cast<LONG>(0x80100011), 0, true, true, 5, 258, 0x80100011, no_body},
        {"no card handle", with([](auto& a) { a.card_wire = 0; }), {}, static_cast<LONG>(0x80100003), 0, true, false,
         5, 258, 0x80100003, no_body},
        {"no send buffer, length 0", with([](auto& a) { a.send_present = false, a.send_len = 0; }), {}, 0, 0, true,
         true, 0, 258, 0, no_body},
        {"send length below the bytes sent", with([](auto& a) { a.send_len = 4; }), {}, 0, 0, true, true, 4, 258, 0,
         no_body},
        // A send length that the buffer does not back is refused, PC/SC not asked.
        {"send length beyond the bytes sent", with([](auto& a) { a.send_len = 6; }), {}, 0, 0, false, true, 0, 0,
         0x80100004, no_body},
        {"send length without a send buffer", with([](auto& a) { a.send_present = false, a.send_len = 3; }), {}, 0, 0,
         false, true, 0, 0, 0x80100004, no_body},
        // recv_len is capped at the channel's largest receive length.
        {"huge recv_len", with([](auto& a) { a.recv_len = 0xFFFFFFFF; }), sw, 0, 0, true, true, 5, 66560, 0,
         body({0, 2, 2, 2}, sw)},
        {"huge recv_len, null buffer", with([](auto& a) { a.recv_len = 0x7FFFFFFF, a.recv_is_null = 1; }), {}, 0,
         0xFFFFFFFF, true, true, 5, 66560, 0, huge},
        // PC/SC reporting more than the buffer holds: only the buffer is sent.
        {"reported length beyond the buffer", with([](auto& a) { a.recv_len = 2; }), {0x61, 0x10}, 0, 4000, true,
         true, 5, 2, 0, body({0, 2, 2, 2}, {0x61, 0x10})},
        {"extra_len without extra bytes", with([](auto& a) { a.extra_len = 0xFFFFFFFE; }), sw, 0, 0, true, true, 5,
         258, 0, body({0, 2, 2, 2}, sw)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fake = recorder{};
        fake.reply = c.response, fake.answer = c.answer, fake.report = c.report;
        const bytes reply = call(k_transmit, transmit_request(c.args));
        EXPECT_EQ(result_of(reply), c.result);
        EXPECT_EQ(body_of(reply), c.body);
        ASSERT_EQ(fake.calls, c.called ? 1 : 0);
        if (!c.called) continue;
        EXPECT_EQ(fake.handle, c.card_known ? k_pcsc_card : k_no_handle);
        EXPECT_EQ(fake.null_in, !c.args.send_present);
        EXPECT_EQ(fake.null_out, c.args.recv_is_null != 0);
        EXPECT_EQ(fake.sent.size(), c.send_length);
        EXPECT_EQ(fake.room, c.recv_room);
    }
    service().SCardTransmit = nullptr;
    EXPECT_EQ(result_of(call(k_transmit, transmit_request({}))), k_not_implemented);
}
