// GetAttrib in allocate mode frees every block PC/SC hands over: also one that PC/SC stored before
// it answered 0x8010001F and the fallback answered in its place. (That no block is read past its
// end is a data case, control.cases.)
#include <malloc.h>

#include "scard_fakes.h"

namespace {

using namespace scard_test;

long long heap_in_use() {
    const struct mallinfo2 m = mallinfo2();
    return static_cast<long long>(m.uordblks + m.hblkhd);
}

TEST(ScardGetAttrib, AllocatedBlocksAreFreedOnEveryPath) {
    g_scard_service.store(fake_service());
    scard_service().add_card(1, 0xCA4D);
    scard_service().add_reader(0xCA4D, 2, "R1");
    struct {
        std::uint32_t attr, result;
    } const cases[] = {
        {k_attr_friendly_name_a, 0},         // the fallback's block replaces PC/SC's
        {0x00010100, k_scard_e_unsupported_feature},  // PC/SC's answer stands
    };
    for (const auto& c : cases) {
        g_script = c_script{}, g_calls.clear();
        g_script.results = {static_cast<LONG>(k_scard_e_unsupported_feature)};
        g_script.out = bytes(std::size_t{1} << 20, 0x5A);  // a block that a leak cannot hide
        const long long before = heap_in_use();
        const bytes reply = call(216, request().u32s({0, 0, 4, 1, c.attr, 0, 0xFFFFFFFF}).handle(1).build());
        EXPECT_EQ(result_of(reply), c.result);
        EXPECT_LT(heap_in_use() - before, 1 << 19) << std::hex << c.attr;
    }
    delete g_scard_service.exchange(nullptr);
}

}  // namespace
