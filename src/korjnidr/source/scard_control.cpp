// Control (212), GetAttrib (216) and SetAttrib (220): calls that reach a connected card's reader.
// GetAttrib answers the reader's friendly name and the current protocol from the card service's
// reader records when PC/SC does not support those attributes.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "kor_jnidr_scard.h"

namespace kor::jni {
namespace {

constexpr std::uint32_t k_scard_e_invalid_parameter = 0x80100004;
constexpr std::uint32_t k_scard_e_unsupported_feature = 0x8010001F;  // pcsc-lite's value
constexpr std::uint32_t k_attr_friendly_name_a = 0x7FFF0003;
constexpr std::uint32_t k_attr_friendly_name_w = 0x7FFF0005;
constexpr std::uint32_t k_attr_current_protocol = 0x00080201;
constexpr std::uint32_t k_autoallocate = 0xFFFFFFFF;

// Output sizes come from the request and decide an allocation before PC/SC is asked. They are
// cut to the largest buffer the channel declares for these calls (64 KiB + 1 KiB), and PC/SC is
// told the cut size: a larger answer then comes back as PC/SC's insufficient-buffer code instead
// of a hostile length allocating gigabytes.
constexpr std::uint32_t k_max_out_len = 66560;

// The REDIR_SCARDHANDLE fixed part that the three calls begin with.
struct c_card_refs {
    std::uint32_t context_ref;
    std::uint32_t card_ref;
};

c_card_refs read_card_refs(c_ndr_reader& in) {
    in.read_header();
    in.skip_u32();  // cbContext
    const std::uint32_t context_ref = in.read_u32();
    in.skip_u32();  // cbHandle
    return {context_ref, in.read_u32()};
}

// The handle arrays: the context's is read and not used; the card's selects the card.
SCARDHANDLE read_card(c_ndr_reader& in, const c_card_refs& refs) {
    if (refs.context_ref) in.read_handle();
    return refs.card_ref ? scard_service().find_card(in.read_handle()) : k_no_handle;
}

// The wire sizes the input array by the length field that precedes it, so a length beyond the
// bytes received (or a length without an array) makes a malformed request. It is refused without
// a PC/SC call: cutting the length would hand the reader a different command than the peer sent.
bool length_fits(std::uint32_t length, std::uint32_t array_ref, const c_inline_buffer<2048>& array) {
    return length == 0 || (array_ref && length <= array.used);
}

struct c_free_on_exit {
    unsigned char* block = nullptr;
    ~c_free_on_exit() { std::free(block); }
};

void write_array_reply(c_ndr_writer& out, std::uint32_t n, const unsigned char* bytes) {
    out.write_u32(n);
    out.write_u32(1);
    out.write_u32(n);
    if (bytes)
        out.write_bytes(bytes, n);
    else
        out.write_zeros(n);
}

// The value the fallback answers for `attr` from a reader record, in `value`; false for an
// attribute it does not answer or a card without a record.
bool fallback_value(c_scard_service& service, SCARDHANDLE card, std::uint32_t attr, c_inline_buffer<1024>& value) {
    if (attr != k_attr_friendly_name_a && attr != k_attr_friendly_name_w && attr != k_attr_current_protocol)
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
        const auto unit = static_cast<std::uint16_t>(static_cast<std::int16_t>(static_cast<signed char>(name.data[i])));
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
    const bool allocate = requested == k_autoallocate && pbAttr;
    DWORD len = allocate ? ~DWORD{0} : DWORD{requested};
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
        std::memcpy(pbAttr, &block, sizeof block);  // pbAttr points at the caller's pointer slot
        return 0;
    }
    if (requested < value_length) return k_scard_e_insufficient_buffer;
    if (pbAttr) std::memcpy(pbAttr, value.data, value_length);
    return 0;
}

}  // namespace

void scard_control(c_ndr_reader& in, c_ndr_writer& out) {
    const c_card_refs refs = read_card_refs(in);
    const std::uint32_t control_code = in.read_u32();
    const std::uint32_t in_size = in.read_u32();
    const std::uint32_t in_ref = in.read_u32();
    const bool out_is_null = in.read_u32() != 0;
    const std::uint32_t out_len = std::min(in.read_u32(), k_max_out_len);
    const SCARDHANDLE card = read_card(in, refs);
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
    const auto n = static_cast<std::uint32_t>(std::min<DWORD>(returned, out_is_null ? k_max_out_len : out_len));
    if (result == 0 && n > 0) {
        write_array_reply(out, n, output.get());
    } else {
        out.write_zero_fields(2);
    }
    out.finish(result);
}

void scard_get_attrib(c_ndr_reader& in, c_ndr_writer& out) {
    const c_card_refs refs = read_card_refs(in);
    const std::uint32_t attr = in.read_u32();
    const bool length_only = in.read_u32() != 0;
    const std::uint32_t requested = in.read_u32();
    const SCARDHANDLE card = read_card(in, refs);

    const bool allocate = !length_only && requested == k_autoallocate;
    c_inline_buffer<2048> buffer;
    c_free_on_exit slot;  // allocate mode: the block that PC/SC or the fallback stores
    unsigned char* pbAttr = nullptr;
    std::uint32_t length = requested;
    if (allocate) {
        pbAttr = reinterpret_cast<unsigned char*>(&slot.block);
    } else if (!length_only) {
        length = std::min(requested, k_max_out_len);
        pbAttr = buffer.allocate_zeroed(length);
    }

    const std::uint32_t result = get_attrib(scard_service(), card, attr, pbAttr, length);
    if (result == 0) {
        if (allocate) {
            write_array_reply(out, slot.block ? length : 0, slot.block);
        } else if (length_only) {
            write_array_reply(out, std::min(length, k_max_out_len), nullptr);
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
    const c_card_refs refs = read_card_refs(in);
    const std::uint32_t attr = in.read_u32();
    const std::uint32_t attr_len = in.read_u32();
    const std::uint32_t attr_ref = in.read_u32();
    const SCARDHANDLE card = read_card(in, refs);
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
