// Transmit: one APDU to a connected card and the card's response.
#include <algorithm>
#include <cstring>

#include "kor_jnidr_scard.h"

namespace kor::jni {

namespace {

constexpr std::uint32_t k_scard_e_invalid_parameter = 0x80100004;

// Largest receive length the channel declares (cbRecvLength is 0..66560: the largest extended
// APDU response and its status). recv_len is an output size that no bytes of the request back,
// so it is capped here: the buffer and the length given to PC/SC are at most this, and a longer
// response draws PC/SC's insufficient-buffer code.
constexpr std::uint32_t k_max_recv_length = 66560;

// Receive buffer referent in the reply.
constexpr std::uint32_t k_recv_referent = 2;

static_assert(sizeof(SCARD_IO_REQUEST) == 16, "PC/SC's SCARD_IO_REQUEST holds two 64-bit fields");

}  // namespace

void scard_transmit(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    in.skip_u32();  // hCard.Context.cbContext
    const std::uint32_t context_ref = in.read_u32();
    in.skip_u32();  // hCard.cbHandle
    const std::uint32_t card_ref = in.read_u32();
    const std::uint32_t protocol = in.read_u32();
    const std::uint32_t extra_len = in.read_u32();
    const std::uint32_t extra_ref = in.read_u32();
    const std::uint32_t send_len = in.read_u32();
    const std::uint32_t send_ref = in.read_u32();
    const std::uint32_t recv_pci_ref = in.read_u32();
    const bool recv_is_null = in.read_u32() != 0;
    const std::uint32_t recv_len = in.read_u32();

    if (context_ref) in.read_handle();
    const SCARDHANDLE card = card_ref ? scard_service().find_card(in.read_handle()) : k_no_handle;

    // Send PCI: PC/SC's 64-bit SCARD_IO_REQUEST (cbPciLength 16), then the extra bytes. Without
    // an extra-bytes array extra_len is not backed by any data, so the PCI is the header alone.
    c_inline_buffer<2048> send_pci;
    const std::uint8_t* extra = nullptr;
    if (extra_ref) {
        in.skip_u32();  // the array's own count: extra_len governs
        extra = in.take(extra_len);
        in.align_after(extra_len);
    }
    send_pci.allocate(sizeof(SCARD_IO_REQUEST) + (extra ? std::size_t{extra_len} : 0));
    const SCARD_IO_REQUEST header{protocol, sizeof(SCARD_IO_REQUEST)};
    std::memcpy(send_pci.data, &header, sizeof header);
    if (extra && extra_len) std::memcpy(send_pci.data + sizeof header, extra, extra_len);

    c_inline_buffer<2048> send;
    if (send_ref) in.read_byte_array(send);

    if (recv_pci_ref) {
        in.skip_u32();  // dwProtocol
        in.skip_u32();  // cbExtraBytes
        if (in.read_u32() != 0) {
            c_inline_buffer<2048> recv_pci_extra;
            in.read_byte_array(recv_pci_extra);
        }
    }

    const std::uint32_t recv_capacity = std::min(recv_len, k_max_recv_length);
    c_inline_buffer<2048> recv;
    if (!recv_is_null) recv.allocate(recv_capacity);
    DWORD received = recv_capacity;

    // A send length beyond the bytes sent (or without any send buffer) is refused rather than
    // clamped: PC/SC must never read past the buffer, and a shortened APDU would be a different
    // command than the one the peer asked the card to perform.
    std::uint32_t result = k_scard_e_invalid_parameter;
    if (send_len <= (send_ref ? send.used : 0)) {
        result = pcsc_result(scard_service().SCardTransmit, card,
                             reinterpret_cast<const SCARD_IO_REQUEST*>(send_pci.data),
                             send_ref ? send.data : nullptr, DWORD{send_len}, nullptr,
                             recv_is_null ? nullptr : recv.data, &received);
    }

    out.write_u32(0);  // pioRecvPci: never returned
    if (result != 0) {
        out.write_zero_fields(2);
        out.finish(result);
        return;
    }
    // Never more than the buffer holds, whatever PC/SC reports.
    const auto n = static_cast<std::uint32_t>(std::min<DWORD>(received, recv_capacity));
    out.write_u32(n);
    out.write_u32(n ? k_recv_referent : 0);
    out.pad_to_4();
    if (n) {
        out.write_u32(n);
        if (recv_is_null)
            out.write_zeros(n);
        else
            out.write_bytes(recv.data, n);
    }
    out.finish(0);
}

}  // namespace kor::jni
