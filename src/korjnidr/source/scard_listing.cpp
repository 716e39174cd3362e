// ListReaderGroupsA/W and ListReadersA/W: multi-strings from PC/SC in the three ways the peer can
// ask for them (length only, a buffer of cch characters, or whatever size is needed). One
// algorithm serves the four calls; the character width of the call is a type parameter.
#include <algorithm>

#include "scard_handler.h"

namespace kor::jni {

namespace {

enum class e_listing { groups, readers };

// The success body: `count` characters of PC/SC's multi-string in `text`, in the call's width, or
// as many zero characters in length-only mode (no text).
template <class Text>
void write_multistring(c_ndr_writer& out, std::uint32_t count, typename Text::buffer* text) {
    const std::uint32_t length = count * static_cast<std::uint32_t>(sizeof(typename Text::unit));
    out.write_u32(length);
    out.write_u32(k_referent);
    out.write_u32(length);
    if (!text) {
        out.write_zeros(length);
    } else {
        Text::widen(*text, count);
        Text::put(out, *text, count);
    }
}

template <class Text>
void list_multistring(c_ndr_reader& in, c_ndr_writer& out, e_listing what) {
    // The answer buffer is sized from the request (fixed mode) or from PC/SC's reply (allocating
    // mode), never beyond the longest multi-string the channel carries.
    constexpr std::uint32_t max_units = k_max_multistring / sizeof(typename Text::unit);

    in.read_header();
    const c_context_ref context_arg = c_context_ref::read(in);
    std::uint32_t groups_ref = 0;
    if (what == e_listing::readers) {
        in.skip_u32();  // cBytes of the group filter
        groups_ref = in.read_u32();
    }
    const bool length_only = in.read_u32() != 0;
    const std::uint32_t cch = in.read_u32();
    const SCARDCONTEXT context = context_arg.find(in);
    // The group filter is stepped over: PC/SC is always asked for the readers of all groups.
    if (groups_ref) in.skip_array(sizeof(typename Text::unit));

    c_scard_service& service = scard_service();
    const auto list = [&](char* buffer, DWORD* n) {
        return what == e_listing::readers
                   ? pcsc_result(service.SCardListReaders, context, nullptr, buffer, n)
                   : pcsc_result(service.SCardListReaderGroups, context, buffer, n);
    };

    typename Text::buffer buffer;
    std::uint32_t offered = max_units;  // units that PC/SC was given room for
    DWORD n = 0;
    std::uint32_t result = 0;
    if (length_only || cch == k_wire_autoallocate) result = list(nullptr, &n);
    if (!length_only && result == 0) {
        // Allocating mode asks again with the length just reported.
        offered = static_cast<std::uint32_t>(std::min<DWORD>(cch == k_wire_autoallocate ? n : cch, max_units));
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
    write_multistring<Text>(out, count, length_only ? nullptr : &buffer);
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
