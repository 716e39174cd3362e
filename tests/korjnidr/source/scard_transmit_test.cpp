#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "scard_test_support.h"

using namespace kor::jni;
using scard_test::bytes;

namespace {

constexpr std::uint32_t k_transmit = 208;
constexpr SCARDHANDLE k_pcsc_card = 0x0000000100000002;
constexpr std::uint32_t k_invalid_parameter = 0x80100004;

// A card that answers with `response` (or fails with `answer`) and keeps what SCardTransmit got.
struct fake_state {
    bytes response;
    LONG answer = 0;
    DWORD report = 0;          // when not 0: received length reported regardless of response
    std::size_t pci_extra = 0;  // extra PCI bytes the test expects behind the header
    int calls = 0;
    SCARDHANDLE card = 0;
    std::uint64_t pci[2] = {};  // dwProtocol, cbPciLength
    bytes pci_extra_bytes, sent;
    bool send_null = false, recv_pci_null = false, recv_null = false;
    DWORD send_length = 0, recv_length_in = 0;
};
fake_state fake;

LONG fake_transmit(SCARDHANDLE h, const SCARD_IO_REQUEST* pci, LPCBYTE send, DWORD send_len,
                   SCARD_IO_REQUEST* recv_pci, LPBYTE recv, LPDWORD recv_len) {
    ++fake.calls;
    fake.card = h;
    std::memcpy(fake.pci, pci, sizeof fake.pci);
    const auto* raw = reinterpret_cast<const std::uint8_t*>(pci);
    fake.pci_extra_bytes.assign(raw + 16, raw + 16 + fake.pci_extra);
    fake.send_null = send == nullptr;
    fake.sent = send ? bytes(send, send + send_len) : bytes{};
    fake.send_length = send_len;
    fake.recv_pci_null = recv_pci == nullptr;
    fake.recv_null = recv == nullptr;
    fake.recv_length_in = *recv_len;
    if (fake.answer) return fake.answer;
    if (recv) std::memcpy(recv, fake.response.data(), std::min<std::size_t>(fake.response.size(), *recv_len));
    *recv_len = fake.report ? fake.report : fake.response.size();
    return 0;
}

constexpr std::uint8_t k_select[] = {0x00, 0xA4, 0x04, 0x00, 0x00};

struct transmit_args {
    std::uint32_t card_wire = 0;  // 0: no card array
    std::uint32_t protocol = 2;
    bytes extra;                  // sent when not empty
    std::uint32_t extra_len = 0xFFFFFFFF;  // default: extra.size()
    bool send_present = true;
    bytes send = bytes(std::begin(k_select), std::end(k_select));
    std::uint32_t send_len = 0xFFFFFFFF;   // default: send.size()
    bool recv_pci = false;
    std::uint32_t recv_is_null = 0;
    std::uint32_t recv_len = 258;
};

bytes transmit_request(const transmit_args& a) {
    const auto extra_len = a.extra_len != 0xFFFFFFFF ? a.extra_len : static_cast<std::uint32_t>(a.extra.size());
    const auto send_len = a.send_len != 0xFFFFFFFF ? a.send_len : static_cast<std::uint32_t>(a.send.size());
    scard_test::request r;
    r.u32s({4, 1, a.card_wire ? 4u : 0u, a.card_wire ? 1u : 0u, a.protocol, extra_len, a.extra.empty() ? 0u : 1u,
            send_len, a.send_present ? 1u : 0u, a.recv_pci ? 1u : 0u, a.recv_is_null, a.recv_len});
    r.handle(1);
    if (a.card_wire) r.handle(a.card_wire);
    if (!a.extra.empty()) r.byte_array(a.extra);
    if (a.send_present) r.byte_array(a.send);
    if (a.recv_pci) r.u32s({1, 2, 1}).byte_array({0x11, 0x22});
    return r.build();
}

class ScardTransmit : public scard_test::service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        fake = fake_state{};
        service().SCardTransmit = &fake_transmit;
        service().add_context(1, 0x99);
        card_wire = service().add_card(1, k_pcsc_card);
    }
    std::uint32_t card_wire = 0;
};

}  // namespace

