#include "change_notification.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

using namespace kor::jni;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Runs in place of the system's inotify_add_watch for the watcher in this binary; the hook stands
// for the adding thread being held up just after the kernel placed the watch.
std::function<void()> g_after_add_watch;
extern "C" int inotify_add_watch(int fd, const char* path, std::uint32_t mask) noexcept {
    const int wd = static_cast<int>(::syscall(SYS_inotify_add_watch, fd, path, mask));
    if (wd != -1 && g_after_add_watch) g_after_add_watch();
    return wd;
}

TEST(WatchMask, CompletionFilterTable) {
    struct { int any_file, filter; std::uint32_t mask; } const cases[] = {
        {0, 0x000, 0x01000000},  // directories only, and no event: the kernel refuses it
        {1, 0x001, 0x3C0}, {1, 0x002, 0x3C0}, {1, 0x004, 0xC6}, {1, 0x008, 0x2},
        {1, 0x010, 0x4},  // last write is IN_ATTRIB, not IN_MODIFY
        {1, 0x020, 0x4}, {1, 0x100, 0x4}, {0, 0x011, 0x010003C4},
        {1, 0x040 | 0x080 | 0x200 | 0x400 | 0x800, 0x0},  // creation, extended attributes, streams
        {7, -1, 0x3C0 | 0xC6},  // any non-zero any_file allows files
    };
    for (const auto& c : cases)
        EXPECT_EQ(watch_mask(c.any_file, c.filter), c.mask) << "any_file " << c.any_file << " filter " << c.filter;
}

class FsWatcher : public ::testing::Test {
protected:
    // read_change on its own thread, its tag starting at 42.
    struct c_reader {
        explicit c_reader(c_fs_watcher& w) : result(std::async(std::launch::async, [&w, this] { return w.read_change(tag); })) {}
        std::int32_t tag = 42;
        std::future<int> result;
    };

    ~FsWatcher() override { fs::remove_all(root); }

    fs::path folder(const char* name) {
        fs::create_directories(root / name);
        return root / name;
    }
    int watch(const fs::path& p, int tag) { return w.add_watch(p.c_str(), 0, 0x001, tag); }
    void touch(const fs::path& dir) { std::ofstream(dir / ("f" + std::to_string(files++))); }

    // The reader's result, changing `dir` (when given) until it returns: one read drops a change
    // that arrives with an earlier event. A reader still waiting after `limit` is woken; 0 then.
    int result(c_reader& r, const fs::path* dir = nullptr, std::chrono::milliseconds limit = 10s) {
        for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
            if (dir) touch(*dir);
            if (r.result.wait_for(100ms) == std::future_status::ready) return r.result.get();
        }
        w.remove_watch(-1, true);
        r.result.get();
        return 0;
    }
    static bool waiting(c_reader& r) { return r.result.wait_for(300ms) == std::future_status::timeout; }

    c_fs_watcher w;
    const fs::path root = fs::temp_directory_path() / ("korjnidr_watch_" + std::to_string(::getpid()));
    int files = 0;
};

TEST_F(FsWatcher, AWatchReportsItsTagOnceAndMustBePlacedAgain) {
    const fs::path a = folder("a"), b = folder("b"), c = folder("c");
    watch(a, 5);
    watch(b, 6);
    const int wd_c = watch(c, 7);
    touch(a);
    c_reader first(w);
    EXPECT_EQ(result(first), 1);
    EXPECT_EQ(first.tag, 5);

    c_reader next(w);  // neither a change on a nor a removal without stop ends it
    touch(a);
    w.remove_watch(wd_c, false);
    w.remove_watch(-1, false);
    touch(c);
    EXPECT_TRUE(waiting(next));
    EXPECT_EQ(result(next, &b), 1);
    EXPECT_EQ(next.tag, 6);

    const int wd_a = watch(a, 8);
    EXPECT_EQ(watch(a, 9), wd_a);  // a repeated watch keeps its first tag
    c_reader again(w);
    EXPECT_EQ(result(again, &a), 1);
    EXPECT_EQ(again.tag, 8);
}

