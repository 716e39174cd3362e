// Many threads creating owners, dispatching and closing at once. Also built as its own binary
// under ThreadSanitizer (korjnidr_scard_tsan).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "scard_fakes.h"

namespace {

using namespace scard_test;
using namespace kor::jni;

// What the dispatch methods do around scard_dispatch: take a use, run, give it back.
bytes dispatch_with_use(std::int32_t owner, std::uint32_t code, const bytes& req) {
    c_scard_use use;
    return use ? call(code, req, owner) : bytes{};
}

TEST(scard_concurrency, owners_and_dispatches_race_without_losing_the_service) {
    ASSERT_EQ(g_scard_service.load(), nullptr);
    const int before[3] = {standin_counts[0], standin_counts[1], standin_counts[2]};
    std::atomic<int> established{0}, failures{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> owners;
    for (int t = 0; t < 6; ++t) {
        owners.emplace_back([&] {
            for (int i = 0; i < 150; ++i) {
                const std::int32_t id = scard_get_owner_id();
                const bytes reply = dispatch_with_use(id, 0x00090014, request().u32s({2}).build());
                const bool ok = id > 0 && reply.size() == 40 && u32_at(reply, 16) == 0;
                (ok ? established : failures)++;
                if (ok) dispatch_with_use(id, 28, request().u32s({4, 1, 4, u32_at(reply, 32)}).build());
                for (int close = 0; close < 2; ++close) scard_cancel_pending(id);  // the second finds it closed
            }
        });
    }
    // A dispatch without an owner of its own: it finds the service or not, but never a dead one.
    std::thread rider([&] {
        while (!stop) dispatch_with_use(0, 96, {});
    });
    for (auto& t : owners) t.join();
    stop = true;
    rider.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(g_scard_service.load(), nullptr);
    // Every owner's close cancelled and released its context, exactly once.
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(standin_counts[i] - before[i], established.load()) << "EstablishContext, Cancel, ReleaseContext: " << i;
}

// Closing `other` thrice gives back its use once: the blocked call (a fake) keeps its service.
TEST(scard_concurrency, closing_the_last_owner_ends_a_blocked_call_which_then_tears_down) {
    ASSERT_EQ(g_scard_service.load(), nullptr);
    const std::int32_t owner = scard_get_owner_id(), other = scard_get_owner_id();
    with_fakes(g_scard_service.load());
    g_script = c_script{};
    g_script.wait = true;
    g_calls.clear();
    const std::uint32_t wire = u32_at(call(20, request().u32s({2}).build(), owner), 32);
    bytes reply;  // GetStatusChangeA: context, infinite time-out, no reader states, the context's array
    std::thread blocked([&] {
        reply = dispatch_with_use(owner, 160, request().u32s({4, 1, 0xFFFFFFFF, 0, 0, 4, wire}).build());
    });
    ASSERT_TRUE(wait_blocked(10000));
    for (int i = 0; i < 3; ++i) scard_cancel_pending(other);
    const bool torn_down = g_scard_service.load() == nullptr;
    EXPECT_FALSE(torn_down) << "the service went while a call was inside PC/SC";
    if (torn_down) ending("SCardCancel ctx", 0x5000);  // ends the blocked call: fail rather than hang
    scard_cancel_pending(owner);  // SCardCancel wakes the blocked call; its use keeps the service
    blocked.join();
    EXPECT_EQ(u32_at(reply, 16), 0x80100002u);  // SCARD_E_CANCELLED, as PC/SC answered
    EXPECT_EQ(g_scard_service.load(), nullptr);
    EXPECT_EQ(g_calls.back(), "SCardReleaseContext ctx=0x5000");
}

}  // namespace
