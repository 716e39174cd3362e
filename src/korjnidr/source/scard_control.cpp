// Control (212), GetAttrib (216) and SetAttrib (220): calls that reach a connected card's reader.
// GetAttrib answers the reader's friendly name and the current protocol from the card service's
// reader records when PC/SC does not support those attributes.
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "scard_handler.h"

namespace kor::jni {
namespace {

// The wire sizes the input array by the length field that precedes it, so a length beyond the
// bytes received (or a length without an array) makes a malformed request. It is refused without
// a PC/SC call: cutting the length would hand the reader a different command than the peer sent.
bool length_fits(std::uint32_t length, std::uint32_t array_ref, const c_inline_buffer<2048>& array) {
    return length == 0 || (array_ref && length <= array.used);
}

// Allocate mode's pointer slot: whatever block PC/SC (or the fallback) stores there is freed on
// every way out.
struct c_block_slot {
    unsigned char* block = nullptr;
    ~c_block_slot() { std::free(block); }
    // How many of `length` bytes the block really holds. PC/SC allocates the block with malloc
    // (pcsc-lite's client library does), so the allocator knows its size: a length reported
    // beyond it is cut there rather than read past the block's end.
    std::uint32_t readable(std::uint32_t length) const {
        return block ? static_cast<std::uint32_t>(std::min<std::size_t>(length, malloc_usable_size(block))) : 0;
    }
};

void write_array_reply(c_ndr_writer& out, std::uint32_t n, const unsigned char* bytes) {
    out.write_u32(n);
    out.write_u32(k_referent);
    out.write_u32(n);
    if (bytes)
        out.write_bytes(bytes, n);
    else
        out.write_zeros(n);
}

// The value the fallback answers for `attr` from a reader record, in `value`; false for an
// attribute it does not answer or a card without a record.
bool fallback_value(c_scard_service& service, SCARDHANDLE card, std::uint32_t attr, c_inline_buffer<1024>& value) {
    if (attr != k_attr_friendly_name_a && attr != k_attr_friendly_name_w &&
        attr != k_attr_current_protocol)
        return false;
    std::uint32_t protocol = 0;
    c_inline_buffer<1024> name;
    if (!service.copy_reader(card, protocol, name)) return false;

    if (attr == k_attr_current_protocol) {
        value.allocate(4);
        for (int i = 0; i < 4; ++i) value.data[i] = static_cast<unsigned char>(protocol >> (8 * i));
        value.used = 4;
        return true;
    }
    const std::size_t length = std::strlen(name.chars());
    if (attr == k_attr_friendly_name_a) {
        value.allocate_zeroed(length + 2);  // the name and two terminators
        std::memcpy(value.data, name.data, length);
        value.used = length + 2;
        return true;
    }
    // Each byte sign-extended to a little-endian 16-bit unit, then two zero units.
    value.allocate_zeroed(2 * length + 4);
    for (std::size_t i = 0; i < length; ++i) {
        const std::uint16_t unit = widen_char(name.chars()[i]);
        value.data[2 * i] = static_cast<unsigned char>(unit);
        value.data[2 * i + 1] = static_cast<unsigned char>(unit >> 8);
    }
    value.used = 2 * length + 4;
    return true;
}

// SCardGetAttrib with the fallback. `length` goes in as the caller's size (0xFFFFFFFF with a
// non-null pbAttr asks for an allocated block, stored through pbAttr) and comes out as the value's
// length; returns the result code.
std::uint32_t get_attrib(c_scard_service& service, SCARDHANDLE card, std::uint32_t attr, unsigned char* pbAttr,
                         std::uint32_t& length) {
    const std::uint32_t requested = length;
    const bool allocate = requested == k_wire_autoallocate && pbAttr;
    DWORD len = allocate ? k_autoallocate : DWORD{requested};
    const std::uint32_t result = pcsc_result(service.SCardGetAttrib, card, DWORD{attr}, pbAttr, &len);
    length = static_cast<std::uint32_t>(len);
    if (result != k_scard_e_unsupported_feature) return result;

    c_inline_buffer<1024> value;
    if (!fallback_value(service, card, attr, value)) return result;
    const auto value_length = static_cast<std::uint32_t>(value.used);
    length = value_length;
    if (allocate) {
        void* block = std::malloc(value_length);
        if (!block) throw std::bad_alloc();
        std::memcpy(block, value.data, value_length);
        // pbAttr points at the caller's pointer slot. PC/SC may have stored a block there before
        // it answered 0x8010001F: it is freed as the new one takes its place.
        void* earlier;
        std::memcpy(&earlier, pbAttr, sizeof earlier);
        std::free(earlier);
        std::memcpy(pbAttr, &block, sizeof block);
        return 0;
    }
    if (requested < value_length) return k_scard_e_insufficient_buffer;
    if (pbAttr) std::memcpy(pbAttr, value.data, value_length);
    return 0;
}

}  // namespace

void scard_control(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = c_card_refs::read(in);
    const std::uint32_t control_code = in.read_u32();
    const std::uint32_t in_size = in.read_u32();
    const std::uint32_t in_ref = in.read_u32();
    const bool out_is_null = in.read_u32() != 0;
    const std::uint32_t out_len = std::min(in.read_u32(), k_max_buffer_length);
    const SCARDHANDLE card = refs.lookup(in);
    c_inline_buffer<2048> input;
    if (in_ref) in.read_byte_array(input);

    std::unique_ptr<unsigned char[]> output;
    DWORD returned = 0;
    std::uint32_t result = k_scard_e_invalid_parameter;
    if (length_fits(in_size, in_ref, input)) {
        // Zeroed, so a reader driver that reports more than it wrote cannot send stale heap bytes.
        if (!out_is_null) output.reset(new unsigned char[out_len]());
        result = pcsc_result(scard_service().SCardControl, card, DWORD{control_code}, in_ref ? input.data : nullptr,
                             DWORD{in_size}, output.get(), DWORD{out_len}, &returned);
    }

    // PC/SC cannot have returned more than the buffer holds; with no buffer the zeros sent in
    // its place are bounded by the channel's maximum, as in GetAttrib's length-only mode.
    const auto n = static_cast<std::uint32_t>(std::min<DWORD>(returned, out_is_null ? k_max_buffer_length : out_len));
    if (result == 0 && n > 0) {
        write_array_reply(out, n, output.get());
    } else {
        out.write_zero_fields(2);
    }
    out.finish(result);
}

void scard_get_attrib(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = c_card_refs::read(in);
    const std::uint32_t attr = in.read_u32();
    const bool length_only = in.read_u32() != 0;
    const std::uint32_t requested = in.read_u32();
    const SCARDHANDLE card = refs.lookup(in);

    const bool allocate = !length_only && requested == k_wire_autoallocate;
    c_inline_buffer<2048> buffer;
    c_block_slot slot;  // allocate mode
    unsigned char* pbAttr = nullptr;
    std::uint32_t length = requested;
    if (allocate) {
        pbAttr = reinterpret_cast<unsigned char*>(&slot.block);
    } else if (!length_only) {
        length = std::min(requested, k_max_buffer_length);
        pbAttr = buffer.allocate_zeroed(length);
    }

    const std::uint32_t result = get_attrib(scard_service(), card, attr, pbAttr, length);
    if (result == 0) {
        if (allocate) {
            write_array_reply(out, slot.readable(length), slot.block);
        } else if (length_only) {
            write_array_reply(out, std::min(length, k_max_buffer_length), nullptr);
        } else {
            write_array_reply(out, std::min<std::uint32_t>(length, static_cast<std::uint32_t>(buffer.capacity)),
                              buffer.data);
        }
    } else {
        out.write_zero_fields(2);
    }
    out.finish(result);
}

void scard_set_attrib(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = c_card_refs::read(in);
    const std::uint32_t attr = in.read_u32();
    const std::uint32_t attr_len = in.read_u32();
    const std::uint32_t attr_ref = in.read_u32();
    const SCARDHANDLE card = refs.lookup(in);
    c_inline_buffer<2048> value;
    if (attr_ref) in.read_byte_array(value);

    const std::uint32_t result =
        length_fits(attr_len, attr_ref, value)
            ? pcsc_result(scard_service().SCardSetAttrib, card, DWORD{attr}, attr_ref ? value.data : nullptr,
                          DWORD{attr_len})
            : k_scard_e_invalid_parameter;
    out.finish(result);
}

}  // namespace kor::jni
