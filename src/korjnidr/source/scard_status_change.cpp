// GetStatusChangeA (160) and GetStatusChangeW (164): the peer's reader states become PC/SC's
// SCARD_READERSTATE array, one SCardGetStatusChange call (which may block until a timeout, a
// change, a Cancel or the close of the context's owner) and the updated states go back.
#include <cstdlib>
#include <cstring>
#include <new>

#include "scard_handler.h"

namespace kor::jni {
namespace {

static_assert(sizeof(SCARD_READERSTATE{}.rgbAtr) == MAX_ATR_SIZE, "PC/SC keeps MAX_ATR_SIZE ATR bytes per state");

// Marks a state whose name is still to be read; never reaches PC/SC.
const char k_name_follows[] = "";

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

    std::uint32_t size() const noexcept { return count_; }
    SCARD_READERSTATE* data() const noexcept { return count_ ? states_ : nullptr; }
    SCARD_READERSTATE& operator[](std::uint32_t i) const noexcept { return states_[i]; }

    // Points state i at its own copy of `name`, which pvUserData keeps for the release.
    void set_name(std::uint32_t i, const char* name) {
        const std::size_t n = std::strlen(name) + 1;
        auto* copy = static_cast<char*>(std::malloc(n));
        if (!copy) throw std::bad_alloc();
        std::memcpy(copy, name, n);
        states_[i].pvUserData = copy;
        states_[i].szReader = copy;
    }

    static constexpr std::size_t k_inline_states = 1024 / sizeof(SCARD_READERSTATE);

private:
    c_inline_buffer<k_inline_states * sizeof(SCARD_READERSTATE)> storage_;
    std::uint32_t count_;
    SCARD_READERSTATE* states_ = nullptr;
};

// First the fixed 52 bytes of every element (`elements`); then, behind all of them in `in`, the
// name of each element whose referent is set, narrowed to 8-bit text for PC/SC.
template <class Text>
void read_states(c_ndr_reader& in, c_ndr_reader elements, c_reader_states& states) {
    for (std::uint32_t i = 0; i < states.size(); ++i) {
        SCARD_READERSTATE& s = states[i];
        s.szReader = elements.read_u32() ? k_name_follows : nullptr;
        s.dwCurrentState = elements.read_u32();
        s.dwEventState = elements.read_u32();
        s.cbAtr = elements.read_u32();
        std::memcpy(s.rgbAtr, elements.take(MAX_ATR_SIZE), MAX_ATR_SIZE);
        elements.provide(k_wire_state_atr - MAX_ATR_SIZE);
    }
    typename Text::buffer units;
    c_inline_buffer<1024> narrowed;
    for (std::uint32_t i = 0; i < states.size(); ++i)
        if (states[i].szReader) states.set_name(i, Text::narrow(Text::read_string(in, units), narrowed));
}

void write_states(c_ndr_writer& out, const c_reader_states& states, std::uint32_t readers) {
    out.write_u32(readers);
    out.write_u32(k_referent);
    out.write_u32(readers);
    for (std::uint32_t i = 0; i < readers; ++i) {
        const SCARD_READERSTATE& s = states[i];
        out.write_u32(static_cast<std::uint32_t>(s.dwCurrentState));
        out.write_u32(static_cast<std::uint32_t>(s.dwEventState));
        out.write_u32(static_cast<std::uint32_t>(s.cbAtr));  // as PC/SC left it, not clamped
        out.write_bytes(s.rgbAtr, MAX_ATR_SIZE);
        out.write_zeros(k_wire_state_atr - MAX_ATR_SIZE);
    }
}

template <class Text>
void get_status_change(c_ndr_reader& in, c_ndr_writer& out) {
    in.read_header();
    const c_context_ref context_arg = c_context_ref::read(in);
    const std::uint32_t timeout = in.read_u32();
    const std::uint32_t readers = in.read_u32();
    const std::uint32_t states_ref = in.read_u32();
    const SCARDCONTEXT context = context_arg.find(in);

    // The elements are taken (and so known to be there) before their array is allocated.
    const std::uint32_t count = states_ref ? in.read_u32() : 0;
    const std::uint8_t* elements = in.take_units(count, k_wire_state_size);
    c_reader_states states(count);
    read_states<Text>(in, c_ndr_reader(elements, std::size_t{count} * k_wire_state_size), states);

    // PC/SC is handed cReaders states and the reply carries as many, so cReaders must not exceed
    // the elements that were sent. Such a request is refused rather than cut to the count: the
    // peer would otherwise receive fewer states than it asked for in a reply that claims success.
    const std::uint32_t result =
        readers > count ? k_scard_e_invalid_parameter
                        : pcsc_result(scard_service().SCardGetStatusChange, context, DWORD{timeout}, states.data(),
                                      DWORD{readers});
    if (result == 0)
        write_states(out, states, readers);
    else
        out.write_zero_fields(2);
    out.finish(result);
}

}  // namespace

void scard_get_status_change_a(c_ndr_reader& in, c_ndr_writer& out) { get_status_change<c_text_a>(in, out); }
void scard_get_status_change_w(c_ndr_reader& in, c_ndr_writer& out) { get_status_change<c_text_w>(in, out); }

}  // namespace kor::jni
