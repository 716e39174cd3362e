// ConnectA/W, Reconnect, Disconnect, BeginTransaction, EndTransaction: the card's wire handle is
// translated through the card service, and the reader records follow each successful connection.
#include "scard_handler.h"

namespace kor::jni {

namespace {

template <class Text>
void connect(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const std::uint32_t name_ref = in.read_u32();
    const c_context_ref context_arg = c_context_ref::read(in);
    const DWORD share_mode = in.read_u32();
    const DWORD preferred_protocols = in.read_u32();

    typename Text::buffer name_units;
    const typename Text::unit* name = name_ref ? Text::read_string(in, name_units) : nullptr;
    const auto [owner, context] = context_arg.lookup(in, &c_scard_service::find_context_record,
                                                     std::pair<std::int32_t, SCARDCONTEXT>{0, k_no_handle});
    c_inline_buffer<1024> narrowed;
    const char* name8 = name ? Text::narrow(name, narrowed) : nullptr;

    c_scard_service& service = scard_service();
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
    out.write_u32(k_handle_length);  // hCard.cbHandle
    out.write_u32(k_referent);
    out.write_u32(active);
    out.write_u32(k_handle_length);
    out.write_u32(wire);
    out.finish(0);
}

}  // namespace

void scard_connect_a(c_ndr_reader& in, c_ndr_writer& out) { connect<c_text_a>(in, out); }
void scard_connect_w(c_ndr_reader& in, c_ndr_writer& out) { connect<c_text_w>(in, out); }

void scard_reconnect(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = c_card_refs::read(in);
    const DWORD share_mode = in.read_u32();
    const DWORD preferred_protocols = in.read_u32();
    const DWORD initialization = in.read_u32();
    const SCARDHANDLE card = refs.lookup(in);

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
    const c_card_refs refs = c_card_refs::read(in);
    const DWORD disposition = in.read_u32();
    // The card record goes before PC/SC is asked, and its reader record with it whatever PC/SC
    // answers: no wire handle reaches that record any more, and a PC/SC handle given out again
    // must not find a stale reader name.
    const SCARDHANDLE card = refs.lookup(in, &c_scard_service::take_card);

    c_scard_service& service = scard_service();
    const std::uint32_t result = pcsc_result(service.SCardDisconnect, card, disposition);
    service.remove_reader(card);
    out.finish(result);
}

void scard_begin_transaction(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = c_card_refs::read(in);
    in.skip_u32();  // dwDisposition: PC/SC's BeginTransaction takes none
    const SCARDHANDLE card = refs.lookup(in);
    out.finish(pcsc_result(scard_service().SCardBeginTransaction, card));
}

void scard_end_transaction(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = c_card_refs::read(in);
    const DWORD disposition = in.read_u32();
    const SCARDHANDLE card = refs.lookup(in);
    out.finish(pcsc_result(scard_service().SCardEndTransaction, card, disposition));
}

}  // namespace kor::jni
