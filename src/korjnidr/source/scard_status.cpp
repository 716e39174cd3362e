// StatusA (200) and StatusW (204): reader name, state, protocol and ATR of a connected card.
// PC/SC gives the name as one NUL-terminated string; the peer expects a multi-string, so PC/SC is
// always offered one character less than the buffer holds and the free one takes the second NUL.
#include <algorithm>
#include <cstring>

#include "kor_jnidr_scard.h"

namespace kor::jni {
namespace {

constexpr std::uint32_t k_atr_field = 32;
constexpr std::uint32_t k_card_state_specific = 6;
// Fixed-mode name buffers are cut to this many characters: the requested length only sizes a
// buffer (it never shows in the reply), and no reader name comes near it, so a hostile length
// cannot make the handler allocate gigabytes.
constexpr std::uint32_t k_max_name_units = 65536;

// PC/SC protocol 1..4 to the peer's numbering; anything else is 0.
std::uint32_t translate_protocol(std::uint32_t protocol) {
    static constexpr std::uint32_t table[] = {1, 2, 0, 0x00010000};
    return protocol >= 1 && protocol <= 4 ? table[protocol - 1] : 0;
}

// Character width as a type: the name buffer (2048 characters inline), the conversion of PC/SC's
// 8-bit multi-string in that buffer, and its encoding.
struct c_text_a {
    using buffer = c_inline_buffer<2048>;
    static constexpr std::uint32_t bytes_per_unit = 1;
    static void widen(buffer&, std::uint32_t) {}
    static void put(c_ndr_writer& out, const buffer& names, std::uint32_t m) { out.write_bytes(names.data, m); }
};

struct c_text_w {
    using buffer = c_inline_buffer<4096>;
    static constexpr std::uint32_t bytes_per_unit = 2;
    static void widen(buffer& names, std::uint32_t m) {
        widen_multistring(names.as<std::uint16_t>(), names.chars(), m);
    }
    static void put(c_ndr_writer& out, const buffer& names, std::uint32_t m) {
        out.write_u16_units(names.as<std::uint16_t>(), m);
    }
};

template <class Text>
void status(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    in.skip_u32();  // cbContext
    const std::uint32_t context_ref = in.read_u32();
    in.skip_u32();  // cbHandle
    const std::uint32_t card_ref = in.read_u32();
    const bool length_only = in.read_u32() != 0;
    const std::uint32_t requested = in.read_u32();
    in.skip_u32();  // cbAtrLen: PC/SC is always offered the 32-byte field
    if (context_ref) in.read_handle();
    c_scard_service& service = scard_service();
    const SCARDHANDLE card = card_ref ? service.find_card(in.read_handle()) : k_no_handle;

    const bool allocating = !length_only && requested == 0xFFFFFFFF;
    typename Text::buffer names;
    std::uint32_t units = 0;  // characters the buffer holds
    if (!length_only && !allocating) {
        units = std::min(requested, k_max_name_units);
        names.allocate_zeroed(std::size_t{units} * Text::bytes_per_unit);
    }

    DWORD cch = requested;
    DWORD state = 0;
    DWORD protocol = 0;
    DWORD atr_len = k_atr_field;
    std::uint8_t atr[k_atr_field] = {};
    std::uint32_t result = 0;

    if (allocating) {
        char scratch[1] = {};
        cch = 1;
        const std::uint32_t r =
            pcsc_result(service.SCardStatus, card, scratch, &cch, &state, &protocol, atr, &atr_len);
        // Only "insufficient buffer" tells the length; any other answer, success included,
        // leaves the handler without one.
        if (r != k_scard_e_insufficient_buffer) result = k_scard_e_unexpected;
        units = static_cast<std::uint32_t>(std::min<DWORD>(cch, k_max_name_units - 1)) + 1;
        if (result == 0) names.allocate_zeroed(std::size_t{units} * Text::bytes_per_unit);
    }

    std::uint32_t offered = 0;
    if (result == 0) {
        // Never more than the buffer holds less one, also for a fixed-mode length of 0 (PC/SC is
        // then offered 0 and answers that the buffer is too small). In length-only mode there is
        // no buffer to overrun; PC/SC gets the requested length less one (0 wraps to 0xFFFFFFFF).
        offered = length_only ? requested - 1 : (units ? units - 1 : 0);
        cch = offered;
        atr_len = std::min<DWORD>(atr_len, k_atr_field);
        result = pcsc_result(service.SCardStatus, card, length_only ? nullptr : names.chars(), &cch, &state,
                             &protocol, atr, &atr_len);
    }

    if (result == 0) {
        std::uint32_t n = static_cast<std::uint32_t>(std::min<DWORD>(cch, k_max_name_units));
        if (!length_only) {
            n = std::min(n, offered);  // a name longer than offered cannot be in the buffer
            names.chars()[n] = 0;      // the multi-string's second NUL
            Text::widen(names, n + 1);
        }
        const std::uint32_t m = n + 1;
        const std::uint32_t length = m * Text::bytes_per_unit;
        const auto atr_bytes = static_cast<std::uint32_t>(std::min<DWORD>(atr_len, k_atr_field));
        out.write_u32(length);
        out.write_u32(length ? 1 : 0);
        out.write_u32(k_card_state_specific);
        out.write_u32(translate_protocol(static_cast<std::uint32_t>(protocol)));
        out.write_bytes(atr, atr_bytes);
        out.write_zeros(k_atr_field - atr_bytes);
        out.write_u32(atr_bytes);
        if (length) {
            out.write_u32(length);
            if (length_only)
                out.write_zeros(length);
            else
                Text::put(out, names, m);
        }
    } else {
        out.write_zero_fields(4);
        out.write_zeros(k_atr_field);
        out.write_u32(0);
    }
    out.finish(result);
}

}  // namespace

void scard_status_a(c_ndr_reader& in, c_ndr_writer& out) { status<c_text_a>(in, out); }
void scard_status_w(c_ndr_reader& in, c_ndr_writer& out) { status<c_text_w>(in, out); }

}  // namespace kor::jni
