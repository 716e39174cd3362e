#include "change_notification.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

using namespace kor::jni;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Takes the place of the system's inotify_add_watch in this binary; the hook stands for the
// adding thread being held up right after the kernel placed the watch.
std::function<void()> g_after_add_watch;
extern "C" int inotify_add_watch(int fd, const char* path, std::uint32_t mask) noexcept {
    const int wd = static_cast<int>(::syscall(SYS_inotify_add_watch, fd, path, mask));
    if (wd != -1 && g_after_add_watch) g_after_add_watch();
    return wd;
}

class FsWatcher : public ::testing::Test {
protected:
    ~FsWatcher() override { fs::remove_all(root); }
    fs::path folder(const char* name) {
        fs::create_directories(root / name);
        return root / name;
    }
    int watch(const fs::path& p, int tag) { return w.add_watch(p.c_str(), 0, 0x001, tag); }
    void touch(const fs::path& dir) { std::ofstream(dir / std::to_string(files++)); }
    void start() {
        reader = std::async(std::launch::async, [this] {
            reader_thread = pthread_self();
            return w.read_change(tag);
        });
    }
    bool waiting() { return reader.wait_for(300ms) == std::future_status::timeout; }
    // {result, tag} of the started read, changing `dir` (if given) until it returns, as one read
    // drops a change that arrives with an earlier event. A read still waiting after 6 s is woken
    // and gives 0.
    std::pair<int, int> finish(const fs::path& dir = {}) {
        for (int i = 0; i < 20; ++i) {
            if (!dir.empty()) touch(dir);
            if (!waiting()) return {reader.get(), tag};
        }
        w.remove_watch(-1, true);
        reader.get();
        return {0, tag};
    }
    std::pair<int, int> read(const fs::path& dir = {}) {
        start();
        return finish(dir);
    }

    c_fs_watcher w;
    const fs::path root = fs::temp_directory_path() / ("korjnidr_watch_" + std::to_string(::getpid()));
    std::future<int> reader;
    std::atomic<pthread_t> reader_thread{};
    std::int32_t tag = 42;
    int files = 0;
};

using c_result = std::pair<int, int>;  // what read_change returned, the tag after it

TEST_F(FsWatcher, AWatchReportsItsFirstTagOnceAndMustBePlacedAgain) {
    const fs::path a = folder("a"), b = folder("b"), c = folder("c");
    watch(a, 5);
    watch(b, 6);
    const int wd_c = watch(c, 7);
    touch(a);
    EXPECT_EQ(read(), c_result(1, 5));

    start();  // neither a change on a nor a removal without stop ends this call
    touch(a);
    w.remove_watch(wd_c, false);
    w.remove_watch(-1, false);
    touch(c);
    EXPECT_TRUE(waiting());
    EXPECT_EQ(finish(b), c_result(1, 6));

    const int wd_a = watch(a, 8);
    EXPECT_EQ(watch(a, 9), wd_a);
    EXPECT_EQ(read(a), c_result(1, 8));
}

// Each wake-up ends one call, ahead of a change queued before them all.
TEST_F(FsWatcher, UnreadWakeUpsNeitherBlockNorGetLost) {
    watch(folder("a"), 5);
    const int wd_b = watch(folder("b"), 6);
    touch(root / "a");
    constexpr int k_wake_ups = 20000;  // a pipe would hold 16,384
    auto sender = std::async(std::launch::async, [&] {
        for (int i = 0; i < k_wake_ups; ++i) w.remove_watch(-1, true);
    });
    EXPECT_EQ(sender.wait_for(5s), std::future_status::ready) << "FSRemoveWatch blocked";
    int ended = 0;
    int last;
    while ((last = w.read_change(tag)) == -2) ++ended;  // reading also frees a blocked sender
    sender.get();
    EXPECT_EQ(ended, k_wake_ups);
    EXPECT_EQ(c_result(last, tag), c_result(1, 5));

    // Placing a watch, even one refused, clears stop: a's removal event no longer ends a call.
    EXPECT_THROW(w.add_watch(nullptr, 0, 0x001, 7), std::runtime_error);  // a path the locale cannot encode
    start();
    EXPECT_TRUE(waiting());
    w.remove_watch(wd_b, true);  // a live watch removed with stop
    EXPECT_EQ(finish(), c_result(-2, 5));
}

TEST_F(FsWatcher, AChangeAsTheWatchIsPlacedIsReported) {
    const fs::path a = folder("a");
    start();
    g_after_add_watch = [&] {  // the change is read while the adder stands between kernel and table
        touch(a);
        std::this_thread::sleep_for(200ms);
    };
    watch(a, 5);
    g_after_add_watch = nullptr;
    EXPECT_EQ(finish(), c_result(1, 5));
}

TEST_F(FsWatcher, InterruptedWaitReturnsMinusOne) {
    struct sigaction action {}, previous {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    start();
    // Signal until the call ends: a signal that lands before poll interrupts nothing.
    for (int i = 0; i < 20 && waiting(); ++i) pthread_kill(reader_thread, SIGUSR1);
    EXPECT_EQ(finish(), c_result(-1, 42));
    sigaction(SIGUSR1, &previous, nullptr);
}
