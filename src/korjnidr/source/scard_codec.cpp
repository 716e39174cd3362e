#include "scard_codec.h"

#include <algorithm>
#include <cstring>

namespace kor::jni {

std::uint32_t c_ndr_reader::read_header() {
    provide(1);  // version: any value
    if (read_u8() != 0x10) throw std::runtime_error("wrong endianess");
    provide(2);  // common header length
    provide(4);  // filler
    const std::uint32_t length = read_u32();
    provide(4);  // private header filler
    return length;
}

std::uint32_t c_ndr_reader::read_handle() {
    const std::uint32_t count = read_u32();
    if (count < 4) throw std::runtime_error("bad handle");
    const std::uint32_t id = read_u32();
    provide(count - 4);
    align_after(count - 4);
    return id;
}

void c_ndr_writer::append(const std::uint8_t* p, std::size_t n) {
    while (n) {
        std::uint8_t* dst;
        std::size_t room;
        if (more_.empty() && first_used_ < k_inline) {
            dst = first_ + k_headroom + first_used_;
            room = k_inline - first_used_;
        } else {
            if (more_.empty() || more_.back().size == more_.back().capacity) {
                c_segment s;
                s.capacity = std::max<std::size_t>(512, n);
                s.bytes.reset(new std::uint8_t[s.capacity]);
                more_.push_back(std::move(s));
            }
            c_segment& s = more_.back();
            dst = s.bytes.get() + s.size;
            room = s.capacity - s.size;
        }
        const std::size_t k = std::min(room, n);
        if (p) {
            std::memcpy(dst, p, k);
            p += k;
        } else {
            std::memset(dst, 0, k);
        }
        if (more_.empty())
            first_used_ += k;
        else
            more_.back().size += k;
        body_size_ += k;
        n -= k;
    }
}

void c_ndr_writer::write_zeros(std::size_t n) { append(nullptr, n); }

void c_ndr_writer::write_bytes(const void* p, std::size_t n) {
    if (n) append(static_cast<const std::uint8_t*>(p), n);
}

void c_ndr_writer::write_u16_units(const std::uint16_t* p, std::size_t n) {
    // Little-endian in chunks, so the units cost one append per 256 rather than one each.
    std::uint8_t chunk[512];
    while (n) {
        const std::size_t k = std::min<std::size_t>(n, sizeof chunk / 2);
        for (std::size_t i = 0; i < k; ++i) {
            chunk[2 * i] = static_cast<std::uint8_t>(p[i]);
            chunk[2 * i + 1] = static_cast<std::uint8_t>(p[i] >> 8);
        }
        append(chunk, 2 * k);
        p += k;
        n -= k;
    }
}

void c_ndr_writer::prepend_u32(std::uint32_t v) {
    // finish() prepends exactly 20 bytes, within the headroom. The count moves once per word: a
    // count bumped per byte would be read back after every byte store.
    front_size_ += 4;
    std::uint8_t* at = first_ + k_headroom - front_size_;
    at[0] = static_cast<std::uint8_t>(v);
    at[1] = static_cast<std::uint8_t>(v >> 8);
    at[2] = static_cast<std::uint8_t>(v >> 16);
    at[3] = static_cast<std::uint8_t>(v >> 24);
}

void c_ndr_writer::finish(std::uint32_t result) {
    prepend_u32(result);
    if (size() % 8) write_zeros(8 - size() % 8);
    const auto object_length = static_cast<std::uint32_t>(size());
    prepend_u32(0);
    prepend_u32(object_length);
    prepend_u32(0xCCCCCCCC);
    prepend_u32(0x00081001);  // 01 10 08 00: version 1, little-endian, common header length 8
}

void c_ndr_writer::copy_to(void* target, std::size_t capacity) const {
    if (capacity < size()) throw std::runtime_error("target buffer too small");
    auto* out = static_cast<std::uint8_t*>(target);
    const std::size_t head = front_size_ + first_used_;
    if (head) std::memcpy(out, first_ + k_headroom - front_size_, head);
    out += head;
    for (const c_segment& s : more_) {
        std::memcpy(out, s.bytes.get(), s.size);
        out += s.size;
    }
}

}  // namespace kor::jni
