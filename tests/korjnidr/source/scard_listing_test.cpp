#include <utility>

#include "scard_fakes.h"

using namespace kor::jni;
using namespace scard_test;

namespace {

constexpr std::uint32_t k_groups_a = 32, k_groups_w = 36, k_readers_a = 40, k_readers_w = 44;
constexpr std::uint32_t k_allocate = 0xFFFFFFFF;
constexpr SCARDCONTEXT k_pcsc_context = 0x1122334455667788;

LONG fake_readers(SCARDCONTEXT c, LPCSTR groups, LPSTR buffer, LPDWORD n) {
    record(c, groups, 0, buffer, *n);
    return answer(buffer, *n, n);
}
LONG fake_groups(SCARDCONTEXT c, LPSTR buffer, LPDWORD n) { return fake_readers(c, nullptr, buffer, n); }

bytes groups_request(std::uint32_t context_wire, std::uint32_t is_null, std::uint32_t cch) {
    request r;
    r.u32s({4, context_wire ? 1u : 0u, is_null, cch});
    if (context_wire) r.handle(context_wire);
    return r.build();
}

// `filter`: the group filter's bytes as the peer sends them (absent when empty).
bytes readers_request(std::uint32_t context_wire, std::uint32_t is_null, std::uint32_t cch, const bytes& filter = {}) {
    request r;
    r.u32s({4, context_wire ? 1u : 0u, static_cast<std::uint32_t>(filter.size()), filter.empty() ? 0u : 1u,
            is_null, cch});
    if (context_wire) r.handle(context_wire);
    if (!filter.empty()) r.byte_array(filter);
    return r.build();
}

class ScardListing : public fake_fixture {
protected:
    void SetUp() override {
        fake_fixture::SetUp();
        service().SCardListReaders = &fake_readers;
        service().SCardListReaderGroups = &fake_groups;
        context_wire = service().add_context(1, k_pcsc_context);
    }
    std::uint32_t context_wire = 0;
};

}  // namespace

TEST_F(ScardListing, GroupMultistringInBothWidths) {
    fake.reply = {'G', '1', 0, 'G', '2', 0, 0};
    const bytes a = call(k_groups_a, groups_request(context_wire, 0, 100));
    const bytes expected_a = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 24, 0, 0, 0, 0, 0, 0, 0,
                              0, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0,
                              0x47, 0x31, 0x00, 0x47, 0x32, 0x00, 0x00, 0x00};
    EXPECT_EQ(a, expected_a);
    const bytes w = call(k_groups_w, groups_request(context_wire, 0, 100));
    EXPECT_EQ(u32_at(w, 8), 32u);
    EXPECT_EQ(body_of(w), array_body(le16({0x47, 0x31, 0, 0x47, 0x32, 0, 0})));
    EXPECT_EQ(fake.handle, k_pcsc_context);
    // The peer's count of characters, as PC/SC's count of bytes.
    EXPECT_EQ(fake.offers, (std::vector<std::pair<bool, DWORD>>{{false, 100}, {false, 100}}));
}

TEST_F(ScardListing, ModesAndWhatPcscIsAsked) {
    const bytes reader = {'R', 0xC3, 0, 0};
    const bytes wide = le16({0x52, 0xFFC3, 0, 0});
    struct {
        const char* name;
        std::uint32_t code;
        bytes request;
        LONG fail;
        DWORD report;
        std::vector<std::pair<bool, DWORD>> offers;  // (null buffer, room) of each call
        std::uint32_t result;
        bytes body;
    } const cases[] = {
        {"length only, whatever cch says", k_readers_a, readers_request(context_wire, 1, 500), 0, 20, {{true, 0}}, 0,
         array_body(bytes(20, 0))},
        {"length only in W counts bytes", k_readers_w, readers_request(context_wire, 1, 0), 0, 0, {{true, 0}}, 0,
         array_body(bytes(8, 0))},
        {"allocating: query, then the text", k_readers_w, readers_request(context_wire, 0, k_allocate), 0, 0,
         {{true, 0}, {false, 4}}, 0, array_body(wide)},
        {"allocating: a failed query makes no second call", k_readers_a, readers_request(context_wire, 0, k_allocate),
         static_cast<LONG>(0x8010002E), 0, {{true, 0}}, 0x8010002E, no_body},
        {"fixed mode too small: no partial text", k_readers_a, readers_request(context_wire, 0, 3), 0, 0,
         {{false, 3}}, k_scard_e_insufficient_buffer, no_body},
        // The buffer is sized from the request: capped at what the reply can carry (65536 bytes),
        // and PC/SC is told the capped size.
        {"huge cch in A", k_readers_a, readers_request(context_wire, 0, 0xFFFFFFFE), 0, 0, {{false, 65536}}, 0,
         array_body(reader)},
        {"huge cch in W", k_groups_w, groups_request(context_wire, 0, 0xFFFFFFFE), 0, 0, {{false, 32768}}, 0,
         array_body(wide)},
        // A PC/SC that reports more than it was given room for: only the buffer is sent.
        {"reported length beyond the buffer", k_readers_w, readers_request(context_wire, 0, 4), 0, 1000,
         {{false, 4}}, 0, array_body(wide)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fake = recorder{};
        fake.reply = reader, fake.answer = c.fail, fake.report = c.report;
        const bytes reply = call(c.code, c.request);
        EXPECT_EQ(result_of(reply), c.result);
        EXPECT_EQ(body_of(reply), c.body);
        EXPECT_EQ(fake.offers, c.offers);
        EXPECT_EQ(fake.handle, k_pcsc_context);
        EXPECT_TRUE(fake.null_in);  // no group filter reaches PC/SC
    }
    // No or an unknown context: all ones reach PC/SC.
    for (auto [code, req] : {std::pair{k_readers_a, readers_request(0, 0, 10)}, std::pair{k_groups_w, groups_request(99, 1, 0)}}) {
        fake.handle = 0;
        call(code, req);
        EXPECT_EQ(fake.handle, k_no_handle);
    }
}

TEST_F(ScardListing, GroupFilterIsSteppedOver) {
    fake.reply = {'R', 0, 0};
    const bytes filter_a = {'S', 'C', 'a', 'r', 'd', 0, 0};
    const bytes filter_w = le16({'S', 'C', 0, 0, 0});  // cBytes 10: five units, two pad bytes
    for (auto [code, filter] : {std::pair{k_readers_a, filter_a}, std::pair{k_readers_w, filter_w}}) {
        bytes req = readers_request(context_wire, 0, 50, filter);
        EXPECT_EQ(result_of(call(code, req)), 0u);
        EXPECT_TRUE(fake.null_in);
        // Every byte of the filter and its pad is read: one byte fewer fails.
        req.pop_back();
        EXPECT_THROW(call(code, req), std::runtime_error);
    }
}

TEST_F(ScardListing, MissingEntryAnswers120) {
    service().SCardListReaders = nullptr;
    service().SCardListReaderGroups = nullptr;
    for (std::uint32_t code : {k_groups_a, k_groups_w, k_readers_a, k_readers_w}) {
        const bytes req = code < k_readers_a ? groups_request(context_wire, 0, k_allocate)
                                             : readers_request(context_wire, 0, k_allocate);
        const bytes reply = call(code, req);
        EXPECT_EQ(result_of(reply), k_not_implemented) << code;
        EXPECT_EQ(body_of(reply), no_body) << code;
    }
}
