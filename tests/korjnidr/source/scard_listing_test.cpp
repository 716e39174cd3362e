#include "scard_fakes.h"

namespace {

constexpr std::uint32_t k_groups_a = 32, k_groups_w = 36, k_readers_a = 40, k_readers_w = 44, k_allocate = ~0u;
constexpr SCARDCONTEXT k_pcsc_context = 0x1122334455667788;

LONG fake_readers(SCARDCONTEXT c, LPCSTR groups, LPSTR buffer, LPDWORD n) {
    record(c, groups, 0, buffer, *n);
    return answer(buffer, *n, n);
}
LONG fake_groups(SCARDCONTEXT c, LPSTR buffer, LPDWORD n) { return fake_readers(c, nullptr, buffer, n); }

// The context is the fixture's (wire id 1) unless `context_wire` says otherwise; 0 sends none.
bytes groups(std::uint32_t is_null, std::uint32_t cch, std::uint32_t context_wire = 1) {
    request r;
    r.u32s({4, context_wire ? 1u : 0u, is_null, cch});
    return (context_wire ? r.handle(context_wire) : r).build();
}
// `filter`: the group filter's bytes as the peer sends them (absent when empty).
bytes readers(std::uint32_t is_null, std::uint32_t cch, const bytes& filter = {}, std::uint32_t context_wire = 1) {
    request r;
    r.u32s({4, context_wire ? 1u : 0u, static_cast<std::uint32_t>(filter.size()), filter.empty() ? 0u : 1u,
            is_null, cch});
    if (context_wire) r.handle(context_wire);
    return (filter.empty() ? r : r.byte_array(filter)).build();
}

struct ScardListing : fake_fixture {
    void SetUp() override {
        fake_fixture::SetUp();
        service().SCardListReaders = &fake_readers;
        service().SCardListReaderGroups = &fake_groups;
        ASSERT_EQ(service().add_context(1, k_pcsc_context), 1u);
    }
};

}  // namespace

TEST_F(ScardListing, GroupMultistringInBothWidths) {
    fake.reply = {'G', '1', 0, 'G', '2', 0, 0};
    const bytes expected_a = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 24, 0, 0, 0, 0, 0, 0, 0,
                              0, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0,
                              0x47, 0x31, 0x00, 0x47, 0x32, 0x00, 0x00, 0x00};
    EXPECT_EQ(call(k_groups_a, groups(0, 100)), expected_a);
    const bytes w = call(k_groups_w, groups(0, 100));
    EXPECT_EQ(u32_at(w, 8), 32u);
    EXPECT_EQ(body_of(w), array_body(le16({0x47, 0x31, 0, 0x47, 0x32, 0, 0})));
    EXPECT_EQ(fake.handle, k_pcsc_context);
    // The peer's count of characters, as PC/SC's count of bytes.
    EXPECT_EQ(fake.offers, (offers{{false, 100}, {false, 100}}));
}

