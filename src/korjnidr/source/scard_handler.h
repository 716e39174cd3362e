// What the call handlers share: PC/SC's codes and the channel's limits, the decoders of the
// context and card arguments, and the character width of the A and W calls as a type.
#pragma once

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"  // pcsc-lite's reader.h declares zero-size arrays
#include <reader.h>                          // SCARD_ATTR_*
#pragma GCC diagnostic pop

#include <algorithm>
#include <cstdint>
#include <utility>

#include "kor_jnidr_scard.h"

namespace kor::jni {

// ---- codes and limits ----------------------------------------------------------------------------

// PC/SC's values that the handlers use, from its headers; a handler sends the low 32 bits of
// PC/SC's LONG result. (pcsc-lite's macros are C casts, hence the pragma.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
constexpr std::uint32_t k_scard_e_invalid_parameter = SCARD_E_INVALID_PARAMETER;
constexpr std::uint32_t k_scard_e_insufficient_buffer = SCARD_E_INSUFFICIENT_BUFFER;
// pcsc-lite gives these two meanings one value, 0x8010001F.
constexpr std::uint32_t k_scard_e_unexpected = SCARD_E_UNEXPECTED;
constexpr std::uint32_t k_scard_e_unsupported_feature = SCARD_E_UNSUPPORTED_FEATURE;
constexpr std::uint32_t k_attr_friendly_name_a = SCARD_ATTR_DEVICE_FRIENDLY_NAME_A;
constexpr std::uint32_t k_attr_friendly_name_w = SCARD_ATTR_DEVICE_FRIENDLY_NAME_W;
constexpr std::uint32_t k_attr_current_protocol = SCARD_ATTR_CURRENT_PROTOCOL_TYPE;
// A buffer of whatever size is needed: all bits set in PC/SC's DWORD. The peer asks for it with
// a requested length of 0xFFFFFFFF, the same value in the wire's 32 bits.
constexpr DWORD k_autoallocate = SCARD_AUTOALLOCATE;
#pragma GCC diagnostic pop
constexpr std::uint32_t k_wire_autoallocate = static_cast<std::uint32_t>(k_autoallocate);

// The channel's largest buffers. Output sizes come from the request and decide an allocation
// before PC/SC is asked, so they are cut to these and PC/SC is told the cut size: a larger answer
// comes back as PC/SC's insufficient-buffer code instead of a hostile length allocating gigabytes.
// - cbRecvLength (Transmit), cbOutBufferSize (Control) and cbAttrLen (GetAttrib): 0..66,560.
constexpr std::uint32_t k_max_buffer_length = 66560;
// - the length of a multi-string (listing cBytes, Status names): 0..65,536.
constexpr std::uint32_t k_max_multistring = 65536;

// A wire handle in a reply: length 4 and a referent in the fixed part, count 4 and the handle in
// the deferred array.
constexpr std::uint32_t k_handle_length = 4;
// Non-null pointers in replies; Transmit's receive buffer has its own referent id.
constexpr std::uint32_t k_referent = 1;
constexpr std::uint32_t k_recv_referent = 2;

// Reader states of GetStatusChange travel as 52 bytes with a 36-byte ATR field, of which PC/SC's
// SCARD_READERSTATE keeps MAX_ATR_SIZE (33).
constexpr std::uint32_t k_wire_state_size = 52;
constexpr std::uint32_t k_wire_state_atr = 36;
// Status_Return's ATR field, and the card state it always reports (SCARD_SPECIFIC in the peer's
// numbering, not PC/SC's).
constexpr std::uint32_t k_status_atr_field = 32;
constexpr std::uint32_t k_wire_state_specific = 6;
// The peer's number for the raw protocol (PC/SC's SCARD_PROTOCOL_RAW).
constexpr std::uint32_t k_wire_protocol_raw = 0x00010000;

// ---- arguments -----------------------------------------------------------------------------------

// REDIR_SCARDCONTEXT. Fixed part: cbContext (not used) and the referent. When the referent is
// set, a deferred handle array holds the wire handle.
struct c_context_ref {
    std::uint32_t ref = 0;

