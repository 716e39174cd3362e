// Many threads creating owners, dispatching and closing at once. Also built as its own binary
// under ThreadSanitizer (korjnidr_scard_tsan).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "scard_test_support.h"

namespace {

using namespace scard_test;
using namespace kor::jni;

// What the dispatch methods do around scard_dispatch: take a use, run, give it back.
bool dispatch_with_use(std::int32_t owner, std::uint32_t code, const bytes& req, bytes* reply = nullptr) {
    c_scard_use use;
    if (!use) return false;
    c_ndr_reader in(req.data(), req.size());
    c_ndr_writer out;
    scard_dispatch(owner, code, in, out);
    if (reply) *reply = reply_bytes(out);
    return true;
}

std::size_t count_prefix(const std::vector<std::string>& calls, const std::string& prefix) {
    return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), [&](const std::string& c) {
        return c.compare(0, prefix.size(), prefix) == 0;
    }));
}

TEST(scard_concurrency, owners_and_dispatches_race_without_losing_the_service) {
    ASSERT_EQ(g_scard_service.load(), nullptr);
    standin::get().reset();
    constexpr int k_owners = 6, k_riders = 2, k_rounds = 150;
    std::atomic<int> established{0}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < k_owners; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < k_rounds; ++i) {
                const std::int32_t id = scard_get_owner_id();
                if (id <= 0) {
                    ++failures;
                    continue;
                }
                bytes reply;
                if (!dispatch_with_use(id, 0x00090014, request().u32(2).build(), &reply) || result_of(reply) != 0) {
                    ++failures;
                } else {
                    ++established;
                    dispatch_with_use(id, 28, request().u32s({4, 1}).handle(u32_at(reply, 32)).build());
                }
                scard_cancel_pending(id);
            }
        });
    }
    // Dispatches without an owner of their own: they find the service or not, but never a dead one.
    std::atomic<bool> stop{false};
    for (int t = 0; t < k_riders; ++t) {
        threads.emplace_back([&] {
            while (!stop) dispatch_with_use(0, 96, {});
        });
    }
    for (int t = 0; t < k_owners; ++t) threads[static_cast<std::size_t>(t)].join();
    stop = true;
    for (int t = k_owners; t < k_owners + k_riders; ++t) threads[static_cast<std::size_t>(t)].join();

    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(g_scard_service.load(), nullptr);
    const auto calls = standin::get().calls();
    // Every owner's context was released by its close, exactly once.
    EXPECT_EQ(count_prefix(calls, "SCardEstablishContext"), static_cast<std::size_t>(established.load()));
    EXPECT_EQ(count_prefix(calls, "SCardReleaseContext"), static_cast<std::size_t>(established.load()));
    EXPECT_EQ(count_prefix(calls, "SCardCancel"), static_cast<std::size_t>(established.load()));
    EXPECT_FALSE(c_scard_use());
}

TEST(scard_concurrency, closing_the_last_owner_ends_a_blocked_call_which_then_tears_down) {
    ASSERT_EQ(g_scard_service.load(), nullptr);
    standin::get().reset();
    standin::get().script("SCardGetStatusChange block=1");
    const std::int32_t owner = scard_get_owner_id();
    const std::uint32_t wire = u32_at(call(20, request().u32(2).build(), owner), 32);
    bytes reply;
    std::thread blocked([&] {
        // GetStatusChangeA: context, infinite time-out, no reader states.
        dispatch_with_use(owner, 160, request().u32s({4, 1, 0xFFFFFFFF, 0, 0}).handle(wire).build(), &reply);
    });
    ASSERT_TRUE(standin::get().wait_blocked(1, 10000));
    scard_cancel_pending(owner);  // SCardCancel wakes the blocked call; its use keeps the service
    blocked.join();
    EXPECT_EQ(result_of(reply), 0x80100002u);  // SCARD_E_CANCELLED, as PC/SC answered
    EXPECT_EQ(g_scard_service.load(), nullptr);
    const auto calls = standin::get().calls();
    EXPECT_EQ(calls.back(), "SCardReleaseContext ctx=0xc0000001");
    standin::get().reset();
}

}  // namespace
