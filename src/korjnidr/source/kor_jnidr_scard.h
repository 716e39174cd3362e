// Smart card redirection: one call of the RDP smart card channel arrives as an I/O control code
// and an NDR-encoded buffer, is decoded, performed through PC/SC and answered with an encoded
// reply. The pieces:
//   scard_codec.h      request cursor and reply builder
//   scard_service.h    PC/SC entry table, wire handle tables, service lifetime
//   scard_dispatcher   JNI entry points and the table from control code to handler
//   scard_context_calls, scard_listing, scard_status_change, scard_connection, scard_status,
//   scard_transmit, scard_control: the handlers, one file per family of calls
//   scard_handler.h    what the handlers share: codes and limits, argument decoders, text width
//   scard_text         conversions between PC/SC's 8-bit text and the W calls' 16-bit units
#pragma once

#include <cstdint>

#include "scard_codec.h"
#include "scard_service.h"

namespace kor::jni {

// Runs the handler of `ioctl` (low 16 bits) on one request; false when no handler has that code
// (the writer is then left empty).
bool scard_dispatch(std::int32_t owner, std::uint32_t ioctl, c_ndr_reader& in, c_ndr_writer& out);

// Handlers: each decodes its whole call before PC/SC is called and leaves exactly one finished
// reply in `out`, or throws.
void scard_establish_context(c_ndr_reader& in, c_ndr_writer& out, std::int32_t owner);
void scard_release_context(c_ndr_reader& in, c_ndr_writer& out);
void scard_is_valid_context(c_ndr_reader& in, c_ndr_writer& out);
void scard_cancel(c_ndr_reader& in, c_ndr_writer& out);

void scard_list_reader_groups_a(c_ndr_reader& in, c_ndr_writer& out);
void scard_list_reader_groups_w(c_ndr_reader& in, c_ndr_writer& out);
void scard_list_readers_a(c_ndr_reader& in, c_ndr_writer& out);
void scard_list_readers_w(c_ndr_reader& in, c_ndr_writer& out);

void scard_get_status_change_a(c_ndr_reader& in, c_ndr_writer& out);
void scard_get_status_change_w(c_ndr_reader& in, c_ndr_writer& out);

void scard_connect_a(c_ndr_reader& in, c_ndr_writer& out);
void scard_connect_w(c_ndr_reader& in, c_ndr_writer& out);
void scard_reconnect(c_ndr_reader& in, c_ndr_writer& out);
void scard_disconnect(c_ndr_reader& in, c_ndr_writer& out);
void scard_begin_transaction(c_ndr_reader& in, c_ndr_writer& out);
void scard_end_transaction(c_ndr_reader& in, c_ndr_writer& out);

void scard_status_a(c_ndr_reader& in, c_ndr_writer& out);
void scard_status_w(c_ndr_reader& in, c_ndr_writer& out);

void scard_transmit(c_ndr_reader& in, c_ndr_writer& out);

void scard_control(c_ndr_reader& in, c_ndr_writer& out);
void scard_get_attrib(c_ndr_reader& in, c_ndr_writer& out);
void scard_set_attrib(c_ndr_reader& in, c_ndr_writer& out);

void scard_access_started_event(c_ndr_reader& in, c_ndr_writer& out);

// A byte of PC/SC's 8-bit text as a 16-bit unit, sign-extended: 0xC3 becomes 0xFFC3. Narrowing
// keeps the low 8 bits, so a name that the peer got this way and sends back is the same byte.
constexpr std::uint16_t widen_char(char c) noexcept {
    return static_cast<std::uint16_t>(static_cast<std::int16_t>(static_cast<signed char>(c)));
}
// 8-bit multi-string of n bytes to 16-bit units by sign extension (0xC3 becomes 0xFFC3); dst may
// equal src, which then must hold n units. The walk never reads past n bytes: a multi-string
// without its final double NUL within n is ended there.
void widen_multistring(std::uint16_t* dst, const char* src, std::uint32_t n);
// Units up to the first zero unit, each as its low 8 bits, then a NUL; dst may equal src.
void narrow_string(char* dst, const std::uint16_t* src);

}  // namespace kor::jni
