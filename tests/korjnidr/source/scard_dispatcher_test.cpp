// Dispatch by control code: unsupported calls, AccessStartedEvent, unknown codes.
#include <gtest/gtest.h>

#include "scard_test_support.h"

namespace {

using namespace scard_test;
using kor::jni::c_ndr_reader;
using kor::jni::c_ndr_writer;

class scard_dispatcher : public service_fixture {};

// Header, ObjectBufferLength, result 120, `zeros` zero words, pad to 8.
bytes unsupported_reply(int zeros) {
    const std::uint32_t body = 4 + 4 * static_cast<std::uint32_t>(zeros);
    const std::uint32_t l = (body + 7) / 8 * 8;
    bytes b = {0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, static_cast<std::uint8_t>(l), 0, 0, 0, 0, 0, 0, 0,
               0x78, 0, 0, 0};
    b.resize(16 + l, 0);
    return b;
}

TEST_F(scard_dispatcher, unsupported_calls_answer_120_with_zeroed_return) {
    const struct {
        std::uint32_t code;
        int zeros;
    } cases[] = {{80, 0},  {84, 0},  {88, 0},  {92, 0},  {96, 0},  {100, 0}, {104, 0}, {108, 0},
                 {112, 0}, {116, 0}, {120, 0}, {124, 0}, {152, 2}, {156, 2}, {196, 4}, {232, 2},
                 {236, 2}, {240, 2}, {244, 2}, {248, 0}, {252, 0}, {256, 1}};
    // Garbage request: these handlers read nothing.
    const bytes junk = {0xFF};
    for (const auto& c : cases) {
        EXPECT_EQ(call(c.code, junk), unsupported_reply(c.zeros)) << c.code;
        EXPECT_EQ(call(0x00090000 | c.code, {}), unsupported_reply(c.zeros)) << c.code;
    }
    EXPECT_EQ(call(96, junk), (bytes{0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0x08, 0, 0, 0, 0, 0, 0, 0,
                                     0x78, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(call(196, junk).size(), 40u);
    EXPECT_EQ(u32_at(call(152, junk), 8), 16u);
}

TEST_F(scard_dispatcher, access_started_event_needs_four_bytes_of_anything) {
    const bytes ok = call(224, {0xDE, 0xAD, 0xBE, 0xEF, 0x01});
    EXPECT_EQ(ok, (bytes{0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0x08, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                         0, 0, 0}));
    for (std::size_t n = 0; n < 4; ++n) {
        const bytes req(n, 0x10);
        EXPECT_THROW(
            {
                try {
                    call(0x000900E0, req);
                } catch (const std::runtime_error& e) {
                    EXPECT_STREQ(e.what(), "provide");
                    throw;
                }
            },
            std::runtime_error)
            << n;
    }
}

TEST_F(scard_dispatcher, unknown_codes_leave_the_writer_empty) {
    for (std::uint32_t code : {0u, 228u, 260u, 22u, 0x00090104u, 0xFFFFu}) {
        const bytes req = {0x00};  // a known handler would fail on this
        c_ndr_reader in(req.data(), req.size());
        c_ndr_writer out;
        EXPECT_FALSE(kor::jni::scard_dispatch(1, code, in, out)) << code;
        EXPECT_EQ(out.size(), 0u);
        EXPECT_EQ(in.remaining(), 1u);
    }
}

TEST_F(scard_dispatcher, upper_sixteen_bits_are_ignored) {
    // A missing EstablishContext entry: the 32-byte reply of result 120, whatever the upper half.
    const bytes req = request().u32(2).build();
    const bytes plain = call(20, req);
    ASSERT_EQ(plain.size(), 32u);
    EXPECT_EQ(result_of(plain), 120u);
    EXPECT_EQ(call(0x00090014, req), plain);
    EXPECT_EQ(call(0xFFFF0014, req), plain);
}

}  // namespace
