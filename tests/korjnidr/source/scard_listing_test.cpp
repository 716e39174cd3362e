#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "scard_test_support.h"

using namespace kor::jni;
using scard_test::bytes;

namespace {

constexpr std::uint32_t k_groups_a = 32, k_groups_w = 36, k_readers_a = 40, k_readers_w = 44;
constexpr std::uint32_t k_allocate = 0xFFFFFFFF;
constexpr SCARDCONTEXT k_pcsc_context = 0x1122334455667788;

// A PC/SC that answers with `answer` and keeps what each call was given.
struct list_call {
    SCARDCONTEXT context;
    bool groups_null, buffer_null;
    DWORD length_in;
};
struct fake_state {
    std::string answer;
    LONG fail = 0;    // returned instead of answering, when not 0
    DWORD report = 0;  // when not 0: length reported regardless of the answer
    std::vector<list_call> calls;
};
fake_state fake;

LONG answer_into(LPSTR buffer, LPDWORD n) {
    if (fake.fail) return fake.fail;
    const DWORD needed = fake.answer.size();
    if (buffer) {
        if (*n < needed) return static_cast<LONG>(k_scard_e_insufficient_buffer);
        std::memcpy(buffer, fake.answer.data(), needed);
    }
    *n = fake.report ? fake.report : needed;
    return 0;
}
LONG fake_readers(SCARDCONTEXT c, LPCSTR groups, LPSTR buffer, LPDWORD n) {
    fake.calls.push_back({c, groups == nullptr, buffer == nullptr, *n});
    return answer_into(buffer, n);
}
LONG fake_groups(SCARDCONTEXT c, LPSTR buffer, LPDWORD n) { return fake_readers(c, nullptr, buffer, n); }

bytes groups_request(std::uint32_t context_wire, std::uint32_t is_null, std::uint32_t cch) {
    scard_test::request r;
    r.u32s({4, context_wire ? 1u : 0u, is_null, cch});
    if (context_wire) r.handle(context_wire);
    return r.build();
}

// `filter`: the group filter's bytes as the peer sends them (absent when empty).
bytes readers_request(std::uint32_t context_wire, std::uint32_t is_null, std::uint32_t cch, const bytes& filter = {}) {
    scard_test::request r;
    r.u32s({4, context_wire ? 1u : 0u, static_cast<std::uint32_t>(filter.size()), filter.empty() ? 0u : 1u,
            is_null, cch});
    if (context_wire) r.handle(context_wire);
    if (!filter.empty()) r.byte_array(filter);
    return r.build();
}

bytes le16(std::initializer_list<std::uint16_t> units) {
    bytes out;
    for (auto u : units) {
        out.push_back(static_cast<std::uint8_t>(u));
        out.push_back(static_cast<std::uint8_t>(u >> 8));
    }
    return out;
}

bytes cat(bytes a, const bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The success body up to the multi-string: cBytes, referent 1, count.
bytes success_head(std::uint32_t length) {
    bytes out;
    for (std::uint32_t v : {length, 1u, length})
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return out;
}

bytes padded_to_8(bytes body) {
    while ((body.size() + 4) % 8) body.push_back(0);
    return body;
}

class ScardListing : public scard_test::service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        service().SCardListReaders = &fake_readers;
        service().SCardListReaderGroups = &fake_groups;
        context_wire = service().add_context(1, k_pcsc_context);
        fake = fake_state{};
    }
    std::uint32_t context_wire = 0;
};

}  // namespace

TEST_F(ScardListing, GroupMultistringInBothWidths) {
    fake.answer = std::string("G1\0G2\0\0", 7);
    const bytes a = scard_test::call(k_groups_a, groups_request(context_wire, 0, 100));
    const bytes expected_a = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 24, 0, 0, 0, 0, 0, 0, 0,
                              0, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0,
                              0x47, 0x31, 0x00, 0x47, 0x32, 0x00, 0x00, 0x00};
    EXPECT_EQ(a, expected_a);

    const bytes w = scard_test::call(k_groups_w, groups_request(context_wire, 0, 100));
    EXPECT_EQ(scard_test::u32_at(w, 8), 32u);
    EXPECT_EQ(scard_test::result_of(w), 0u);
    EXPECT_EQ(scard_test::body_of(w),
              padded_to_8(cat(success_head(14), le16({0x47, 0x31, 0, 0x47, 0x32, 0, 0}))));

    ASSERT_EQ(fake.calls.size(), 2u);
    for (const auto& c : fake.calls) {
        EXPECT_EQ(c.context, k_pcsc_context);
        EXPECT_FALSE(c.buffer_null);
        EXPECT_EQ(c.length_in, 100u);  // the peer's count of characters, as PC/SC's count of bytes
    }
}

