// NDR subset of the smart card channel: a bounds-checked request cursor and a reply builder that
// frames the body with the type-serialization header without moving it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "jni_support.h"

namespace kor::jni {

class c_ndr_reader {
public:
    c_ndr_reader(const void* data, std::size_t length) noexcept
        : cur(static_cast<const std::uint8_t*>(data)), end(cur + length) {}

    // Reads the 16-byte request header; returns ObjectBufferLength (not checked against the data).
    std::uint32_t read_header();

    // The one way to move: checks that n bytes remain, steps over them and returns where they start.
    const std::uint8_t* take(std::uint32_t n) { return take_units(n, 1); }
    // A counted read: `count` units of `unit_size` bytes. The product is formed in 64 bits, so it
    // cannot wrap, and is checked against what remains before the caller allocates anything for
    // the units: a hostile count fails "provide" instead of allocating gigabytes.
    const std::uint8_t* take_units(std::uint32_t count, std::uint32_t unit_size) {
        const std::uint64_t n = std::uint64_t{count} * unit_size;
        if (remaining() < n) throw std::runtime_error("provide");
        const std::uint8_t* at = cur;
        cur += n;
        return at;
    }
    void provide(std::uint32_t n) { take(n); }
    void skip_u32() { take(4); }
    std::uint8_t read_u8() { return *take(1); }
    std::uint32_t read_u32() {
        const std::uint8_t* p = take(4);
        return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
               std::uint32_t{p[3]} << 24;
    }
    // Steps over the pad that follows n bytes of array data.
    void align_after(std::uint32_t n) {
        if (n % 4) take(4 - n % 4);
    }
    // Deferred array of a context or card handle; returns the wire id in its first four bytes.
    std::uint32_t read_handle();

    // Conformant byte array into `buffer` (buffer.used = count); counted before the allocation.
    template <std::size_t N>
    void read_byte_array(c_inline_buffer<N>& buffer) {
        const std::uint32_t count = read_u32();
        const std::uint8_t* bytes = take(count);
        buffer.allocate(count);
        if (count) std::memcpy(buffer.data, bytes, count);
        buffer.used = count;
        align_after(count);
    }
    // A conformant array read only to be discarded: its byte count, the whole units of
    // `unit_size` bytes within it, and the pad after the count. Nothing is allocated.
    void skip_array(std::uint32_t unit_size) {
        const std::uint32_t count = read_u32();
        take_units(count / unit_size, unit_size);
        align_after(count);
    }

    std::size_t remaining() const noexcept { return static_cast<std::size_t>(end - cur); }

private:
    const std::uint8_t* cur;
    const std::uint8_t* end;
};

// Reply builder. The body is appended behind a fixed headroom of the first (inline) segment, so
// finish() prepends the return code and the header without moving the body; bodies larger than
// the inline segment continue in heap segments of at least 512 bytes, never moving either.
class c_ndr_writer {
public:
    c_ndr_writer() noexcept = default;
    c_ndr_writer(const c_ndr_writer&) = delete;
    c_ndr_writer& operator=(const c_ndr_writer&) = delete;

    void write_zeros(std::size_t n);
    void write_u32(std::uint32_t v) {
        std::uint8_t b[4];
        // The common case stores straight into the inline segment, without a call or a copy.
        const bool inline_room = more_.empty() && first_used_ + 4 <= k_inline;
        std::uint8_t* at = inline_room ? first_ + k_headroom + first_used_ : b;
        at[0] = static_cast<std::uint8_t>(v);
        at[1] = static_cast<std::uint8_t>(v >> 8);
        at[2] = static_cast<std::uint8_t>(v >> 16);
        at[3] = static_cast<std::uint8_t>(v >> 24);
        if (!inline_room) return write_bytes(b, 4);
        first_used_ += 4;
        body_size_ += 4;
    }
    void write_bytes(const void* p, std::size_t n);
    // n u32 fields of zero: the counts and null pointers of a failed call's return structure.
    void write_zero_fields(std::size_t n) { write_zeros(4 * n); }
    void write_u16_units(const std::uint16_t* p, std::size_t n);
    void pad_to_4() {
        if (size() % 4) write_zeros(4 - size() % 4);
    }
    // Bytes written so far: the body before finish(), the whole reply after it.
    std::size_t size() const noexcept { return front_size_ + body_size_; }

    // Prepends the return code, pads to a multiple of 8 and prepends the header.
    void finish(std::uint32_t result);
    void copy_to(void* target, std::size_t capacity) const;
    // Hands the bytes written so far to sink(pointer, count) in order, where they lie (no copy).
    template <class Sink>
    void for_each_piece(Sink&& sink) const {
        if (front_size_ + first_used_) sink(first_ + k_headroom - front_size_, front_size_ + first_used_);
        for (const c_segment& s : more_) sink(s.bytes.get(), s.size);
    }

private:
    static constexpr std::size_t k_headroom = 24;
    static constexpr std::size_t k_inline = 4096;

    void prepend_u32(std::uint32_t v);
    // Appends n bytes: copies them from p, or zero-fills when p is null.
    void append(const std::uint8_t* p, std::size_t n);

    struct c_segment {
        std::unique_ptr<std::uint8_t[]> bytes;
        std::size_t size = 0;
        std::size_t capacity = 0;
    };

    // The counts come before first_ (after it, they would lie 4 KiB past the first body bytes,
    // where the processor mistakes reading them for reading bytes just written), and body_size_
    // and first_used_ are not neighbours, so that the compiler does not update them as one 16-byte
    // pair, which the processor cannot forward from their separate 8-byte stores.
    std::size_t front_size_ = 0;   // bytes prepended, ending at first_ + k_headroom
    std::size_t body_size_ = 0;    // all appended bytes, in first_ and the segments
    std::vector<c_segment> more_;  // heap segments, only for bodies beyond k_inline
    std::size_t first_used_ = 0;   // appended bytes held in first_
    std::uint8_t first_[k_headroom + k_inline];
};

}  // namespace kor::jni
