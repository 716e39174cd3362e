// Natives of WatchBench: the bare loop that makes FSReadChanges' system calls (poll on an inotify
// descriptor and a wake-up counter, read, inotify_rm_watch of the reported watch) in one JNI
// call, with what the harness needs around it: descriptors, watches, file creation and CPU pinning.
#include <dirent.h>
#include <fcntl.h>
#include <jni.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// A Java path as modified UTF-8 (the harness passes ASCII paths), handed to `use`.
template <class Use>
int with_path(JNIEnv* env, jstring path, Use&& use) {
    const char* p = env->GetStringUTFChars(path, nullptr);
    if (!p) return -1;
    const int r = use(p);
    env->ReleaseStringUTFChars(path, p);
    return r;
}

cpu_set_t cpus_of(jint cpu) {  // -1: every CPU the machine has
    cpu_set_t set;
    CPU_ZERO(&set);
    const auto count = static_cast<std::size_t>(sysconf(_SC_NPROCESSORS_ONLN));
    for (std::size_t c = 0; c < count; ++c)
        if (cpu < 0 || c == static_cast<std::size_t>(cpu)) CPU_SET(c, &set);
    return set;
}

}  // namespace

extern "C" {

JNIEXPORT jint JNICALL Java_kor_plox_ldm_bench_WatchBench_inotifyInit(JNIEnv*, jclass) { return inotify_init(); }

JNIEXPORT jint JNICALL Java_kor_plox_ldm_bench_WatchBench_wakeInit(JNIEnv*, jclass) {
    return eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK);
}

// The same mask FSAddWatch builds for a directory watch with the file-name filter.
JNIEXPORT jint JNICALL Java_kor_plox_ldm_bench_WatchBench_addWatch(JNIEnv* env, jclass, jint fd, jstring dir) {
    return with_path(env, dir, [&](const char* p) {
        return inotify_add_watch(fd, p, IN_ONLYDIR | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE);
    });
}

JNIEXPORT void JNICALL Java_kor_plox_ldm_bench_WatchBench_wake(JNIEnv*, jclass, jint wake_fd) {
    const std::uint64_t one = 1;
    if (write(wake_fd, &one, sizeof one) != sizeof one) std::abort();
}

// Waits like FSReadChanges: -2 for a wake-up, else the descriptor of the watch that reported,
// removed; removal events wait on.
JNIEXPORT jint JNICALL Java_kor_plox_ldm_bench_WatchBench_bareWait(JNIEnv*, jclass, jint inotify_fd,
                                                                   jint wake_fd) {
    pollfd fds[2] = {{wake_fd, POLLIN, 0}, {inotify_fd, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) == -1) return -1;
        if (fds[0].revents == POLLIN) {
            std::uint64_t one;
            if (read(wake_fd, &one, sizeof one) == sizeof one) return -2;
            continue;
        }
        alignas(inotify_event) unsigned char buffer[1024];
        if (read(inotify_fd, buffer, sizeof buffer) < static_cast<ssize_t>(sizeof(inotify_event))) continue;
        inotify_event event;
        std::memcpy(&event, buffer, sizeof event);
        if (event.mask & IN_IGNORED) continue;
        if (inotify_rm_watch(inotify_fd, event.wd) == 0) return event.wd;
    }
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_bench_WatchBench_create(JNIEnv* env, jclass, jstring file) {
    return with_path(env, file, [](const char* p) { return close(open(p, O_CREAT | O_WRONLY, 0600)); });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_bench_WatchBench_remove(JNIEnv* env, jclass, jstring file) {
    return with_path(env, file, [](const char* p) { return unlink(p); });
}

// Pins the calling thread to `cpu` (-1: every CPU).
JNIEXPORT void JNICALL Java_kor_plox_ldm_bench_WatchBench_pinThread(JNIEnv*, jclass, jint cpu) {
    const cpu_set_t set = cpus_of(cpu);
    if (sched_setaffinity(0, sizeof set, &set) != 0) std::abort();
}

// Pins every thread of the process (the JDK's own included) to `cpu` (-1: every CPU).
JNIEXPORT void JNICALL Java_kor_plox_ldm_bench_WatchBench_pinProcess(JNIEnv*, jclass, jint cpu) {
    const cpu_set_t set = cpus_of(cpu);
    DIR* tasks = opendir("/proc/self/task");
    if (!tasks) std::abort();
    while (const dirent* task = readdir(tasks))
        if (task->d_name[0] != '.') sched_setaffinity(std::atoi(task->d_name), sizeof set, &set);
    closedir(tasks);
}

}  // extern "C"
