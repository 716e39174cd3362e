#include "change_notification.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "kor_plox_ldm_NativeLDM.h"

namespace kor::jni {

namespace {

constexpr char k_add_watch_failed[] = "inotify_add_watch(inc_inotify_fd, strp_pathname, unp_mask) returns -1";

int opened(int fd, const char* failure) {
    if (fd == -1) throw std::runtime_error(failure);
    return fd;
}

constexpr std::uint32_t k_names = IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;

struct c_filter_events {
    std::uint32_t filter_bit;
    std::uint32_t events;
};

// One row per completion-filter bit that inotify can follow.
constexpr c_filter_events k_filter_events[] = {
    {0x001, k_names},                                                // file name
    {0x002, k_names},                                                // directory name
    {0x004, IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO},    // attributes
    {0x008, IN_MODIFY},                                              // size
    {0x010, IN_ATTRIB},                                              // last write
    {0x020, IN_ATTRIB},                                              // last access
    {0x100, IN_ATTRIB},                                              // security
};

}  // namespace

std::uint32_t watch_mask(int any_file, int filter) noexcept {
    std::uint32_t unp_mask = any_file == 0 ? IN_ONLYDIR : 0;
    const auto bits = static_cast<std::uint32_t>(filter);
    for (const auto& row : k_filter_events)
        if (bits & row.filter_bit) unp_mask |= row.events;
    return unp_mask;
}

c_fs_watcher::c_descriptor::~c_descriptor() { ::close(fd_); }

// Wake-ups are a counter rather than bytes in a pipe: a pipe fills after 16,384 unread wake-ups
// and the next FSRemoveWatch would block for ever. In semaphore mode each read takes exactly one
// wake-up, so each still ends exactly one later read_change; non-blocking, so no call ever
// waits on it (the counter overflows only after 2^64 - 2 unread wake-ups).
c_fs_watcher::c_fs_watcher()
    : inrc_fd(opened(::eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK), "eventfd(inrc_fd) == -1")),
      inc_inotify_fd(opened(::inotify_init(), "inotify_init() returns -1")) {}

int c_fs_watcher::add_watch(const char* strp_pathname, int any_file, int filter, int tag) {
    stop_reading = false;
    const std::uint32_t unp_mask = watch_mask(any_file, filter);
    // The watch and its table entry appear to the reader as one step: a change that arrives the
    // moment the kernel places the watch makes the reader wait here for the entry instead of
    // finding none and dropping the change (which would also leave a stale entry). The lock is
    // held across inotify_add_watch only; poll and read never run under it.
    c_mutex_lock lock(mutex);
    // An unencodable path is refused here rather than handing inotify whatever prefix the
    // conversion left behind, which could name an existing directory.
    const int wd = strp_pathname ? ::inotify_add_watch(inc_inotify_fd.get(), strp_pathname, unp_mask) : -1;
    if (wd == -1) throw std::runtime_error(k_add_watch_failed);
    watches.emplace(wd, tag);  // a repeated watch keeps its first tag
    return wd;
}

void c_fs_watcher::remove_watch(int wd, bool stop) {
    stop_reading = stop;  // before the removal, so its IN_IGNORED event is judged by this value
    if (::inotify_rm_watch(inc_inotify_fd.get(), wd) != -1) {
        c_mutex_lock lock(mutex);
        watches.erase(wd);
        return;
    }
    if (stop) {
        const std::uint64_t one = 1;
        const ssize_t written = ::write(inrc_fd.get(), &one, sizeof one);
        static_cast<void>(written);
    }
}

// False when another thread took the wake-up first (only one may wait; this keeps a second one
// from ending without consuming anything).
bool c_fs_watcher::take_wake_up() noexcept {
    std::uint64_t one;
    return ::read(inrc_fd.get(), &one, sizeof one) == sizeof one;
}

// Called once the kernel watch is removed: moves wd's tag out of the table, false when unknown.
bool c_fs_watcher::take_tag(int wd, std::int32_t& tag) {
    c_mutex_lock lock(mutex);
    const auto found = watches.find(wd);
    if (found == watches.end()) return false;
    tag = found->second;
    watches.erase(found);
    return true;
}