    static c_context_ref read(c_ndr_reader& in) {
        in.skip_u32();  // cbContext
        return {in.read_u32()};
    }
    // Reads the deferred array, when there is one, and translates it with `op` of the card service
    // (find_context, take_context, find_context_record); `none` for a null context.
    template <class R>
    R lookup(c_ndr_reader& in, R (c_scard_service::*op)(std::uint32_t), R none) const {
        return ref ? (scard_service().*op)(in.read_handle()) : none;
    }
    SCARDCONTEXT find(c_ndr_reader& in) const { return lookup(in, &c_scard_service::find_context, k_no_handle); }
};

// REDIR_SCARDHANDLE: a context argument, then cbHandle (not used) and the card's referent. Its
// deferred arrays: the context's (read and not used: the card's wire handle alone selects the
// card), then the card's.
struct c_card_refs {
    c_context_ref context;
    std::uint32_t card_ref = 0;

    static c_card_refs read(c_ndr_reader& in) {
        const c_context_ref context = c_context_ref::read(in);
        in.skip_u32();  // cbHandle
        return {context, in.read_u32()};
    }
    // The deferred arrays; the card through `op` (find_card, or take_card), all ones without one.
    using c_lookup = SCARDHANDLE (c_scard_service::*)(std::uint32_t);
    SCARDHANDLE lookup(c_ndr_reader& in, c_lookup op = &c_scard_service::find_card) const {
        if (context.ref) in.read_handle();
        return card_ref ? (scard_service().*op)(in.read_handle()) : k_no_handle;
    }
};

// ---- character width -----------------------------------------------------------------------------
// A calls carry 8-bit text as PC/SC does; W calls carry 16-bit units. Names from the peer are
// narrowed to 8 bits for PC/SC, multi-strings from PC/SC widened to the call's units. Each width
// holds 2048 units inline.

template <class Unit>
struct c_text_width {
    using unit = Unit;
    using buffer = c_inline_buffer<2048 * sizeof(Unit)>;

    // A conformant varying string: maximum count and offset (not used), actual count c, c units
    // (little-endian), pad. `text` receives c + 1 units, the last one zero, so that a name sent
    // without its NUL ends after its c-th character.
    static const unit* read_string(c_ndr_reader& in, buffer& text) {
        in.skip_u32();
        in.skip_u32();
        const std::uint32_t c = in.read_u32();
        const std::uint8_t* bytes = in.take_units(c, sizeof(unit));
        auto* name = reinterpret_cast<unit*>(text.allocate((std::size_t{c} + 1) * sizeof(unit)));
        for (std::size_t i = 0; i < c; ++i) {
            if constexpr (sizeof(unit) == 1)
                name[i] = static_cast<unit>(bytes[i]);
            else
                name[i] = static_cast<unit>(bytes[2 * i] | bytes[2 * i + 1] << 8);
        }
        name[c] = 0;
        // The pad follows c units; their byte count taken modulo 2^32 keeps its remainder by 4.
        in.align_after(static_cast<std::uint32_t>(std::size_t{c} * sizeof(unit)));
        return name;
    }
};

struct c_text_a : c_text_width<char> {
    static const char* narrow(const unit* name, c_inline_buffer<1024>&) { return name; }
    static void widen(buffer&, std::uint32_t) {}
    static void put(c_ndr_writer& out, const buffer& text, std::uint32_t n) { out.write_bytes(text.data, n); }
};

struct c_text_w : c_text_width<std::uint16_t> {
    // The units up to the first zero unit, each as its low 8 bits, then a NUL.
    static const char* narrow(const unit* name, c_inline_buffer<1024>& to) {
        std::size_t n = 0;
        while (name[n] != 0) ++n;
        to.allocate(n + 1);
        narrow_string(to.chars(), name);
        return to.chars();
    }
    // PC/SC's n bytes in `text` become n units in place.
    static void widen(buffer& text, std::uint32_t n) { widen_multistring(text.as<unit>(), text.chars(), n); }
    static void put(c_ndr_writer& out, const buffer& text, std::uint32_t n) { out.write_u16_units(text.as<unit>(), n); }
};

}  // namespace kor::jni
