#include "scard_codec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scard_test_support.h"

using namespace kor::jni;
using scard_test::bytes;

namespace {

std::string failure_of(const bytes& data, void (*read)(c_ndr_reader&)) {
    c_ndr_reader r(data.data(), data.size());
    try {
        read(r);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(NdrReader, HeaderFailures) {
    auto header = [](c_ndr_reader& r) { r.read_header(); };
    EXPECT_EQ(failure_of({0x01}, header), "provide");
    EXPECT_EQ(failure_of({0x01, 0x10, 0x08, 0x00, 0xCC}, header), "provide");
    EXPECT_EQ(failure_of({0x01, 0x00, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0, 0, 0, 0, 0, 0, 0, 0}, header),
              "wrong endianess");
    // Any version, header length and filler are accepted; ObjectBufferLength is returned as sent.
    const bytes odd = {0x7F, 0x10, 0xAB, 0xCD, 0, 0, 0, 0, 0x78, 0x56, 0x34, 0x12, 9, 9, 9, 9};
    c_ndr_reader r(odd.data(), odd.size());
    EXPECT_EQ(r.read_header(), 0x12345678u);
    EXPECT_EQ(r.remaining(), 0u);
}

TEST(NdrReader, HandlesAndArraysConsumeTheirPadding) {
    struct {
        bytes data;
        std::size_t consumed;  // 0: must fail "bad handle"
    } const handles[] = {
        {{4, 0, 0, 0, 7, 0, 0, 0, 0xEE}, 8},
        {{6, 0, 0, 0, 7, 0, 0, 0, 1, 2, 0, 0, 0xEE}, 12},
        {{5, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 0xEE}, 12},
        {{8, 0, 0, 0, 7, 0, 0, 0, 1, 2, 3, 4, 0xEE}, 12},
        {{3, 0, 0, 0, 7, 0, 0, 0}, 0},
        {{0, 0, 0, 0}, 0},
    };
    for (const auto& c : handles) {
        if (c.consumed == 0) {
            EXPECT_EQ(failure_of(c.data, [](c_ndr_reader& r) { r.read_handle(); }), "bad handle");
            continue;
        }
        c_ndr_reader r(c.data.data(), c.data.size());
        EXPECT_EQ(r.read_handle(), 7u);
        EXPECT_EQ(c.data.size() - r.remaining(), c.consumed);
    }

    const bytes five = {5, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 0, 0, 0, 0xEE, 0, 0, 0, 0};
    c_ndr_reader r(five.data(), five.size());
    c_inline_buffer<2048> buf;
    r.read_byte_array(buf);
    EXPECT_EQ(std::string(buf.chars(), buf.used), "abcde");
    EXPECT_EQ(r.remaining(), 5u);
    r.provide(1);
    r.read_byte_array(buf);  // count 0: four bytes, an empty buffer
    EXPECT_EQ(buf.used, 0u);
    EXPECT_EQ(r.remaining(), 0u);
}

TEST(NdrReader, HostileCountsFailBeforeAllocating) {
    // 0xFFFFFFF0 bytes claimed, 4 present: must fail "provide", not allocate 4 GiB.
    auto array = [](c_ndr_reader& r) {
        c_inline_buffer<2048> buf;
        r.read_byte_array(buf);
    };
    EXPECT_EQ(failure_of({0xF0, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4}, array), "provide");
    EXPECT_EQ(failure_of({0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 0, 0}, [](c_ndr_reader& r) { r.read_handle(); }),
              "provide");
    auto units = [](c_ndr_reader& r) { r.take_units(0x80000001u, 2); };
    EXPECT_EQ(failure_of({1, 0, 2, 0}, units), "provide");
    // Each width checks what remains.
    EXPECT_EQ(failure_of({1, 2, 3}, [](c_ndr_reader& r) { r.read_u32(); }), "provide");
    EXPECT_EQ(failure_of({1}, [](c_ndr_reader& r) { r.read_u16(); }), "provide");
    EXPECT_EQ(failure_of({}, [](c_ndr_reader& r) { r.read_u8(); }), "provide");
    EXPECT_EQ(failure_of({1, 2, 3}, [](c_ndr_reader& r) { r.provide(0xFFFFFFFFu); }), "provide");
}

TEST(NdrWriter, FinishFramesAndPads) {
    struct {
        std::size_t body;
        std::uint32_t object_length;
    } const sizes[] = {{0, 8}, {4, 8}, {8, 16}, {12, 16}, {13, 24}, {5000, 5008}, {9000, 9008}};
    for (const auto& c : sizes) {
        c_ndr_writer w;
        for (std::size_t i = 0; i < c.body; ++i) w.write_u8(static_cast<std::uint8_t>(i * 7));
        w.finish(0x80100008u);
        const bytes reply = scard_test::reply_bytes(w);
        ASSERT_EQ(reply.size(), 16 + c.object_length) << "body " << c.body;
        EXPECT_EQ(bytes(reply.begin(), reply.begin() + 8), (bytes{1, 0x10, 8, 0, 0xCC, 0xCC, 0xCC, 0xCC}));
        EXPECT_EQ(scard_test::u32_at(reply, 8), c.object_length);
        EXPECT_EQ(scard_test::u32_at(reply, 12), 0u);
        EXPECT_EQ(scard_test::result_of(reply), 0x80100008u);
        for (std::size_t i = 0; i < c.body; ++i)
            ASSERT_EQ(reply[20 + i], static_cast<std::uint8_t>(i * 7)) << "body byte " << i;
        for (std::size_t i = 20 + c.body; i < reply.size(); ++i) EXPECT_EQ(reply[i], 0) << "pad byte " << i;
    }

    c_ndr_writer empty;
    empty.finish(0);
    EXPECT_EQ(scard_test::reply_bytes(empty),
              (bytes{1, 0x10, 8, 0, 0xCC, 0xCC, 0xCC, 0xCC, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    c_ndr_writer one;
    one.write_u32(0);
    one.finish(120);
    EXPECT_EQ(scard_test::body_of(scard_test::reply_bytes(one)), (bytes{0, 0, 0, 0}));
    EXPECT_EQ(scard_test::result_of(scard_test::reply_bytes(one)), 120u);
}

TEST(NdrWriter, PaddingUnitsAndCopyBounds) {
    c_ndr_writer w;
    w.write_zeros(12);
    w.pad_to_4();
    EXPECT_EQ(w.size(), 12u);
    w.write_u8(1);
    w.pad_to_4();
    EXPECT_EQ(w.size(), 16u);
    const std::uint16_t units[] = {0x0052, 0xFFC3};
    w.write_u16_units(units, 2);
    w.write_u32(0x04030201);
    const bytes body = scard_test::reply_bytes(w);
    EXPECT_EQ(bytes(body.begin() + 16, body.end()), (bytes{0x52, 0, 0xC3, 0xFF, 1, 2, 3, 4}));

    bytes target(w.size());
    EXPECT_NO_THROW(w.copy_to(target.data(), target.size()));
    try {
        w.copy_to(target.data(), target.size() - 1);
        FAIL() << "copy_to accepted a short target";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "target buffer too small");
    }
}