TEST_F(ScardTransmit, StatusWordReply) {
    fake.response = {0x90, 0x00};
    transmit_args a;
    a.card_wire = card_wire;
    const bytes reply = scard_test::call(k_transmit, transmit_request(a));
    const bytes expected = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 24, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 0x90, 0x00, 0, 0};
    EXPECT_EQ(reply, expected);

    EXPECT_EQ(fake.card, k_pcsc_card);
    EXPECT_EQ(fake.pci[0], 2u);
    EXPECT_EQ(fake.pci[1], 16u);
    EXPECT_FALSE(fake.send_null);
    EXPECT_EQ(fake.sent, (bytes{0x00, 0xA4, 0x04, 0x00, 0x00}));
    EXPECT_EQ(fake.send_length, 5u);
    EXPECT_TRUE(fake.recv_pci_null);
    EXPECT_FALSE(fake.recv_null);
    EXPECT_EQ(fake.recv_length_in, 258u);
}

TEST_F(ScardTransmit, SendPciCarriesExtraBytesAfterTheHeader) {
    transmit_args a;
    a.card_wire = card_wire;
    a.protocol = 0xFFFFFFFF;  // zero-extended, not sign-extended
    a.extra = {0xAA, 0xBB, 0xCC};
    a.recv_pci = true;  // read and discarded
    fake.pci_extra = 3;
    fake.response = {0x6A, 0x82};
    EXPECT_EQ(scard_test::result_of(scard_test::call(k_transmit, transmit_request(a))), 0u);
    EXPECT_EQ(fake.pci[0], 0xFFFFFFFFu);
    EXPECT_EQ(fake.pci[1], 16u);
    EXPECT_EQ(fake.pci_extra_bytes, (bytes{0xAA, 0xBB, 0xCC}));
    EXPECT_EQ(fake.sent, (bytes{0x00, 0xA4, 0x04, 0x00, 0x00}));
    EXPECT_TRUE(fake.recv_pci_null);

    // extra_len beyond the bytes present fails in the codec, before any allocation or PC/SC call.
    a.extra_len = 0xFFFFFFF0;
    fake.calls = 0;
    EXPECT_THROW(scard_test::call(k_transmit, transmit_request(a)), std::runtime_error);
    EXPECT_EQ(fake.calls, 0);
}

namespace {

struct transmit_case {
    const char* what;
    transmit_args args;
    bytes response;
    LONG answer;
    DWORD report;
    int calls;                // 0: PC/SC must not be called
    bool card_known;          // false: PC/SC gets all ones
    bool send_null, recv_null;
    DWORD send_length, recv_length_in;
    std::uint32_t result;
    bytes body;
};

template <class Change>
transmit_args with(std::uint32_t card_wire, Change change) {
    transmit_args a;
    a.card_wire = card_wire;
    change(a);
    return a;
}

}  // namespace

