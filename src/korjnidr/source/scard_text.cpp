#include <cstring>

#include "kor_jnidr_scard.h"

namespace kor::jni {

void widen_multistring(std::uint16_t* dst, const char* src, std::uint32_t n) {
    // Content ends at the first double NUL, and never later than n - 2 so that the two final
    // NULs still fit in n units even when PC/SC sent a malformed multi-string.
    const std::uint32_t limit = n >= 2 ? n - 2 : 0;
    std::uint32_t k = 0;
    while (k < limit && !(src[k] == 0 && src[k + 1] == 0)) ++k;
    // Backwards, so that widening in place only overwrites bytes already read. Every unit up to n
    // is written: units past the terminators are zero rather than stale buffer contents.
    for (std::uint32_t i = n; i-- > 0;) {
        const std::uint16_t unit = i < k ? widen_char(src[i]) : 0;
        std::memcpy(reinterpret_cast<char*>(dst) + 2 * std::size_t{i}, &unit, sizeof unit);
    }
}

void narrow_string(char* dst, const std::uint16_t* src) {
    // Byte i is written after unit i (at 2i) was read, so narrowing in place is safe.
    std::size_t i = 0;
    for (;; ++i) {
        std::uint16_t unit;
        std::memcpy(&unit, reinterpret_cast<const char*>(src) + 2 * i, sizeof unit);
        if (unit == 0) break;
        dst[i] = static_cast<char>(unit & 0xFF);
    }
    dst[i] = 0;
}

}  // namespace kor::jni
