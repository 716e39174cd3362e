// Change notification: one inotify instance per watcher, watches that carry a tag of the Java
// side's choosing, and the blocking wait for the next watch that saw a change (FSInit,
// FSAddWatch, FSRemoveWatch, FSReadChanges).
#pragma once

#include <atomic>
#include <cstdint>
#include <map>

#include "jni_support.h"

namespace kor::jni {

// inotify event mask for a Windows completion filter (FILE_NOTIFY_CHANGE_ bits); any_file 0 adds
// IN_ONLYDIR so that only a directory can be watched. Bits without an inotify counterpart add
// nothing, so the result can be 0.
std::uint32_t watch_mask(int any_file, int filter) noexcept;

// One inotify instance with its wake-up counter and its table of watches. Its address is the
// handle that the Java side holds; the watcher never checks it. One thread at a time waits in
// read_change; any threads may add and remove watches meanwhile.
class c_fs_watcher {
public:
    // Throws std::runtime_error "eventfd(inrc_fd) == -1" or "inotify_init() returns -1"; nothing
    // stays open after a failure.
    c_fs_watcher();
    c_fs_watcher(const c_fs_watcher&) = delete;
    c_fs_watcher& operator=(const c_fs_watcher&) = delete;

    // Places a watch and returns its descriptor; a descriptor already in the table keeps its
    // first tag. A null strp_pathname stands for a path that the locale could not encode and is
    // refused like any path inotify refuses.
    int add_watch(const char* strp_pathname, int any_file, int filter, int tag);

    // Removes watch wd; when that fails and stop is true, queues one wake-up for the reader.
    // Never blocks.
    void remove_watch(int wd, bool stop);

    // Waits for the next change: 1 with the watch's tag in `tag` (the watch is then gone), -2
    // when a wake-up was consumed or a removal arrived with stop set, -1 when poll failed or
    // reported anything but plain readability. `tag` is written only for 1.
    int read_change(std::int32_t& tag);

private:
    // A descriptor closed with its owner.
    class c_descriptor {
    public:
        explicit c_descriptor(int fd) noexcept : fd_(fd) {}
        ~c_descriptor();
        c_descriptor(const c_descriptor&) = delete;
        c_descriptor& operator=(const c_descriptor&) = delete;
        int get() const noexcept { return fd_; }

    private:
        int fd_;
    };

    bool take_wake_up() noexcept;
    bool take_tag(int wd, std::int32_t& tag);

    const c_descriptor inrc_fd;         // eventfd counting wake-ups not yet consumed
    const c_descriptor inc_inotify_fd;  // closed first, dropping every watch still placed
    std::map<int, int> watches;         // watch descriptor -> tag, guarded by mutex
    std::atomic<bool> stop_reading{true};  // written by add and remove, read by the waiting thread
    c_mutex mutex{false};
};

}  // namespace kor::jni