TEST_F(ScardListing, ModesAndWhatPcscIsAsked) {
    const std::string reader("R\xC3\0\0", 4);
    struct {
        const char* name;
        std::uint32_t code;
        bytes request;
        LONG fail;
        DWORD report;
        std::vector<list_call> calls;
        std::uint32_t result;
        bytes body;
    } const cases[] = {
        {"length only, whatever cch says", k_readers_a, readers_request(context_wire, 1, 500), 0, 20,
         {{k_pcsc_context, true, true, 0}}, 0, padded_to_8(cat(success_head(20), bytes(20, 0)))},
        {"length only in W counts bytes", k_readers_w, readers_request(context_wire, 1, 0), 0, 0,
         {{k_pcsc_context, true, true, 0}}, 0, padded_to_8(cat(success_head(8), bytes(8, 0)))},
        {"allocating: query, then the text", k_readers_w, readers_request(context_wire, 0, k_allocate), 0, 0,
         {{k_pcsc_context, true, true, 0}, {k_pcsc_context, true, false, 4}}, 0,
         padded_to_8(cat(success_head(8), le16({0x52, 0xFFC3, 0, 0})))},
        {"allocating: a failed query makes no second call", k_readers_a,
         readers_request(context_wire, 0, k_allocate), static_cast<LONG>(0x8010002E), 0,
         {{k_pcsc_context, true, true, 0}}, 0x8010002E, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"fixed mode too small: no partial text", k_readers_a, readers_request(context_wire, 0, 3), 0, 0,
         {{k_pcsc_context, true, false, 3}}, k_scard_e_insufficient_buffer, bytes(12, 0)},
        {"no context: all ones reach PC/SC", k_readers_a, readers_request(0, 0, 10), static_cast<LONG>(0x80100003),
         0, {{k_no_handle, true, false, 10}}, 0x80100003, bytes(12, 0)},
        {"unknown context", k_groups_w, groups_request(99, 1, 0), static_cast<LONG>(0x80100003), 0,
         {{k_no_handle, true, true, 0}}, 0x80100003, bytes(12, 0)},
        // The buffer is sized from the request: capped at what the reply can carry (65536 bytes),
        // and PC/SC is told the capped size.
        {"huge cch in A", k_readers_a, readers_request(context_wire, 0, 0xFFFFFFFE), 0, 0,
         {{k_pcsc_context, true, false, 65536}}, 0, padded_to_8(cat(success_head(4), bytes(reader.begin(), reader.end())))},
        {"huge cch in W", k_groups_w, groups_request(context_wire, 0, 0xFFFFFFFE), 0, 0,
         {{k_pcsc_context, true, false, 32768}}, 0, padded_to_8(cat(success_head(8), le16({0x52, 0xFFC3, 0, 0})))},
        // A PC/SC that reports more than it was given room for: only the buffer is sent.
        {"reported length beyond the buffer", k_readers_a, readers_request(context_wire, 0, 4), 0, 1000,
         {{k_pcsc_context, true, false, 4}}, 0, padded_to_8(cat(success_head(4), bytes(reader.begin(), reader.end())))},
        {"reported length beyond the buffer, W", k_readers_w, readers_request(context_wire, 0, 4), 0, 1000,
         {{k_pcsc_context, true, false, 4}}, 0, padded_to_8(cat(success_head(8), le16({0x52, 0xFFC3, 0, 0})))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fake = fake_state{reader, c.fail, c.report, {}};
        const bytes reply = scard_test::call(c.code, c.request);
        EXPECT_EQ(scard_test::result_of(reply), c.result);
        EXPECT_EQ(scard_test::body_of(reply), c.body);
        ASSERT_EQ(fake.calls.size(), c.calls.size());
        for (std::size_t i = 0; i < c.calls.size(); ++i) {
            EXPECT_EQ(fake.calls[i].context, c.calls[i].context) << i;
            EXPECT_EQ(fake.calls[i].groups_null, c.calls[i].groups_null) << i;
            EXPECT_EQ(fake.calls[i].buffer_null, c.calls[i].buffer_null) << i;
            EXPECT_EQ(fake.calls[i].length_in, c.calls[i].length_in) << i;
        }
    }
}

TEST_F(ScardListing, GroupFilterIsSteppedOverAndPcscAsksForAllGroups) {
    fake.answer = std::string("R\0\0", 3);
    const bytes filter_a = {'S', 'C', 'a', 'r', 'd', 0, 0};
    const bytes filter_w = le16({'S', 'C', 0, 0, 0});  // cBytes 10: five units, two pad bytes
    for (auto [code, filter] : {std::pair{k_readers_a, filter_a}, std::pair{k_readers_w, filter_w}}) {
        bytes req = readers_request(context_wire, 0, 50, filter);
        EXPECT_EQ(scard_test::result_of(scard_test::call(code, req)), 0u);
        // Every byte of the filter and its pad is read: one byte fewer fails.
        req.pop_back();
        EXPECT_THROW(scard_test::call(code, req), std::runtime_error);
    }
    ASSERT_EQ(fake.calls.size(), 2u);
    EXPECT_TRUE(fake.calls[0].groups_null);
    EXPECT_TRUE(fake.calls[1].groups_null);
}

TEST_F(ScardListing, MissingEntryAnswers120) {
    service().SCardListReaders = nullptr;
    service().SCardListReaderGroups = nullptr;
    for (std::uint32_t code : {k_groups_a, k_groups_w, k_readers_a, k_readers_w}) {
        const bytes req = code < k_readers_a ? groups_request(context_wire, 0, k_allocate)
                                             : readers_request(context_wire, 0, k_allocate);
        const bytes reply = scard_test::call(code, req);
        EXPECT_EQ(scard_test::result_of(reply), k_not_implemented) << code;
        EXPECT_EQ(scard_test::body_of(reply), bytes(12, 0)) << code;
    }
}