TEST_F(FsWatcher, EachWakeUpEndsOneCallAheadOfAQueuedChange) {
    const fs::path a = folder("a");
    watch(a, 5);
    touch(a);
    w.remove_watch(-1, true);
    w.remove_watch(12345, true);
    std::int32_t tag = 42;
    EXPECT_EQ(w.read_change(tag), -2);
    EXPECT_EQ(w.read_change(tag), -2);
    EXPECT_EQ(tag, 42);
    EXPECT_EQ(w.read_change(tag), 1);
    EXPECT_EQ(tag, 5);

    const int wd_b = watch(folder("b"), 6);  // placing a watch clears stop: a's removal ends nothing
    c_reader waiter(w);
    EXPECT_TRUE(waiting(waiter));
    w.remove_watch(wd_b, true);  // a live watch removed with stop
    EXPECT_EQ(result(waiter), -2);
    EXPECT_EQ(waiter.tag, 42);
}

TEST_F(FsWatcher, RefusedWatchesThrowAndStillClearStop) {
    const fs::path a = folder("a"), b = folder("b"), file = root / "plain";
    std::ofstream{file};
    const int wd_a = watch(a, 5);
    watch(b, 6);
    w.remove_watch(wd_a, true);  // queues a's removal with stop set
    struct { const char* path; int any_file, filter; } const refused[] = {
        {nullptr, 0, 1},        // a path the locale cannot encode
        {"/nonexistent", 0, 1},
        {file.c_str(), 0, 1},   // directories only
        {a.c_str(), 1, 0x040},  // creation time: no inotify event, so an empty mask
    };
    for (const auto& r : refused) {
        try {
            w.add_watch(r.path, r.any_file, r.filter, 7);
            ADD_FAILURE() << "accepted " << (r.path ? r.path : "null");
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "inotify_add_watch(inc_inotify_fd, strp_pathname, unp_mask) returns -1");
        }
    }
    c_reader reader(w);
    EXPECT_EQ(result(reader, &b), 1);  // a's removal no longer ends the wait
    EXPECT_EQ(reader.tag, 6);
    EXPECT_GE(w.add_watch(file.c_str(), 1, 0x008, 1), 1);
}

TEST_F(FsWatcher, UnreadWakeUpsNeitherBlockNorGetLost) {
    const fs::path a = folder("a");
    watch(a, 5);
    touch(a);  // queued behind every wake-up: it ends the call after the last one
    constexpr int k_wake_ups = 20000;  // a pipe would hold 16,384
    std::atomic<bool> sent{false};
    std::thread sender([&] {
        for (int i = 0; i < k_wake_ups; ++i) w.remove_watch(-1, true);
        sent = true;
    });
    for (int i = 0; i < 100 && !sent; ++i) std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(sent) << "FSRemoveWatch blocked on wake-ups that nobody read";
    std::int32_t tag = 42;
    int ended = 0, last;
    while ((last = w.read_change(tag)) == -2) ++ended;  // reading also frees a blocked sender
    sender.join();
    EXPECT_EQ(ended, k_wake_ups);
    EXPECT_EQ(last, 1);
    EXPECT_EQ(tag, 5);
}

TEST_F(FsWatcher, AChangeAsTheWatchIsPlacedIsReported) {
    const fs::path a = folder("a");
    c_reader reader(w);
    // The change is read while the adding thread still stands between the kernel and the table.
    g_after_add_watch = [&] {
        touch(a);
        std::this_thread::sleep_for(200ms);
    };
    watch(a, 5);
    g_after_add_watch = nullptr;
    EXPECT_EQ(result(reader, nullptr, 2s), 1);
    EXPECT_EQ(reader.tag, 5);
}

TEST_F(FsWatcher, InterruptedWaitReturnsMinusOne) {
    struct sigaction action {}, previous {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    std::int32_t tag = 42;
    std::atomic<int> result{0};  // read_change never returns 0
    std::thread reader([&] { result = w.read_change(tag); });
    // Signal until the call ends (a signal that lands before poll is not an interruption); past
    // 10 s a wake-up ends it instead, and the test fails on its -2.
    for (int i = 0; i < 200 && result == 0; ++i) {
        pthread_kill(reader.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(50ms);
    }
    if (result == 0) w.remove_watch(-1, true);
    reader.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(tag, 42);
    sigaction(SIGUSR1, &previous, nullptr);
}