TEST_F(ScardListing, ModesAndWhatPcscIsAsked) {
    const bytes reader = {'R', 0xC3, 0, 0}, wide = le16({0x52, 0xFFC3, 0, 0});
    const auto failed = static_cast<LONG>(0x8010002E);
    struct {
        std::uint32_t code;
        bytes request;
        LONG fail;
        DWORD report;
        offers asked;
        std::uint32_t result;
        bytes body;
    } const cases[] = {
        {k_readers_a, readers(1, 500), 0, 20, {{true, 0}}, 0, array_body(bytes(20, 0))},  // length only
        {k_readers_w, readers(1, 0), 0, 0, {{true, 0}}, 0, array_body(bytes(8, 0))},      // counted in bytes
        {k_readers_w, readers(0, k_allocate), 0, 0, {{true, 0}, {false, 4}}, 0, array_body(wide)},
        {k_readers_a, readers(0, k_allocate), failed, 0, {{true, 0}}, 0x8010002E, no_body},  // no second call
        {k_readers_a, readers(0, 3), 0, 0, {{false, 3}}, k_scard_e_insufficient_buffer, no_body},  // no partial text
        // The buffer is capped at what the reply can carry (65536 bytes), and PC/SC is told so.
        {k_readers_a, readers(0, 0xFFFFFFFE), 0, 0, {{false, 65536}}, 0, array_body(reader)},
        {k_groups_w, groups(0, 0xFFFFFFFE), 0, 0, {{false, 32768}}, 0, array_body(wide)},
        // A reported length beyond the buffer: only the buffer is sent.
        {k_readers_w, readers(0, 4), 0, 1000, {{false, 4}}, 0, array_body(wide)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        fake = recorder{};
        fake.reply = reader, fake.answer = c.fail, fake.report = c.report;
        const bytes reply = call(c.code, c.request);
        EXPECT_EQ(result_of(reply), c.result);
        EXPECT_EQ(body_of(reply), c.body);
        EXPECT_EQ(fake.offers, c.asked);
        EXPECT_EQ(fake.handle, k_pcsc_context);
        EXPECT_TRUE(fake.null_in);  // no group filter reaches PC/SC
    }
    // No or an unknown context: all ones reach PC/SC.
    for (auto [code, req] : {std::pair{k_readers_a, readers(0, 10, {}, 0)}, {k_groups_w, groups(1, 0, 99)}}) {
        fake.handle = 0;
        call(code, req);
        EXPECT_EQ(fake.handle, k_no_handle);
    }
    service().SCardListReaders = nullptr;
    const bytes reply = call(k_readers_w, readers(0, k_allocate));
    EXPECT_EQ(result_of(reply), k_not_implemented);
    EXPECT_EQ(body_of(reply), no_body);
}

TEST_F(ScardListing, GroupFilterIsSteppedOver) {
    fake.reply = {'R', 0, 0};
    const bytes filter_a = {'S', 'C', 'a', 'r', 'd', 0, 0};
    const bytes filter_w = le16({'S', 'C', 0, 0, 0});  // cBytes 10: five units, two pad bytes
    for (auto [code, filter] : {std::pair{k_readers_a, filter_a}, {k_readers_w, filter_w}}) {
        bytes req = readers(0, 50, filter);
        EXPECT_EQ(result_of(call(code, req)), 0u);
        EXPECT_TRUE(fake.null_in);
        // Every byte of the filter and its pad is read: one byte fewer fails.
        req.pop_back();
        EXPECT_THROW(call(code, req), std::runtime_error);
    }
}

// Widening in place, and text that does not end in a double NUL within its n bytes.
TEST(ScardMultistring, WidenEndsMalformedTextAndWorksInPlace) {
    using units = std::vector<std::uint16_t>;
    const std::pair<std::string, units> cases[] = {
        {std::string("AB\0C", 4), {0x41, 0x42, 0, 0, 0xEEEE}},  // ended so both terminators fit
        {"ABCD", {0x41, 0x42, 0, 0, 0xEEEE}},
        {std::string("A\0\0xyz", 6), {0x41, 0, 0, 0, 0, 0, 0xEEEE}},  // zeros after, not what the buffer held
    };
    for (const auto& [src, expected] : cases) {
        const auto n = static_cast<std::uint32_t>(src.size());
        units in_place(n + 1, 0xEEEE);  // a sentinel after the n units
        std::memcpy(in_place.data(), src.data(), n);
        widen_multistring(in_place.data(), reinterpret_cast<const char*>(in_place.data()), n);
        EXPECT_EQ(in_place, expected) << src;
    }
    units narrowed = {0x0141, 0xFF42, 0x0031, 0, 0x0099};
    narrow_string(reinterpret_cast<char*>(narrowed.data()), narrowed.data());
    EXPECT_STREQ(reinterpret_cast<const char*>(narrowed.data()), "AB1");
}
