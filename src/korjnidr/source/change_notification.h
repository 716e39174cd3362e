// Change notification: one inotify instance per watcher, watches that carry a tag of the Java
// side's choosing, and the blocking wait for the next watch that saw a change (FSInit,
// FSAddWatch, FSRemoveWatch, FSReadChanges).
#pragma once

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <map>

#include "jni_support.h"

namespace kor::jni {

// inotify event mask for a Windows completion filter (FILE_NOTIFY_CHANGE_ bits); any_file 0 adds
// IN_ONLYDIR so that only a directory can be watched. Bits without an inotify counterpart add
// nothing, so the result can be 0.
std::uint32_t watch_mask(int any_file, int filter) noexcept;

// One inotify instance with its wake-up pipe and its table of watches. Its address is the handle
// that the Java side holds; the watcher never checks it.
class c_fs_watcher {
public:
    // Throws std::runtime_error "pipe(inrc_fd) == -1" or "inotify_init() returns -1"; nothing
    // stays open after a failure.
    c_fs_watcher();
    ~c_fs_watcher();
    c_fs_watcher(const c_fs_watcher&) = delete;
    c_fs_watcher& operator=(const c_fs_watcher&) = delete;

    // Places a watch and returns its descriptor; a descriptor already in `watches` keeps its first
    // tag. A null strp_pathname stands for a path that the locale could not encode and is refused
    // like any path inotify refuses.
    int add_watch(const char* strp_pathname, int any_file, int filter, int tag);

    // Removes watch wd; when that fails and stop is true, wakes the reader through the pipe.
    void remove_watch(int wd, bool stop);

    // Waits for the next change: 1 with the watch's tag in *out (when out is not null), -2 when
    // woken on request, -1 when poll failed or reported anything but plain readability.
    int read_change(std::int32_t* out);

    int inrc_fd[2];
    pollfd poll_fds[2];
    int inc_inotify_fd;
    std::map<int, int> watches;     // watch descriptor -> tag, guarded by mutex
    std::atomic<bool> stop_reading;  // written by add and remove, read by the waiting thread
    c_mutex mutex;
};

}  // namespace kor::jni
