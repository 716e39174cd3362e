// GetStatusChangeA (160) and GetStatusChangeW (164): the peer's reader states become PC/SC's
// SCARD_READERSTATE array, one SCardGetStatusChange call (which may block until a timeout, a
// change, a Cancel or the close of the context's owner) and the updated states go back.
#include <cstdlib>
#include <cstring>
#include <new>

#include "kor_jnidr_scard.h"

namespace kor::jni {
namespace {

constexpr std::uint32_t k_scard_e_invalid_parameter = 0x80100004;
constexpr std::uint32_t k_wire_state_size = 52;
constexpr std::uint32_t k_wire_atr_size = 36;
constexpr std::uint32_t k_pcsc_atr_size = sizeof(SCARD_READERSTATE{}.rgbAtr);
static_assert(k_pcsc_atr_size == 33, "pcsc-lite keeps 33 ATR bytes per reader state");

// Marks a state whose name is still to be read; never reaches PC/SC.
const char k_name_follows[] = "";

char* malloc_chars(std::size_t n) {
    auto* p = static_cast<char*>(std::malloc(n));
    if (!p) throw std::bad_alloc();
    return p;
}

// Reader names of the A call: c bytes, terminated after the c-th in the copy, so that a name
// sent without its NUL still ends inside the copy.
struct c_names_a {
    static void read(c_ndr_reader& in, std::uint32_t c, SCARD_READERSTATE& state) {
        const std::uint8_t* chars = in.take(c);
        char* copy = malloc_chars(std::size_t{c} + 1);
        state.pvUserData = copy;
        state.szReader = copy;
        if (c) std::memcpy(copy, chars, c);
        copy[c] = 0;
        in.align_after(c);
    }
};

// Reader names of the W call: c 16-bit units plus a zero unit of our own, narrowed in place to
// 8-bit text; narrow_string stops at the first zero unit, at the latest at the one we added.
struct c_names_w {
    static void read(c_ndr_reader& in, std::uint32_t c, SCARD_READERSTATE& state) {
        if (in.remaining() / 2 < c) throw std::runtime_error("provide");
        char* copy = malloc_chars((std::size_t{c} + 1) * 2);
        state.pvUserData = copy;
        state.szReader = copy;
        auto* units = reinterpret_cast<std::uint16_t*>(copy);
        for (std::uint32_t i = 0; i < c; ++i) units[i] = in.read_u16();
        units[c] = 0;
        in.align_after(2 * c);  // c < 2^31 here: the check above bounds it by the request
        narrow_string(copy, units);
    }
};

// PC/SC's reader-state array for one call and the name copies that it points at, released on
// every way out. A kilobyte of inline storage holds the states of the usual handful of readers;
// larger arrays go to the heap.
class c_reader_states {
public:
    explicit c_reader_states(std::uint32_t count) : count_(count) {
        auto* p = reinterpret_cast<SCARD_READERSTATE*>(storage_.allocate(std::size_t{count} * sizeof(SCARD_READERSTATE)));
        for (std::uint32_t i = 0; i < count; ++i) new (p + i) SCARD_READERSTATE{};
        states_ = p;
    }
    ~c_reader_states() {
        for (std::uint32_t i = 0; i < count_; ++i) std::free(states_[i].pvUserData);
    }
    c_reader_states(const c_reader_states&) = delete;
    c_reader_states& operator=(const c_reader_states&) = delete;

    SCARD_READERSTATE* data() const noexcept { return count_ ? states_ : nullptr; }
    SCARD_READERSTATE& operator[](std::uint32_t i) const noexcept { return states_[i]; }

    static constexpr std::size_t k_inline_states = 1024 / sizeof(SCARD_READERSTATE);

private:
    c_inline_buffer<k_inline_states * sizeof(SCARD_READERSTATE)> storage_;
    std::uint32_t count_;
    SCARD_READERSTATE* states_ = nullptr;
};

template <class Names>
void get_status_change(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    in.skip_u32();  // cbContext
    const std::uint32_t context_ref = in.read_u32();
    const std::uint32_t timeout = in.read_u32();
    const std::uint32_t readers = in.read_u32();
    const std::uint32_t states_ref = in.read_u32();

    c_scard_service& service = scard_service();
    const SCARDCONTEXT context = context_ref ? service.find_context(in.read_handle()) : k_no_handle;

    std::uint32_t count = 0;
    if (states_ref) {
        count = in.read_u32();
        // The elements must be there before their array is allocated: a hostile count fails
        // "provide" rather than allocating gigabytes.
        if (in.remaining() / k_wire_state_size < count) throw std::runtime_error("provide");
    }
    c_reader_states states(count);
    // First the fixed 52 bytes of every element; an element whose name referent is set is
    // marked with k_name_follows until its name, deferred behind all elements, is read.
    for (std::uint32_t i = 0; i < count; ++i) {
        SCARD_READERSTATE& s = states[i];
        s.szReader = in.read_u32() ? k_name_follows : nullptr;
        s.dwCurrentState = in.read_u32();
        s.dwEventState = in.read_u32();
        s.cbAtr = in.read_u32();
        std::memcpy(s.rgbAtr, in.take(k_pcsc_atr_size), k_pcsc_atr_size);
        in.provide(k_wire_atr_size - k_pcsc_atr_size);
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        SCARD_READERSTATE& s = states[i];
        if (!s.szReader) continue;
        in.skip_u32();  // maximum count
        in.skip_u32();  // offset
        Names::read(in, in.read_u32(), s);
    }

    // PC/SC is handed cReaders states and the reply carries as many, so cReaders must not exceed
    // the elements that were sent. Such a request is refused rather than cut to the count: the
    // peer would otherwise receive fewer states than it asked for in a reply that claims success.
    std::uint32_t result;
    if (readers > count) {
        result = k_scard_e_invalid_parameter;
    } else {
        result = pcsc_result(service.SCardGetStatusChange, context, DWORD{timeout}, states.data(), DWORD{readers});
    }

    if (result == 0) {
        out.write_u32(readers);
        out.write_u32(1);
        out.write_u32(readers);
        for (std::uint32_t i = 0; i < readers; ++i) {
            const SCARD_READERSTATE& s = states[i];
            out.write_u32(static_cast<std::uint32_t>(s.dwCurrentState));
            out.write_u32(static_cast<std::uint32_t>(s.dwEventState));
            out.write_u32(static_cast<std::uint32_t>(s.cbAtr));  // as PC/SC left it, not clamped
            out.write_bytes(s.rgbAtr, k_pcsc_atr_size);
            out.write_zeros(k_wire_atr_size - k_pcsc_atr_size);
        }
    } else {
        out.write_zero_fields(2);
    }
    out.finish(result);
}

}  // namespace

void scard_get_status_change_a(c_ndr_reader& in, c_ndr_writer& out) { get_status_change<c_names_a>(in, out); }
void scard_get_status_change_w(c_ndr_reader& in, c_ndr_writer& out) { get_status_change<c_names_w>(in, out); }

}  // namespace kor::jni
