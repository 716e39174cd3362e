// Cost the library adds to a smart card call: a Transmit and a GetStatusChange dispatched through
// the decoder, the handle tables and the encoder, against a PC/SC entry that returns at once, beside
// the bare call of that entry. Heap blocks per call are counted at malloc, which `new` reaches too:
// requests up to 2 KiB need none (GetStatusChange copies each reader name it hands PC/SC into a
// malloc'd block of its own, one per named reader). The JNI part of a dispatch (the request copied
// into inline storage, the reply written into its new Java array) is measured by DispatchBench.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kor_jnidr_scard.h"

namespace {
std::atomic<long> g_allocations{0};
}

// glibc's allocator under its own name; every other allocation function reaches it as well.
extern "C" void* __libc_malloc(std::size_t n);
extern "C" void* malloc(std::size_t n) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}

using namespace kor::jni;

namespace {

LONG fast_transmit(SCARDHANDLE, const SCARD_IO_REQUEST*, LPCBYTE, DWORD, SCARD_IO_REQUEST*, LPBYTE recv,
                   LPDWORD recv_len) {
    if (*recv_len >= 2) {
        recv[0] = 0x90;
        recv[1] = 0x00;
        *recv_len = 2;
    }
    return SCARD_S_SUCCESS;
}

LONG fast_status_change(SCARDCONTEXT, DWORD, SCARD_READERSTATE* states, DWORD n) {
    for (DWORD i = 0; i < n; ++i) states[i].dwEventState = 0x22;
    return SCARD_S_SUCCESS;
}

struct builder {
    std::vector<std::uint8_t> b{0x01, 0x10, 0x08, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0, 0, 0, 0, 0, 0, 0, 0};
    builder& u32(std::uint32_t v) {
        for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        return *this;
    }
    builder& bytes(const std::vector<std::uint8_t>& v) {
        b.insert(b.end(), v.begin(), v.end());
        while (b.size() % 4) b.push_back(0);
        return *this;
    }
};

struct service_scope {
    std::uint32_t card_wire;
    std::uint32_t context_wire;
    service_scope() {
        auto* s = new c_scard_service();
        s->SCardTransmit = fast_transmit;
        s->SCardGetStatusChange = fast_status_change;
        context_wire = s->add_context(1, 0x10);
        card_wire = s->add_card(1, 0x20);
        g_scard_service.store(s);
    }
    ~service_scope() { delete g_scard_service.exchange(nullptr); }
};

// The reply must be a success, or the timing would be that of a refusal.
void check_result(benchmark::State& state, const c_ndr_writer& out) {
    std::vector<std::uint8_t> reply(out.size());
    out.copy_to(reply.data(), reply.size());
    if (reply.size() < 20 || reply[16] | reply[17] | reply[18] | reply[19]) state.SkipWithError("call failed");
}

void report(benchmark::State& state, long before) {
    state.counters["allocs/op"] = benchmark::Counter(static_cast<double>(g_allocations.load() - before),
                                                     benchmark::Counter::kAvgIterations);
}

// Times the dispatch of one request, then checks that a last run of it succeeds.
void time_dispatch(benchmark::State& state, std::uint32_t code, const builder& req) {
    const long before = g_allocations.load();
    for (auto _ : state) {
        c_ndr_reader in(req.b.data(), req.b.size());
        c_ndr_writer out;
        scard_dispatch(1, code, in, out);
        benchmark::DoNotOptimize(out.size());
    }
    report(state, before);
    c_ndr_reader in(req.b.data(), req.b.size());
    c_ndr_writer out;
    scard_dispatch(1, code, in, out);
    check_result(state, out);
}

void BM_TransmitDispatch(benchmark::State& state) {
    service_scope scope;
    const auto apdu_len = static_cast<std::uint32_t>(state.range(0));
    builder req;
    req.u32(4).u32(1).u32(4).u32(2)              // card handle: context and card referents
        .u32(2).u32(0).u32(0)                    // send PCI: T=1, no extra bytes
        .u32(apdu_len).u32(3).u32(0).u32(0).u32(258)
        .u32(4).u32(scope.context_wire).u32(4).u32(scope.card_wire)
        .u32(apdu_len).bytes(std::vector<std::uint8_t>(apdu_len, 0xA4));
    time_dispatch(state, 0x000900D0, req);
}
// 1,900 APDU bytes make a request of 1,984 bytes, within the 2 KiB kept inline.
BENCHMARK(BM_TransmitDispatch)->Arg(5)->Arg(261)->Arg(1900);

void BM_TransmitBare(benchmark::State& state) {
    std::vector<std::uint8_t> send(static_cast<std::size_t>(state.range(0)), 0xA4), recv(258);
    SCARD_IO_REQUEST pci{2, 16};
    // Called through the entry table's pointer type, as the library calls it.
    decltype(&::SCardTransmit) volatile entry = fast_transmit;
    for (auto _ : state) {
        DWORD len = recv.size();
        benchmark::DoNotOptimize(entry(0x20, &pci, send.data(), send.size(), nullptr, recv.data(), &len));
    }
}
BENCHMARK(BM_TransmitBare)->Arg(5)->Arg(261)->Arg(1900);

void BM_GetStatusChangeDispatch(benchmark::State& state) {
    service_scope scope;
    const auto readers = static_cast<std::uint32_t>(state.range(0));
    builder req;
    req.u32(4).u32(1).u32(0).u32(readers).u32(2).u32(4).u32(scope.context_wire).u32(readers);
    for (std::uint32_t i = 0; i < readers; ++i) {
        req.u32(3).u32(0).u32(0).u32(0);
        for (int k = 0; k < 9; ++k) req.u32(0);  // 36 ATR bytes
    }
    const std::vector<std::uint8_t> name = {'V', 'i', 'r', 't', 'u', 'a', 'l', ' ', 'P', 'C', 'D', ' ', '0', '0', 0};
    for (std::uint32_t i = 0; i < readers; ++i)
        req.u32(static_cast<std::uint32_t>(name.size())).u32(0).u32(static_cast<std::uint32_t>(name.size())).bytes(name);
    time_dispatch(state, 0x000900A0, req);
}
BENCHMARK(BM_GetStatusChangeDispatch)->Arg(1)->Arg(2)->Arg(10);

}  // namespace

BENCHMARK_MAIN();
