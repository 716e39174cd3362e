// Dispatch by control code (unsupported and unknown codes, the upper half) and the context calls
// EstablishContext, ReleaseContext, IsValidContext and Cancel against fake PC/SC entries.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "scard_test_support.h"

namespace {

using namespace scard_test;

// What the fakes saw, in order: "<call> <handle>".
std::vector<std::string> g_seen;
LONG g_answer = 0;
SCARDCONTEXT g_next_context = 0x5000;

LONG seen(const char* what, unsigned long long handle) {
    char b[64];
    std::snprintf(b, sizeof b, "%s %llx", what, handle);
    g_seen.push_back(b);
    return g_answer;
}

class scard_dispatch : public service_fixture {
protected:
    void SetUp() override {
        service_fixture::SetUp();
        g_seen.clear();
        g_answer = 0;
        g_next_context = 0x5000;
        service().SCardEstablishContext = [](DWORD scope, LPCVOID r1, LPCVOID r2, LPSCARDCONTEXT ctx) {
            *ctx = g_next_context++;
            return seen(r1 || r2 ? "establish reserved" : "establish", scope);
        };
        service().SCardReleaseContext = [](SCARDCONTEXT c) { return seen("release", c); };
        service().SCardIsValidContext = [](SCARDCONTEXT c) { return seen("valid", c); };
        service().SCardCancel = [](SCARDCONTEXT c) { return seen("cancel", c); };
    }
};

// A reply with no body: header, ObjectBufferLength, filler, the result, then zeros.
bytes reply(std::uint8_t length, std::uint32_t result = 120) {
    bytes b = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, length, 0, 0, 0, 0, 0, 0, 0};
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(result >> (8 * i)));
    b.resize(16u + length, 0);
    return b;
}

TEST_F(scard_dispatch, unsupported_calls_answer_120_whatever_the_request) {
    const std::pair<std::uint32_t, std::uint8_t> cases[] = {
        {80, 8},   {84, 8},   {88, 8},   {92, 8},  {96, 8},   {100, 8},  {104, 8},  {108, 8},
        {112, 8},  {116, 8},  {120, 8},  {124, 8}, {152, 16}, {156, 16}, {196, 24}, {232, 16},
        {236, 16}, {240, 16}, {244, 16}, {248, 8}, {252, 8},  {256, 8}};
    for (const auto& [code, length] : cases) {
        EXPECT_EQ(call(code, {0xFF}), reply(length)) << code;
        EXPECT_EQ(call(0x00090000 | code, {}), reply(length)) << code;
    }
}

TEST_F(scard_dispatch, access_started_event_needs_four_bytes_of_anything) {
    EXPECT_EQ(call(224, {0xDE, 0xAD, 0xBE, 0xEF, 0x01}), reply(8, 0));
    for (std::size_t n = 0; n < 4; ++n) EXPECT_EQ(error_of(0x000900E0, bytes(n, 0x10)), "provide") << n;
}

TEST_F(scard_dispatch, unknown_codes_leave_reader_and_writer_alone) {
    for (std::uint32_t code : {0u, 22u, 228u, 260u, 0x00090104u, 0xFFFFu}) {
        const bytes req = {0x00};  // a known handler would fail on this
        kor::jni::c_ndr_reader in(req.data(), req.size());
        kor::jni::c_ndr_writer out;
        EXPECT_FALSE(kor::jni::scard_dispatch(1, code, in, out)) << code;
        EXPECT_EQ(out.size(), 0u);
        EXPECT_EQ(in.remaining(), 1u);
    }
}

TEST_F(scard_dispatch, a_missing_entry_answers_120_in_32_bytes_whatever_the_upper_half) {
    service().SCardEstablishContext = nullptr;
    for (std::uint32_t code : {0x14u, 0x00090014u, 0xFFFF0014u})
        EXPECT_EQ(call(code, request().u32(2).build()), reply(16));
    EXPECT_EQ(service().last_handle, 0u);
}

bytes context_request(std::uint32_t wire) { return request().u32s({4, 0x00020000}).handle(wire).build(); }

TEST_F(scard_dispatch, establish_numbers_with_cards_and_keeps_nothing_when_it_fails) {
    EXPECT_EQ(call(0x00090014, request().u32(2).build(), 7),
              (bytes{0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                     4,    0,    0,    0,    1,    0,    0,    0,    4,    0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(service().add_card(7, 0x77), 2u);
    EXPECT_EQ(u32_at(call(20, request().u32(0).build(), 9), 32), 3u);
    EXPECT_EQ(service().find_context_record(1), std::make_pair(std::int32_t{7}, SCARDCONTEXT{0x5000}));
    EXPECT_EQ(service().find_context_record(3), std::make_pair(std::int32_t{9}, SCARDCONTEXT{0x5001}));
    g_answer = static_cast<LONG>(0x8010001DL);
    EXPECT_EQ(call(20, request().u32(2).build()), reply(16, 0x8010001D));
    EXPECT_EQ(service().contexts.size(), 2u);
    EXPECT_EQ(g_seen, (std::vector<std::string>{"establish 2", "establish 0", "establish 2"}));
}

TEST_F(scard_dispatch, context_calls_translate_their_handle_or_send_all_ones) {
    const std::uint32_t wire = u32_at(call(20, request().u32(2).build()), 32);
    g_seen.clear();
    g_answer = static_cast<LONG>(0xFFFFFFFF80100003LL);  // 64-bit LONG: only the low half goes back
    EXPECT_EQ(call(28, context_request(wire)), reply(8, 0x80100003));
    g_answer = 0;
    call(168, context_request(wire));
    call(28, context_request(99));                                              // unknown
    call(28, request().u32s({0, 0}).build());                                   // null referent
    call(24, request().u32s({4, 1}).u32(8).u32(wire).u32(0xAABBCCDD).build());  // count 8: its first 4 bytes
    call(168, context_request(wire));                                           // released: unknown
    EXPECT_EQ(g_seen, (std::vector<std::string>{"valid 5000", "cancel 5000", "valid ffffffffffffffff",
                                                "valid ffffffffffffffff", "release 5000", "cancel ffffffffffffffff"}));
    EXPECT_TRUE(service().contexts.empty());
}

TEST_F(scard_dispatch, malformed_requests_fail_before_pcsc) {
    const std::uint32_t wire = u32_at(call(20, request().u32(2).build()), 32);
    g_seen.clear();
    bytes wrong_endian = context_request(wire);
    wrong_endian[1] = 0x00;
    const std::tuple<std::uint32_t, bytes, std::string> cases[] = {
        {24, request().u32s({4, 1}).u32(3).u32(wire).build(), "bad handle"},
        {28, request().u32s({4, 1}).u32(0).build(), "bad handle"},
        {168, request().u32s({4, 1}).u32(4).build(), "provide"},
        {24, request().u32(4).build(), "provide"},
        {20, request().build(), "provide"},
        {24, {}, "provide"},
        {28, wrong_endian, "wrong endianess"},
    };
    for (const auto& [code, req, message] : cases) EXPECT_EQ(error_of(code, req), message) << code;
    EXPECT_TRUE(g_seen.empty());
    EXPECT_EQ(service().find_context(wire), SCARDCONTEXT{0x5000});
}

}  // namespace
