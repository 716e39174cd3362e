#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kor_jnidr_scard.h"

using namespace kor::jni;

namespace {

using units = std::vector<std::uint16_t>;

// Widens `src` (n bytes) into a separate buffer or in place; one sentinel unit after the n units
// shows that nothing beyond them is written.
units widen(const std::string& src, bool in_place) {
    const auto n = static_cast<std::uint32_t>(src.size());
    units buffer(n + 1, 0xEEEE);
    if (in_place) {
        std::memcpy(buffer.data(), src.data(), n);
        widen_multistring(buffer.data(), reinterpret_cast<const char*>(buffer.data()), n);
    } else {
        widen_multistring(buffer.data(), src.data(), n);
    }
    return buffer;
}

}  // namespace

TEST(ScardText, WidenMultistring) {
    struct {
        std::string src;
        units expected;  // n units, then the untouched sentinel
    } const cases[] = {
        {std::string("G1\0G2\0\0", 7), {0x47, 0x31, 0, 0x47, 0x32, 0, 0, 0xEEEE}},
        // Bytes from 0x80 are sign-extended, so a name sent back narrowed reaches PC/SC unchanged.
        {std::string("R\xC3\x7F\x80\0\0", 6), {0x52, 0xFFC3, 0x7F, 0xFF80, 0, 0, 0xEEEE}},
        // No final double NUL within n: ended so that both terminators still fit.
        {std::string("AB\0C", 4), {0x41, 0x42, 0, 0, 0xEEEE}},
        {std::string("ABCD", 4), {0x41, 0x42, 0, 0, 0xEEEE}},
        // Units after the terminators are zero, not what the buffer held.
        {std::string("A\0\0xyz", 6), {0x41, 0, 0, 0, 0, 0, 0xEEEE}},
        {std::string("", 0), {0xEEEE}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(widen(c.src, false), c.expected) << c.src;
        EXPECT_EQ(widen(c.src, true), c.expected) << c.src;
    }
}

TEST(ScardText, NarrowStringKeepsLowBytesUpToFirstZeroUnit) {
    const units src = {0x0141, 0xFF42, 0x0031, 0, 0x0099};
    char out[8];
    std::memset(out, 0x55, sizeof out);
    narrow_string(out, src.data());
    EXPECT_EQ(std::string(out, 4), std::string("\x41\x42\x31\0", 4));
    EXPECT_EQ(out[4], 0x55);

    units in_place = src;
    auto* bytes = reinterpret_cast<char*>(in_place.data());
    narrow_string(bytes, in_place.data());
    EXPECT_STREQ(bytes, "AB1");

    const units empty = {0};
    narrow_string(out, empty.data());
    EXPECT_EQ(out[0], 0);
}
