// Latency from a file creation to the return of a thread blocked waiting for it: the watcher's
// read_change beside a bare poll-and-read loop on a raw inotify descriptor. Only the time from
// just before the creation to the waiting thread's return is counted.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "change_notification.h"

namespace {

using c_clock = std::chrono::steady_clock;

struct c_temp_dir {
    c_temp_dir() {
        char name[] = "/tmp/korjnidr_bench_XXXXXX";
        if (!mkdtemp(name)) throw std::runtime_error("mkdtemp");
        path = name;
    }
    ~c_temp_dir() { static_cast<void>(std::system(("rm -rf " + path).c_str())); }
    std::string path;
};

// The waiting thread's return time, handed to the benchmark thread.
class c_handoff {
public:
    void returned() {
        const auto at = c_clock::now();
        std::lock_guard<std::mutex> lock(m_);
        at_ = at;
        ++count_;
        cv_.notify_one();
    }
    c_clock::time_point wait_for(std::uint64_t count) {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [&] { return count_ >= count; });
        return at_;
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    c_clock::time_point at_;
    std::uint64_t count_ = 0;
};

// Creates `file`, waits for the waiting thread to see it, removes the file again. Returns the
// seconds from the creation to the waiting thread's return.
double one_change(const std::string& file, c_handoff& handoff, std::uint64_t& seen) {
    // Let the waiting thread settle in poll first (it may still be consuming a removal event).
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    const auto start = c_clock::now();
    close(open(file.c_str(), O_CREAT | O_WRONLY, 0600));
    const auto end = handoff.wait_for(++seen);
    unlink(file.c_str());
    return std::chrono::duration<double>(end - start).count();
}

void BM_WatcherReadChange(benchmark::State& state) {
    c_temp_dir dir;
    kor::jni::c_fs_watcher watcher;
    c_handoff handoff;
    std::thread reader([&] {
        std::int32_t tag = 0;
        while (watcher.read_change(&tag) == 1) handoff.returned();
    });
    const std::string file = dir.path + "/f";
    std::uint64_t seen = 0;
    for (auto _ : state) {
        watcher.add_watch(dir.path.c_str(), 0, 0x001, 5);  // a watch reports once
        state.SetIterationTime(one_change(file, handoff, seen));
    }
    watcher.remove_watch(-1, true);
    reader.join();
}

void BM_RawInotifyPoll(benchmark::State& state) {
    c_temp_dir dir;
    const int fd = inotify_init();
    inotify_add_watch(fd, dir.path.c_str(), IN_CREATE);
    c_handoff handoff;
    std::atomic<bool> stop{false};  // set before the last creation
    std::thread reader([&] {
        pollfd p{fd, POLLIN, 0};
        alignas(inotify_event) unsigned char buffer[1024];
        for (;;) {
            poll(&p, 1, -1);
            if (read(fd, buffer, sizeof buffer) <= 0) return;
            handoff.returned();
            if (stop) return;
        }
    });
    const std::string file = dir.path + "/f";
    std::uint64_t seen = 0;
    for (auto _ : state) state.SetIterationTime(one_change(file, handoff, seen));
    stop = true;
    one_change(file, handoff, seen);
    reader.join();
    close(fd);
}

}  // namespace

BENCHMARK(BM_WatcherReadChange)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(3000)->Repetitions(3);
BENCHMARK(BM_RawInotifyPoll)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(3000)->Repetitions(3);

BENCHMARK_MAIN();
