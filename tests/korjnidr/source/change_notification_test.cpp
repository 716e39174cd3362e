#include "change_notification.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

using namespace kor::jni;

TEST(WatchMask, CompletionFilterTable) {
    struct {
        int any_file;
        int filter;
        std::uint32_t mask;
    } const cases[] = {
        {1, 0x000, 0x0},
        {0, 0x000, 0x01000000},        // directories only, and no event: the kernel refuses it
        {1, 0x001, 0x3C0},             // file name
        {1, 0x002, 0x3C0},             // directory name
        {1, 0x004, 0xC6},              // attributes
        {1, 0x008, 0x2},               // size
        {1, 0x010, 0x4},               // last write is IN_ATTRIB, not IN_MODIFY
        {1, 0x020, 0x4},               // last access
        {1, 0x100, 0x4},               // security
        {0, 0x011, 0x010003C4},
        {1, 0x040, 0x0},               // creation, extended attributes, streams: nothing
        {1, 0x080 | 0x200 | 0x400 | 0x800, 0x0},
        {7, 0x1FF, 0x3C0 | 0xC6},      // any non-zero any_file allows files
        {1, -1, 0x3C0 | 0xC6},
    };
    for (const auto& c : cases)
        EXPECT_EQ(watch_mask(c.any_file, c.filter), c.mask) << "any_file " << c.any_file << " filter " << c.filter;
}

namespace {

struct c_temp_dir {
    c_temp_dir() {
        char name[] = "/tmp/korjnidr_watch_XXXXXX";
        if (!mkdtemp(name)) throw std::runtime_error("mkdtemp");
        path = name;
    }
    ~c_temp_dir() { static_cast<void>(std::system(("rm -rf " + path).c_str())); }
    std::string sub(const char* name) const {
        const std::string p = path + "/" + name;
        mkdir(p.c_str(), 0700);
        return p;
    }
    static void touch(const std::string& file) { close(open(file.c_str(), O_CREAT | O_WRONLY, 0600)); }
    std::string path;
};

// read_change bounded in time: past the limit the reader is woken and the test fails.
int read_bounded(c_fs_watcher& w, std::int32_t* tag) {
    auto reader = std::async(std::launch::async, [&] { return w.read_change(tag); });
    if (reader.wait_for(std::chrono::seconds(10)) == std::future_status::timeout) {
        w.remove_watch(-1, true);
        reader.get();
        ADD_FAILURE() << "read_change did not return";
        return 0;
    }
    return reader.get();
}

}  // namespace

// Two changes that one read hands over: the first is reported, the second is dropped with the
// rest of the buffer, and its watch stays placed for the next change.
TEST(FsWatcher, OneReadReportsTheFirstEventOnly) {
    c_temp_dir tmp;
    const std::string a = tmp.sub("a"), b = tmp.sub("b");
    c_fs_watcher w;
    w.add_watch(a.c_str(), 0, 0x001, 5);
    const int wd_b = w.add_watch(b.c_str(), 0, 0x001, 6);
    c_temp_dir::touch(a + "/1");
    c_temp_dir::touch(b + "/1");

    std::int32_t tag = 0;
    ASSERT_EQ(read_bounded(w, &tag), 1);
    EXPECT_EQ(tag, 5);
    EXPECT_EQ(w.watches.count(wd_b), 1u);

    // a's removal event is queued now; a change read together with it would be dropped too, so
    // consume it on its own first: with stop_reading set it ends the call.
    w.stop_reading = true;
    ASSERT_EQ(read_bounded(w, &tag), -2);
    EXPECT_EQ(tag, 5);

    c_temp_dir::touch(b + "/2");
    ASSERT_EQ(read_bounded(w, &tag), 1);
    EXPECT_EQ(tag, 6);
    EXPECT_TRUE(w.watches.empty());
}

// A signal that interrupts the wait ends the call with -1; a wake-up sent afterwards is still
// there for the next call.
TEST(FsWatcher, InterruptedWaitReturnsMinusOne) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

    c_fs_watcher w;
    std::int32_t tag = 42;
    std::atomic<bool> started{false};
    pthread_t reader_thread{};
    auto reader = std::async(std::launch::async, [&] {
        reader_thread = pthread_self();
        started = true;
        return w.read_change(&tag);
    });
    while (!started) std::this_thread::yield();
    // Signal until the call ends: a signal that lands before poll is not an interruption.
    for (int i = 0; i < 200; ++i) {
        if (reader.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready) break;
        pthread_kill(reader_thread, SIGUSR1);
    }
    if (reader.wait_for(std::chrono::seconds(0)) != std::future_status::ready) w.remove_watch(-1, true);
    EXPECT_EQ(reader.get(), -1);
    EXPECT_EQ(tag, 42);

    w.remove_watch(-1, true);
    EXPECT_EQ(read_bounded(w, &tag), -2);
    sigaction(SIGUSR1, &previous, nullptr);
}
