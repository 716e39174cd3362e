// ConnectA/W, Reconnect, Disconnect, BeginTransaction, EndTransaction: the card's wire handle is
// translated through the card service, and the reader records follow each successful connection.
#include <cstring>
#include <stdexcept>

#include "kor_jnidr_scard.h"

namespace kor::jni {

namespace {

// 8-bit reader names go to PC/SC as they are.
struct c_text_a {
    using unit = char;
    static constexpr std::size_t k_inline_bytes = 2048;

    static unit read_unit(c_ndr_reader& in) { return static_cast<char>(in.read_u8()); }
    static const char* to_narrow(const unit* name, c_inline_buffer<1024>&) { return name; }
};

// 16-bit reader names are narrowed to their low 8 bits.
struct c_text_w {
    using unit = std::uint16_t;
    static constexpr std::size_t k_inline_bytes = 4096;

    static unit read_unit(c_ndr_reader& in) { return in.read_u16(); }
    static const char* to_narrow(const unit* name, c_inline_buffer<1024>& narrow) {
        std::size_t n = 0;
        while (name[n] != 0) ++n;
        narrow.allocate(n + 1);
        narrow_string(narrow.chars(), name);
        return narrow.chars();
    }
};

// Reads a conformant varying string (maximum count and offset stepped over, actual count c, c
// units, pad). The buffer gets c + 1 units with the last one zero: a name sent without its NUL
// ends after its c-th character.
template <class Text>
const typename Text::unit* read_reader_name(c_ndr_reader& in, c_inline_buffer<Text::k_inline_bytes>& buffer) {
    using unit = typename Text::unit;
    in.skip_u32();
    in.skip_u32();
    const std::uint32_t c = in.read_u32();
    // The count sizes an allocation: compare it with the bytes present first.
    if (in.remaining() / sizeof(unit) < c) throw std::runtime_error("provide");
    auto* name = reinterpret_cast<unit*>(buffer.allocate((std::size_t{c} + 1) * sizeof(unit)));
    for (std::uint32_t i = 0; i < c; ++i) name[i] = Text::read_unit(in);
    name[c] = 0;
    // The pad follows c * sizeof(unit) bytes; the product taken modulo 2^32 keeps its remainder by 4.
    in.align_after(static_cast<std::uint32_t>(std::size_t{c} * sizeof(unit)));
    return name;
}

template <class Text>
void connect(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const std::uint32_t name_ref = in.read_u32();
    in.skip_u32();  // cbContext
    const std::uint32_t context_ref = in.read_u32();
    const DWORD share_mode = in.read_u32();
    const DWORD preferred_protocols = in.read_u32();

    c_inline_buffer<Text::k_inline_bytes> name_units;
    const typename Text::unit* name = name_ref ? read_reader_name<Text>(in, name_units) : nullptr;
    c_scard_service& service = scard_service();
    const auto [owner, context] = context_ref ? service.find_context_record(in.read_handle())
                                              : std::pair<std::int32_t, SCARDCONTEXT>{0, k_no_handle};
    c_inline_buffer<1024> narrowed;
    const char* name8 = name ? Text::to_narrow(name, narrowed) : nullptr;

    SCARDHANDLE card = k_no_handle;
    DWORD protocol = 0;
    const std::uint32_t result =
        pcsc_result(service.SCardConnect, context, name8, share_mode, preferred_protocols, &card, &protocol);
    if (result != 0) {
        out.write_zero_fields(5);
        out.finish(result);
        return;
    }
    const auto active = static_cast<std::uint32_t>(protocol);
    service.add_reader(card, active, name8 ? name8 : "");
    const std::uint32_t wire = service.add_card(owner, card);
    out.write_u32(0);  // hCard.cbContext: no context is returned
    out.write_u32(0);
    out.write_u32(4);  // hCard.cbHandle
    out.write_u32(1);
    out.write_u32(active);
    out.write_u32(4);
    out.write_u32(wire);
    out.finish(0);
}

// REDIR_SCARDHANDLE's fixed part: the context and card referents.
struct c_card_refs {
    std::uint32_t context_ref;
    std::uint32_t card_ref;
};

c_card_refs read_card_fixed(c_ndr_reader& in) {
    in.skip_u32();  // cbContext
    const std::uint32_t context_ref = in.read_u32();
    in.skip_u32();  // cbHandle
    return {context_ref, in.read_u32()};
}

// REDIR_SCARDHANDLE's deferred arrays: the context is read and not used; returns the card's wire id
// or nothing when no card array was sent.
template <class Lookup>
SCARDHANDLE read_card_deferred(c_ndr_reader& in, c_card_refs refs, Lookup&& lookup) {
    if (refs.context_ref) in.read_handle();
    return refs.card_ref ? lookup(in.read_handle()) : k_no_handle;
}

SCARDHANDLE find_card_of(c_ndr_reader& in, c_card_refs refs) {
    return read_card_deferred(in, refs, [](std::uint32_t wire) { return scard_service().find_card(wire); });
}

}  // namespace

void scard_connect_a(c_ndr_reader& in, c_ndr_writer& out) { connect<c_text_a>(in, out); }
void scard_connect_w(c_ndr_reader& in, c_ndr_writer& out) { connect<c_text_w>(in, out); }

void scard_reconnect(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = read_card_fixed(in);
    const DWORD share_mode = in.read_u32();
    const DWORD preferred_protocols = in.read_u32();
    const DWORD initialization = in.read_u32();
    const SCARDHANDLE card = find_card_of(in, refs);

    c_scard_service& service = scard_service();
    DWORD protocol = 0;
    const std::uint32_t result =
        pcsc_result(service.SCardReconnect, card, share_mode, preferred_protocols, initialization, &protocol);
    if (result == 0) {
        const auto active = static_cast<std::uint32_t>(protocol);
        service.set_reader_protocol(card, active);
        out.write_u32(active);
    } else {
        out.write_u32(0);
    }
    out.finish(result);
}

void scard_disconnect(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = read_card_fixed(in);
    const DWORD disposition = in.read_u32();
    // The card record goes before PC/SC is asked, whatever it answers; the reader record only
    // when PC/SC succeeded.
    const SCARDHANDLE card =
        read_card_deferred(in, refs, [](std::uint32_t wire) { return scard_service().take_card(wire); });

    c_scard_service& service = scard_service();
    const std::uint32_t result = pcsc_result(service.SCardDisconnect, card, disposition);
    if (result == 0) service.remove_reader(card);
    out.finish(result);
}

void scard_begin_transaction(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = read_card_fixed(in);
    in.skip_u32();  // dwDisposition: PC/SC's BeginTransaction takes none
    const SCARDHANDLE card = find_card_of(in, refs);
    out.finish(pcsc_result(scard_service().SCardBeginTransaction, card));
}

void scard_end_transaction(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = read_card_fixed(in);
    const DWORD disposition = in.read_u32();
    const SCARDHANDLE card = find_card_of(in, refs);
    out.finish(pcsc_result(scard_service().SCardEndTransaction, card, disposition));
}

}  // namespace kor::jni
