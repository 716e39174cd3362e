// EstablishContext, ReleaseContext, IsValidContext and Cancel against fake PC/SC entries.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scard_test_support.h"

namespace {

using namespace scard_test;

// What the fakes saw, in order: "<call> <handle>".
std::vector<std::string> g_seen;
LONG g_answer = 0;
SCARDCONTEXT g_next_context = 0x5000;

std::string hex(unsigned long long v) {
    char b[32];
    std::snprintf(b, sizeof b, "%llx", v);
    return b;
}
LONG fake_establish(DWORD scope, LPCVOID r1, LPCVOID r2, LPSCARDCONTEXT ctx) {
    g_seen.push_back("establish " + hex(scope) + (r1 || r2 ? " reserved" : ""));
    *ctx = g_next_context++;
    return g_answer;
}
LONG fake_release(SCARDCONTEXT c) {
    g_seen.push_back("release " + hex(c));
    return g_answer;
}
LONG fake_is_valid(SCARDCONTEXT c) {
    g_seen.push_back("valid " + hex(c));
    return g_answer;
}
LONG fake_cancel(SCARDCONTEXT c) {
    g_seen.push_back("cancel " + hex(c));
    return g_answer;
}

class scard_context_calls : public service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        g_seen.clear();
        g_answer = 0;
        g_next_context = 0x5000;
        service().SCardEstablishContext = fake_establish;
        service().SCardReleaseContext = fake_release;
        service().SCardIsValidContext = fake_is_valid;
        service().SCardCancel = fake_cancel;
    }
    std::uint32_t establish() { return u32_at(call(20, request().u32(2).build()), 32); }
};

bytes context_request(std::uint32_t wire) { return request().u32s({4, 0x00020000}).handle(wire).build(); }

const std::string all_ones = "ffffffffffffffff";

TEST_F(scard_context_calls, establish_reply_is_byte_exact) {
    EXPECT_EQ(call(0x00090014, request().u32(2).build()),
              (bytes{0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0,
                     1, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(g_seen, (std::vector<std::string>{"establish 2"}));
    EXPECT_EQ(service().find_context_record(1), std::make_pair(std::int32_t{1}, SCARDCONTEXT{0x5000}));
}

TEST_F(scard_context_calls, establish_records_the_owner_and_numbers_with_cards) {
    EXPECT_EQ(u32_at(call(20, request().u32(0).build(), 7), 32), 1u);
    EXPECT_EQ(service().add_card(7, 0x77), 2u);
    EXPECT_EQ(u32_at(call(20, request().u32(0).build(), 9), 32), 3u);
    EXPECT_EQ(service().find_context_record(3).first, 9);
    EXPECT_EQ(service().find_context_record(1).first, 7);
}

TEST_F(scard_context_calls, failed_or_missing_establish_keeps_nothing) {
    g_answer = static_cast<LONG>(0x8010001DL);  // no service
    const bytes failed = call(20, request().u32(2).build());
    EXPECT_EQ(failed.size(), 32u);
    EXPECT_EQ(result_of(failed), 0x8010001Du);
    EXPECT_EQ(body_of(failed), bytes(12, 0));

    service().SCardEstablishContext = nullptr;
    const bytes missing = call(20, request().u32(2).build());
    EXPECT_EQ(missing, (bytes{0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0x10, 0, 0, 0, 0, 0, 0, 0, 0x78, 0, 0,
                              0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(service().contexts.empty());
    EXPECT_EQ(service().last_handle, 0u);
}

TEST_F(scard_context_calls, context_calls_translate_or_send_all_ones) {
    const std::uint32_t wire = establish();
    g_seen.clear();
    g_answer = static_cast<LONG>(0xFFFFFFFF80100003LL);  // 64-bit LONG: only the low half goes back
    const bytes valid = call(28, context_request(wire));
    EXPECT_EQ(valid.size(), 24u);
    EXPECT_EQ(result_of(valid), 0x80100003u);
    g_answer = 0;
    call(168, context_request(wire));
    call(28, context_request(99));                                // unknown
    call(28, request().u32s({0, 0}).build());                      // zero referent: no handle bytes
    call(24, context_request(wire));                               // released ...
    call(168, context_request(wire));                              // ... then unknown
    call(24, request().u32s({4, 1}).u32(8).u32(wire).u32(0xAABBCCDD).build());  // count 8, first 4 bytes
    EXPECT_EQ(g_seen, (std::vector<std::string>{"valid 5000", "cancel 5000", "valid " + all_ones, "valid " + all_ones,
                                               "release 5000", "cancel " + all_ones, "release " + all_ones}));
    EXPECT_TRUE(service().contexts.empty());
}

TEST_F(scard_context_calls, handle_array_of_eight_bytes_selects_by_its_first_four) {
    const std::uint32_t wire = establish();
    g_seen.clear();
    const bytes reply = call(24, request().u32s({8, 1}).u32(8).u32(wire).u32(0).build());
    EXPECT_EQ(result_of(reply), 0u);
    EXPECT_EQ(g_seen, (std::vector<std::string>{"release 5000"}));
}

TEST_F(scard_context_calls, malformed_requests_fail_before_pcsc) {
    const std::uint32_t wire = establish();
    g_seen.clear();
    bytes wrong_endian = context_request(wire);
    wrong_endian[1] = 0x00;
    const struct {
        std::uint32_t code;
        bytes req;
        const char* message;
    } cases[] = {
        {24, request().u32s({4, 1}).u32(3).u32(wire).build(), "bad handle"},
        {28, request().u32s({4, 1}).u32(0).build(), "bad handle"},
        {168, request().u32s({4, 1}).u32(4).build(), "provide"},
        {24, request().u32(4).build(), "provide"},
        {20, request().build(), "provide"},
        {20, {0x01, 0x10, 0x08}, "provide"},
        {28, wrong_endian, "wrong endianess"},
        {24, {}, "provide"},
    };
    for (const auto& c : cases) {
        try {
            call(c.code, c.req);
            ADD_FAILURE() << c.code << " did not fail";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), c.message) << c.code;
        }
    }
    EXPECT_TRUE(g_seen.empty());
    EXPECT_EQ(service().find_context(wire), SCARDCONTEXT{0x5000});
}

}  // namespace
