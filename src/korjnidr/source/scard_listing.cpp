// ListReaderGroupsA/W and ListReadersA/W: multi-strings from PC/SC in the three ways the peer can
// ask for them (length only, a buffer of cch characters, or whatever size is needed). One
// algorithm serves the four calls; the character width of the call is a type parameter.
#include <algorithm>

#include "kor_jnidr_scard.h"

namespace kor::jni {

namespace {

constexpr std::uint32_t k_allocate = 0xFFFFFFFF;

// Largest multi-string the channel carries back (cBytes is declared 0..65536). The answer buffer
// is sized from the request (fixed mode) or from PC/SC's reply (allocating mode); it never exceeds
// this many bytes of reply, and PC/SC is told the capped size, so it cannot write past the buffer
// and a request cannot make us allocate gigabytes. A list that does not fit draws PC/SC's
// insufficient-buffer code, as any too-small buffer does.
constexpr std::uint32_t k_max_reply_bytes = 65536;

// 8-bit calls: PC/SC's bytes travel as they are.
struct c_text_a {
    using unit = char;
    static constexpr std::size_t k_inline_bytes = 2048;

    static void skip_group_filter(c_ndr_reader& in) {
        c_inline_buffer<2048> groups;
        in.read_byte_array(groups);
    }
    static void widen(c_inline_buffer<k_inline_bytes>&, std::uint32_t) {}
    static void put(c_ndr_writer& out, const c_inline_buffer<k_inline_bytes>& buffer, std::uint32_t n) {
        out.write_bytes(buffer.data, n);
    }
};

// 16-bit calls: PC/SC's bytes become 16-bit units in the same buffer before they are sent.
struct c_text_w {
    using unit = std::uint16_t;
    static constexpr std::size_t k_inline_bytes = 4096;

    static void skip_group_filter(c_ndr_reader& in) {
        const std::uint32_t c = in.read_u32();
        for (std::uint32_t i = 0; i < c / 2; ++i) in.read_u16();
        in.align_after(c);
    }
    static void widen(c_inline_buffer<k_inline_bytes>& buffer, std::uint32_t n) {
        widen_multistring(buffer.as<std::uint16_t>(), buffer.chars(), n);
    }
    static void put(c_ndr_writer& out, const c_inline_buffer<k_inline_bytes>& buffer, std::uint32_t n) {
        out.write_u16_units(buffer.as<std::uint16_t>(), n);
    }
};

enum class e_listing { groups, readers };

template <class Text>
void list_multistring(c_ndr_reader& in, c_ndr_writer& out, e_listing what) {
    constexpr std::uint32_t max_units = k_max_reply_bytes / sizeof(typename Text::unit);

    in.read_header();
    in.skip_u32();  // cbContext
    const std::uint32_t context_ref = in.read_u32();
    std::uint32_t groups_ref = 0;
    if (what == e_listing::readers) {
        in.skip_u32();  // cBytes of the group filter
        groups_ref = in.read_u32();
    }
    const bool length_only = in.read_u32() != 0;
    const std::uint32_t cch = in.read_u32();
    c_scard_service& service = scard_service();
    const SCARDCONTEXT context = context_ref ? service.find_context(in.read_handle()) : k_no_handle;
    // The group filter is stepped over: PC/SC is always asked for the readers of all groups.
    if (groups_ref) Text::skip_group_filter(in);

    const auto list = [&](char* buffer, DWORD* n) {
        return what == e_listing::readers
                   ? pcsc_result(service.SCardListReaders, context, nullptr, buffer, n)
                   : pcsc_result(service.SCardListReaderGroups, context, buffer, n);
    };

    c_inline_buffer<Text::k_inline_bytes> buffer;
    std::uint32_t offered = max_units;  // units that PC/SC was given room for
    DWORD n = 0;
    std::uint32_t result = 0;
    if (length_only || cch == k_allocate) result = list(nullptr, &n);
    if (!length_only && result == 0) {
        // Allocating mode asks again with the length just reported.
        offered = static_cast<std::uint32_t>(std::min<DWORD>(cch == k_allocate ? n : cch, max_units));
        buffer.allocate_zeroed(std::size_t{offered} * sizeof(typename Text::unit));
        n = offered;
        result = list(buffer.chars(), &n);
    }
    if (result != 0) {
        out.write_zero_fields(2);
        out.finish(result);
        return;
    }

    // A misbehaving PC/SC could report more than it was given: never read past the buffer, and
    // never announce more than the channel carries.
    const auto count = static_cast<std::uint32_t>(std::min<DWORD>(n, offered));
    const std::uint32_t length = count * static_cast<std::uint32_t>(sizeof(typename Text::unit));
    out.write_u32(length);
    out.write_u32(1);
    out.write_u32(length);
    if (length_only) {
        out.write_zeros(length);
    } else {
        Text::widen(buffer, count);
        Text::put(out, buffer, count);
    }
    out.finish(0);
}

}  // namespace

void scard_list_reader_groups_a(c_ndr_reader& in, c_ndr_writer& out) {
    list_multistring<c_text_a>(in, out, e_listing::groups);
}
void scard_list_reader_groups_w(c_ndr_reader& in, c_ndr_writer& out) {
    list_multistring<c_text_w>(in, out, e_listing::groups);
}
void scard_list_readers_a(c_ndr_reader& in, c_ndr_writer& out) {
    list_multistring<c_text_a>(in, out, e_listing::readers);
}
void scard_list_readers_w(c_ndr_reader& in, c_ndr_writer& out) {
    list_multistring<c_text_w>(in, out, e_listing::readers);
}

}  // namespace kor::jni