TEST_F(ScardTransmit, RepliesAndWhatReachesPcsc) {
    const bytes fail_body = bytes(12, 0);
    const transmit_case cases[] = {
        {"empty response: no array", with(card_wire, [](auto&) {}), {}, 0, 0, 1, true, false, false, 5, 258, 0,
         bytes(12, 0)},
        {"recv_is_null: n zero bytes, null buffer", with(card_wire, [](auto& a) { a.recv_is_null = 1; }), {}, 0, 3, 1,
         true, false, true, 5, 258, 0, {0, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0}},
        {"PC/SC failure", with(card_wire, [](auto&) {}), {0x90, 0x00}, static_cast<LONG>(0x80100011), 0, 1, true,
         false, false, 5, 258, 0x80100011, fail_body},
        {"no card handle", with(0, [](auto&) {}), {}, static_cast<LONG>(0x80100003), 0, 1, false, false, false, 5,
         258, 0x80100003, fail_body},
        {"unknown card handle", with(card_wire + 7, [](auto&) {}), {}, static_cast<LONG>(0x80100003), 0, 1, false,
         false, false, 5, 258, 0x80100003, fail_body},
        {"no send buffer, length 0", with(card_wire, [](auto& a) { a.send_present = false; a.send_len = 0; }), {},
         0, 0, 1, true, true, false, 0, 258, 0, bytes(12, 0)},
        {"send length below the bytes sent", with(card_wire, [](auto& a) { a.send_len = 4; }), {}, 0, 0, 1, true,
         false, false, 4, 258, 0, bytes(12, 0)},
        // A send length that the buffer does not back is refused, PC/SC not asked.
        {"send length beyond the bytes sent", with(card_wire, [](auto& a) { a.send_len = 6; }), {}, 0, 0, 0, true,
         false, false, 0, 0, k_invalid_parameter, fail_body},
        {"send length without a send buffer",
         with(card_wire, [](auto& a) { a.send_present = false; a.send_len = 3; }), {}, 0, 0, 0, true, false, false,
         0, 0, k_invalid_parameter, fail_body},
        // recv_len is capped at the channel's largest receive length.
        {"huge recv_len", with(card_wire, [](auto& a) { a.recv_len = 0xFFFFFFFF; }), {0x90, 0x00}, 0, 0, 1, true,
         false, false, 5, 66560, 0, {0, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 0x90, 0x00, 0, 0}},
        {"huge recv_len, null buffer", with(card_wire, [](auto& a) { a.recv_len = 0x7FFFFFFF; a.recv_is_null = 1; }),
         {}, 0, 0xFFFFFFFF, 1, true, false, true, 5, 66560, 0,
         [] {
             bytes b = {0, 0, 0, 0, 0x00, 0x04, 0x01, 0, 2, 0, 0, 0, 0x00, 0x04, 0x01, 0};
             b.resize(16 + 66560 + 4, 0);
             return b;
         }()},
        // PC/SC reporting more than the buffer holds: only the buffer is sent.
        {"reported length beyond the buffer", with(card_wire, [](auto& a) { a.recv_len = 2; }), {0x61, 0x10}, 0,
         4000, 1, true, false, false, 5, 2, 0, {0, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 0x61, 0x10, 0, 0}},
        {"extra_len without extra bytes", with(card_wire, [](auto& a) { a.extra_len = 0xFFFFFFFF - 1; }),
         {0x90, 0x00}, 0, 0, 1, true, false, false, 5, 258, 0,
         {0, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 0x90, 0x00, 0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fake = fake_state{};
        fake.response = c.response;
        fake.answer = c.answer;
        fake.report = c.report;
        const bytes reply = scard_test::call(k_transmit, transmit_request(c.args));
        EXPECT_EQ(scard_test::result_of(reply), c.result);
        EXPECT_EQ(scard_test::body_of(reply), c.body);
        ASSERT_EQ(fake.calls, c.calls);
        if (!c.calls) continue;
        EXPECT_EQ(fake.card, c.card_known ? k_pcsc_card : k_no_handle);
        EXPECT_EQ(fake.send_null, c.send_null);
        EXPECT_EQ(fake.recv_null, c.recv_null);
        EXPECT_TRUE(fake.recv_pci_null);
        EXPECT_EQ(fake.send_length, c.send_length);
        EXPECT_EQ(fake.recv_length_in, c.recv_length_in);
        EXPECT_EQ(fake.pci[1], 16u);
    }
}

TEST_F(ScardTransmit, MissingEntryAnswers120) {
    service().SCardTransmit = nullptr;
    transmit_args a;
    a.card_wire = card_wire;
    const bytes reply = scard_test::call(k_transmit, transmit_request(a));
    EXPECT_EQ(scard_test::result_of(reply), k_not_implemented);
    EXPECT_EQ(scard_test::body_of(reply), bytes(12, 0));
}
