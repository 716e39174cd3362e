// The NDR reader's bounds and the writer's framing; the handlers' replies, text conversions
// included, are checked byte for byte by the data cases.
#include <string>

#include "scard_test_support.h"

namespace {

using namespace kor::jni;
using scard_test::bytes;

// Runs `read` over `data`; returns the failure's message ("" for none) and the bytes consumed.
template <class Read>
std::pair<std::string, std::size_t> read_of(const bytes& data, Read read) {
    c_ndr_reader r(data.data(), data.size());
    try {
        read(r);
    } catch (const std::runtime_error& e) {
        return {e.what(), 0};
    }
    return {"", data.size() - r.remaining()};
}

TEST(NdrReader, EveryReadChecksWhatRemains) {
    const auto header = [](c_ndr_reader& r) { EXPECT_EQ(r.read_header(), 0x12345678u); };
    const auto handle = [](c_ndr_reader& r) { EXPECT_EQ(r.read_handle(), 7u); };
    c_inline_buffer<2048> buf;
    const auto array = [&](c_ndr_reader& r) { r.read_byte_array(buf); };
    using result = std::pair<std::string, std::size_t>;
    // Any version, header length and filler; only the endianness byte is checked.
    EXPECT_EQ(read_of({0x7F, 0x10, 0xAB, 0xCD, 0, 0, 0, 0, 0x78, 0x56, 0x34, 0x12, 9, 9, 9, 9}, header),
              result("", 16));
    EXPECT_EQ(read_of({0x01}, header), result("provide", 0));
    EXPECT_EQ(read_of({0x01, 0x10, 0x08, 0x00, 0xCC}, header), result("provide", 0));
    EXPECT_EQ(read_of({0x01, 0x00, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0, 0, 0, 0, 0, 0, 0, 0}, header),
              result("wrong endianess", 0));
    // Handle arrays: the bytes beyond the first four and the pad are stepped over.
    EXPECT_EQ(read_of({4, 0, 0, 0, 7, 0, 0, 0, 0xEE}, handle), result("", 8));
    EXPECT_EQ(read_of({5, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 0xEE}, handle), result("", 12));
    EXPECT_EQ(read_of({6, 0, 0, 0, 7, 0, 0, 0, 1, 2, 0, 0, 0xEE}, handle), result("", 12));
    EXPECT_EQ(read_of({3, 0, 0, 0, 7, 0, 0, 0}, handle), result("bad handle", 0));
    EXPECT_EQ(read_of({0, 0, 0, 0}, handle), result("bad handle", 0));
    EXPECT_EQ(read_of({0xFF, 0xFF, 0xFF, 0xFF, 7, 0, 0, 0}, handle), result("provide", 0));
    // Byte arrays: count, bytes, pad; a count beyond the bytes fails before any allocation.
    EXPECT_EQ(read_of({5, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 0, 0, 0, 0xEE}, array), result("", 12));
    EXPECT_EQ(std::string(buf.chars(), buf.used), "abcde");
    EXPECT_EQ(read_of({0, 0, 0, 0, 0xEE}, array), result("", 4));
    EXPECT_EQ(buf.used, 0u);
    EXPECT_EQ(read_of({0xF0, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4}, array), result("provide", 0));
    // Counted reads: the product is not cut to 32 bits (0x80000001 units of 2 are not 2 bytes).
    EXPECT_EQ(read_of({1, 0, 2, 0}, [](c_ndr_reader& r) { r.take_units(0x80000001u, 2); }), result("provide", 0));
    EXPECT_EQ(read_of({1, 0, 2, 0}, [](c_ndr_reader& r) { r.take_units(2, 2); }), result("", 4));
    // Discarded arrays: whole units only, then the pad after the byte count.
    const auto skip = [](std::uint32_t unit) { return [unit](c_ndr_reader& r) { r.skip_array(unit); }; };
    EXPECT_EQ(read_of({5, 0, 0, 0, 1, 2, 3, 4, 0, 0, 0, 0xEE}, skip(2)), result("", 11));
    EXPECT_EQ(read_of({5, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0}, skip(1)), result("", 12));
    EXPECT_EQ(read_of({9, 0, 0, 0, 1, 2, 3, 4}, skip(1)), result("provide", 0));
    // Each width.
    EXPECT_EQ(read_of({1, 2, 3}, [](c_ndr_reader& r) { r.read_u32(); }), result("provide", 0));
    EXPECT_EQ(read_of({}, [](c_ndr_reader& r) { r.read_u8(); }), result("provide", 0));
    EXPECT_EQ(read_of({1, 2, 3}, [](c_ndr_reader& r) { r.provide(0xFFFFFFFFu); }), result("provide", 0));
}

// Bodies within the inline segment and across heap segments keep their order and get their pad;
// the copy never writes past its target. (The header of small replies is checked by the data cases.)
TEST(NdrWriter, FramesPadsAndCopiesWithinBounds) {
    for (const std::size_t body : {0, 13, 5000, 9000}) {
        c_ndr_writer w;
        bytes content(body);
        for (std::size_t i = 0; i < body; ++i) content[i] = static_cast<std::uint8_t>(i * 7);
        for (std::size_t i = 0; i < body; i += 7) w.write_bytes(content.data() + i, std::min<std::size_t>(7, body - i));
        w.pad_to_4();
        ASSERT_EQ(w.size(), (body + 3) / 4 * 4) << body;
        w.finish(0x80100008u);
        const bytes reply = scard_test::reply_bytes(w);
        const std::size_t object_length = (4 + body + 7) / 8 * 8;
        ASSERT_EQ(reply.size(), 16 + object_length) << body;
        EXPECT_EQ(scard_test::u32_at(reply, 8), object_length);
        for (std::size_t i = 0; i < body; ++i) ASSERT_EQ(reply[20 + i], static_cast<std::uint8_t>(i * 7)) << i;
        for (std::size_t i = 20 + body; i < reply.size(); ++i) EXPECT_EQ(reply[i], 0) << "pad byte " << i;
        bytes short_target(reply.size() - 1);
        EXPECT_THROW(w.copy_to(short_target.data(), short_target.size()), std::runtime_error);
    }
}

}  // namespace
