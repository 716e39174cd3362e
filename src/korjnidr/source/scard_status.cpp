// StatusA (200) and StatusW (204): reader name, state, protocol and ATR of a connected card.
// PC/SC gives the name as one NUL-terminated string; the peer expects a multi-string, so PC/SC is
// always offered one character less than the buffer holds and the free one takes the second NUL.
#include <algorithm>

#include "scard_handler.h"

namespace kor::jni {
namespace {

// PC/SC's protocol (its low 32 bits) as the peer numbers it: T=0 and T=1 keep their values, raw
// becomes the peer's raw; anything else (T=0|T=1 included) is 0.
std::uint32_t translate_protocol(std::uint32_t protocol) {
    switch (protocol) {
        case SCARD_PROTOCOL_T0: return SCARD_PROTOCOL_T0;
        case SCARD_PROTOCOL_T1: return SCARD_PROTOCOL_T1;
        case SCARD_PROTOCOL_RAW: return k_wire_protocol_raw;
        default: return 0;
    }
}

// What the status call fills in. Fixed-mode buffers are cut to k_max_multistring characters: the
// requested length only sizes a buffer (it never shows in the reply), and no reader name comes
// near it, so a hostile length cannot make the handler allocate gigabytes.
template <class Text>
struct c_status {
    typename Text::buffer names;
    std::uint32_t offered = 0;  // characters PC/SC was given room for
    DWORD cch = 0, state = 0, protocol = 0, atr_len = k_status_atr_field;
    std::uint8_t atr[k_status_atr_field] = {};

    // Length only: no buffer. Allocating (0xFFFFFFFF): a sizing call first. Otherwise the
    // requested number of characters. Returns the result code.
    std::uint32_t query(SCARDHANDLE card, bool length_only, std::uint32_t requested) {
        c_scard_service& service = scard_service();
        std::uint32_t units = 0;  // characters the buffer holds
        if (!length_only && requested == k_wire_autoallocate) {
            char scratch[1] = {};
            cch = 1;
            // Only "insufficient buffer" tells the length; any other answer, success included,
            // leaves the handler without one.
            if (pcsc_result(service.SCardStatus, card, scratch, &cch, &state, &protocol, atr, &atr_len) !=
                k_scard_e_insufficient_buffer)
                return k_scard_e_unexpected;
            units = static_cast<std::uint32_t>(std::min<DWORD>(cch, k_max_multistring - 1)) + 1;
        } else if (!length_only) {
            units = std::min(requested, k_max_multistring);
        }
        if (!length_only) names.allocate_zeroed(std::size_t{units} * sizeof(typename Text::unit));
        // Never more than the buffer holds less one, also for a fixed-mode length of 0 (PC/SC is
        // then offered 0 and answers that the buffer is too small). In length-only mode there is
        // no buffer to overrun; PC/SC gets the requested length less one (0 wraps to 0xFFFFFFFF).
        offered = length_only ? requested - 1 : (units ? units - 1 : 0);
        cch = offered;
        atr_len = std::min<DWORD>(atr_len, k_status_atr_field);
        return pcsc_result(service.SCardStatus, card, length_only ? nullptr : names.chars(), &cch, &state, &protocol,
                           atr, &atr_len);
    }

    // The success body. The multi-string is the name and a second NUL: m = n + 1 characters.
    void write(c_ndr_writer& out, bool length_only) {
        std::uint32_t n = static_cast<std::uint32_t>(std::min<DWORD>(cch, k_max_multistring));
        if (!length_only) {
            n = std::min(n, offered);  // a name longer than offered cannot be in the buffer
            names.chars()[n] = 0;      // the multi-string's second NUL
            Text::widen(names, n + 1);
        }
        const std::uint32_t m = n + 1;
        const std::uint32_t length = m * static_cast<std::uint32_t>(sizeof(typename Text::unit));
        const auto atr_bytes = static_cast<std::uint32_t>(std::min<DWORD>(atr_len, k_status_atr_field));
        out.write_u32(length);
        out.write_u32(k_referent);  // m >= 1: never an empty multi-string
        out.write_u32(k_wire_state_specific);
        out.write_u32(translate_protocol(static_cast<std::uint32_t>(protocol)));
        out.write_bytes(atr, atr_bytes);
        out.write_zeros(k_status_atr_field - atr_bytes);
        out.write_u32(atr_bytes);
        out.write_u32(length);
        if (length_only)
            out.write_zeros(length);
        else
            Text::put(out, names, m);
    }
};

template <class Text>
void status(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = c_card_refs::read(in);
    const bool length_only = in.read_u32() != 0;
    const std::uint32_t requested = in.read_u32();
    in.skip_u32();  // cbAtrLen: PC/SC is always offered the 32-byte field
    const SCARDHANDLE card = refs.lookup(in);

    c_status<Text> answer;
    const std::uint32_t result = answer.query(card, length_only, requested);
    if (result == 0) {
        answer.write(out, length_only);
    } else {
        out.write_zero_fields(4);  // cBytes, mszReaderNames, dwState, dwProtocol
        out.write_zeros(k_status_atr_field);
        out.write_u32(0);  // cbAtrLen
    }
    out.finish(result);
}

}  // namespace

void scard_status_a(c_ndr_reader& in, c_ndr_writer& out) { status<c_text_a>(in, out); }
void scard_status_w(c_ndr_reader& in, c_ndr_writer& out) { status<c_text_w>(in, out); }

}  // namespace kor::jni
