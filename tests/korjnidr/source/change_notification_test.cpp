#include "change_notification.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

using namespace kor::jni;

TEST(WatchMask, CompletionFilterTable) {
    struct { int any_file, filter; std::uint32_t mask; } const cases[] = {
        {1, 0x000, 0x0},
        {0, 0x000, 0x01000000},  // directories only, and no event: the kernel refuses it
        {1, 0x001, 0x3C0}, {1, 0x002, 0x3C0}, {1, 0x004, 0xC6}, {1, 0x008, 0x2},
        {1, 0x010, 0x4},  // last write is IN_ATTRIB, not IN_MODIFY
        {1, 0x020, 0x4}, {1, 0x100, 0x4}, {0, 0x011, 0x010003C4},
        {1, 0x040 | 0x080 | 0x200 | 0x400 | 0x800, 0x0},  // creation, extended attributes, streams
        {7, 0x1FF, 0x3C0 | 0xC6},  // any non-zero any_file allows files
        {1, -1, 0x3C0 | 0xC6},
    };
    for (const auto& c : cases)
        EXPECT_EQ(watch_mask(c.any_file, c.filter), c.mask) << "any_file " << c.any_file << " filter " << c.filter;
}

TEST(FsWatcher, InterruptedWaitReturnsMinusOne) {
    struct sigaction action {}, previous {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    c_fs_watcher w;
    std::int32_t tag = 42;
    std::atomic<int> result{0};  // read_change never returns 0
    std::thread reader([&] { result = w.read_change(&tag); });
    // Signal until the call ends (a signal that lands before poll is not an interruption); past
    // 10 s a wake-up ends it instead, and the test fails on its -2.
    for (int i = 0; i < 200 && result == 0; ++i) {
        pthread_kill(reader.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (result == 0) w.remove_watch(-1, true);
    reader.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(tag, 42);
    sigaction(SIGUSR1, &previous, nullptr);
}
