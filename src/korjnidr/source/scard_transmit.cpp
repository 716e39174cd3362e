// Transmit: one APDU to a connected card and the card's response.
#include <algorithm>
#include <cstring>

#include "scard_handler.h"

namespace kor::jni {

namespace {

static_assert(sizeof(SCARD_IO_REQUEST) == 16, "PC/SC's SCARD_IO_REQUEST holds two 64-bit fields");

// Transmit_Call's fixed part after the card handle.
struct c_transmit_call {
    std::uint32_t protocol, extra_len, extra_ref, send_len, send_ref, recv_pci_ref;
    bool recv_is_null;
    std::uint32_t recv_len;

    static c_transmit_call read(c_ndr_reader& in) {
        c_transmit_call c{};
        c.protocol = in.read_u32();
        c.extra_len = in.read_u32();
        c.extra_ref = in.read_u32();
        c.send_len = in.read_u32();
        c.send_ref = in.read_u32();
        c.recv_pci_ref = in.read_u32();
        c.recv_is_null = in.read_u32() != 0;
        c.recv_len = in.read_u32();
        return c;
    }
};

// Send PCI: PC/SC's 64-bit SCARD_IO_REQUEST (cbPciLength 16), then the extra bytes. Without an
// extra-bytes array extra_len is not backed by any data, so the PCI is the header alone.
void read_send_pci(c_ndr_reader& in, const c_transmit_call& call, c_inline_buffer<2048>& pci) {
    const std::uint8_t* extra = nullptr;
    if (call.extra_ref) {
        in.skip_u32();  // the array's own count: extra_len governs
        extra = in.take(call.extra_len);
        in.align_after(call.extra_len);
    }
    pci.allocate(sizeof(SCARD_IO_REQUEST) + (extra ? std::size_t{call.extra_len} : 0));
    const SCARD_IO_REQUEST header{call.protocol, sizeof(SCARD_IO_REQUEST)};
    std::memcpy(pci.data, &header, sizeof header);
    if (extra && call.extra_len) std::memcpy(pci.data + sizeof header, extra, call.extra_len);
}

// Transmit_Return after ReturnCode for a success with n bytes received (`recv` null: the peer
// asked for none, and gets n zero bytes).
void write_received(c_ndr_writer& out, std::uint32_t n, const unsigned char* recv) {
    out.write_u32(0);  // pioRecvPci: never returned
    out.write_u32(n);
    out.write_u32(n ? k_recv_referent : 0);
    out.pad_to_4();
    if (!n) return;
    out.write_u32(n);
    if (recv)
        out.write_bytes(recv, n);
    else
        out.write_zeros(n);
}

}  // namespace

void scard_transmit(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_card_refs refs = c_card_refs::read(in);
    const c_transmit_call call = c_transmit_call::read(in);
    const SCARDHANDLE card = refs.lookup(in);
    c_inline_buffer<2048> send_pci;
    read_send_pci(in, call, send_pci);
    c_inline_buffer<2048> send;
    if (call.send_ref) in.read_byte_array(send);
    if (call.recv_pci_ref) {  // read and discarded: PC/SC always gets a null receive PCI
        in.skip_u32();        // dwProtocol
        in.skip_u32();        // cbExtraBytes
        if (in.read_u32() != 0) in.skip_array(1);
    }

    // recv_len is an output size that no bytes of the request back: capped at the channel's
    // largest, and a longer response draws PC/SC's insufficient-buffer code.
    const std::uint32_t recv_capacity = std::min(call.recv_len, k_max_buffer_length);
    c_inline_buffer<2048> recv;
    if (!call.recv_is_null) recv.allocate(recv_capacity);
    DWORD received = recv_capacity;

    // A send length beyond the bytes sent (or without any send buffer) is refused rather than
    // clamped: PC/SC must never read past the buffer, and a shortened APDU would be a different
    // command than the one the peer asked the card to perform.
    std::uint32_t result = k_scard_e_invalid_parameter;
    if (call.send_len <= (call.send_ref ? send.used : 0)) {
        result = pcsc_result(scard_service().SCardTransmit, card,
                             reinterpret_cast<const SCARD_IO_REQUEST*>(send_pci.data),
                             call.send_ref ? send.data : nullptr, DWORD{call.send_len}, nullptr,
                             call.recv_is_null ? nullptr : recv.data, &received);
    }
    if (result == 0) {
        // Never more than the buffer holds, whatever PC/SC reports.
        write_received(out, static_cast<std::uint32_t>(std::min<DWORD>(received, recv_capacity)),
                       call.recv_is_null ? nullptr : recv.data);
    } else {
        out.write_zero_fields(3);
    }
    out.finish(result);
}

}  // namespace kor::jni