int c_fs_watcher::read_change(std::int32_t& tag) {
    pollfd poll_fds[2] = {{inrc_fd.get(), POLLIN, 0}, {inc_inotify_fd.get(), POLLIN, 0}};
    for (;;) {
        poll_fds[0].revents = 0;
        poll_fds[1].revents = 0;
        if (::poll(poll_fds, 2, -1) == -1) return -1;  // EINTR too: whatever is queued stays queued

        // With both descriptors readable the wake-up wins: the caller asked to stop, and the
        // inotify events stay queued in the kernel for the next call, so neither is lost and
        // no call ends without consuming something.
        if (poll_fds[0].revents == POLLIN) {
            if (take_wake_up()) return -2;
            continue;
        }
        if (poll_fds[1].revents != POLLIN) return -1;

        alignas(inotify_event) unsigned char buffer[1024];
        const ssize_t n = ::read(inc_inotify_fd.get(), buffer, sizeof buffer);
        if (n == -1) throw std::runtime_error("read(inotify_fd, buffer, sizeof(buffer)) returns -1");
        // The kernel hands out whole events only; a shorter read carries none.
        if (static_cast<std::size_t>(n) < sizeof(inotify_event)) continue;
        inotify_event event;
        std::memcpy(&event, buffer, sizeof event);  // the first event only; the rest are dropped

        if (event.mask & IN_IGNORED) {
            if (stop_reading) return -2;
            continue;
        }
        // Fails for a watch already gone and for events without a watch (queue overflow, wd -1).
        if (::inotify_rm_watch(inc_inotify_fd.get(), event.wd) != 0) continue;
        if (take_tag(event.wd, tag)) return 1;
    }
}

}  // namespace kor::jni

// ---- JNI entry points --------------------------------------------------------------------------

using namespace kor::jni;

namespace {

c_fs_watcher* watcher_of(jlong handle) { return reinterpret_cast<c_fs_watcher*>(static_cast<std::intptr_t>(handle)); }

jlong handle_of(c_fs_watcher* watcher) { return static_cast<jlong>(reinterpret_cast<std::intptr_t>(watcher)); }

}  // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_kor_plox_ldm_NativeLDM_FSInit(JNIEnv* env, jclass, jlong handle, jint op) {
    return exception_frame(env, jlong{-1}, [&]() -> jlong {
        switch (op) {
            case 1:
                return handle_of(new c_fs_watcher());
            case 2:
                delete watcher_of(handle);  // a 0 handle is a null pointer: nothing to do
                return 0;
            default:
                return -1;
        }
    });
}

JNIEXPORT jlong JNICALL Java_kor_plox_ldm_NativeLDM_FSAddWatch(JNIEnv* env, jclass, jlong handle, jstring path,
                                                              jint any_file, jint filter, jint tag) {
    return exception_frame(env, jlong{-1}, [&]() -> jlong {
        const c_native_path strp_pathname(env, path);
        return watcher_of(handle)->add_watch(strp_pathname.ok ? strp_pathname.c_str() : nullptr, any_file,
                                             filter, tag);
    });
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_FSRemoveWatch(JNIEnv* env, jclass, jlong handle, jstring,
                                                                    jint wd, jboolean stop) {
    return exception_frame(env, jboolean{JNI_FALSE}, [&]() -> jboolean {
        watcher_of(handle)->remove_watch(wd, stop != JNI_FALSE);
        return JNI_TRUE;
    });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_FSReadChanges(JNIEnv* env, jclass, jlong handle,
                                                                 jintArray tag) {
    return exception_frame(env, jint{-1}, [&]() -> jint {
        // Held across the wait and copied back on every way out, exceptions included; a failed Get
        // throws before the wait, so no change is lost.
        c_int_array_elements elements(env, tag);
        std::int32_t found = 0;
        const int result = watcher_of(handle)->read_change(found);
        // A zero-length array has no element to receive the tag: the change is still consumed.
        if (result == 1) elements.set_first(found);
        return result;
    });
}

}  // extern "C"
