// The m_native_unix_* bridges: one POSIX call each under the errno frame. Descriptor calls first,
// then the calls that take a path, then the directory stream.
#include "drive_redirection.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "kor_plox_ldm_NativeLDM.h"

namespace kor::jni {

int translate_open_flags(std::int32_t java_flags) noexcept {
    static constexpr struct {
        std::int32_t java;
        int linux_flag;
    } k_flags[] = {{0x4, O_NONBLOCK}, {0x80, O_SYNC}, {0x200, O_TRUNC}, {0x400, O_EXCL}};
    int flags = java_flags & 3;
    for (const auto& f : k_flags)
        if (java_flags & f.java) flags |= f.linux_flag;
    return flags;
}

bool byte_range_ok(std::int32_t length, std::int32_t start, std::int32_t count) noexcept {
    return start >= 0 && count >= 0 && start <= length && count <= length - start;
}

namespace {

// ---- byte transfers ----------------------------------------------------------------------------
//
// read, pread, write and pwrite move only the bytes the call moves between the Java array and the
// kernel: [start, start + count) out of the array for a write, [0, done) into it after a read.
// Nothing else of the array is read or written, so the cost follows the count, not the array's
// length, a failed call leaves the array as it was, and no copy-back overwrites what another Java
// thread writes beside the range meanwhile. A range outside the array reports EFAULT with no
// system call, as the kernel would for a bad user pointer; so does a null array.

// Above this a transfer goes through a block of its own: no thread keeps a one-off huge block, and
// no pin holds off the collector for longer than the copy of this many bytes.
constexpr std::size_t k_large_transfer = std::size_t{1} << 20;

// The kernel copies with `rep movsb`, which on the processors measured crawls when the destination
// lies a few bytes past the source modulo a page (the loads seem to wait on the stores just made):
// a 64 KiB pread straight into an array 8 bytes past the file's page offset ran at 2.5 GB/s, through
// scratch at 6.1, straight into one 40 bytes past at 6.9.
constexpr std::uintptr_t k_page = 4096;

bool copy_crawls(std::uintptr_t destination, std::uintptr_t source) noexcept {
    const std::uintptr_t distance = (destination - source) % k_page;
    return distance != 0 && distance < 32;
}

using c_page_block = std::unique_ptr<jbyte, void (*)(void*)>;

c_page_block page_block(std::size_t size) {
    void* block = std::aligned_alloc(k_page, (size + k_page - 1) / k_page * k_page);
    if (!block) throw std::bad_alloc();
    return c_page_block(static_cast<jbyte*>(block), std::free);
}

// Native scratch for one transfer: a block that the thread keeps and reuses (pages it never touches
// stay unmapped), or a block of the call's own above k_large_transfer. The bytes start half a page
// from where the file's bytes sit in their page-cache page (`file_offset`, 0 when unknown), far
// from the distances at which the kernel's copy crawls (a read at the own offset into scratch 16
// bytes past a page ran 5 % slower).
class c_transfer_buffer {
public:
    c_transfer_buffer(std::size_t count, off_t file_offset) {
        jbyte* block;
        if (count <= k_large_transfer) {
            thread_local const c_page_block kept = page_block(k_large_transfer + k_page);
            block = kept.get();
        } else {
            own_ = page_block(count + k_page);
            block = own_.get();
        }
        data_ = block + (static_cast<std::uintptr_t>(file_offset) + k_page / 2) % k_page;
    }
    jbyte* data() const noexcept { return data_; }

private:
    c_page_block own_{nullptr, std::free};
    jbyte* data_;
};

// One read or write on a descriptor: at `position` for pread and pwrite, at the descriptor's own
// offset for read and write. `skip` moves past bytes an earlier part of the same read took.
struct c_transfer {
    int fd;
    bool positional;
    off_t position;

    ssize_t read(void* at, std::size_t n, off_t skip, int flags) const {
        if (!positional) return ::read(fd, at, n);
        if (flags == 0) return ::pread(fd, at, n, position + skip);
        iovec v{at, n};
        return ::preadv2(fd, &v, 1, position + skip, flags);
    }
    ssize_t write(const void* at, std::size_t n) const {
        return positional ? ::pwrite(fd, at, n, position) : ::write(fd, at, n);
    }
};

bool range_refused(JNIEnv* env, jbyteArray buf, jint start, jint count) {
    return !buf || !byte_range_ok(env->GetArrayLength(buf), start, count);
}

// The ordinary read: into native scratch, then the bytes read into the array.
ssize_t read_through_scratch(JNIEnv* env, const c_transfer& t, jbyteArray buf, jint at, std::size_t count) {
    c_transfer_buffer scratch(count, t.positional ? t.position + at : 0);
    const ssize_t n = t.read(scratch.data(), count, at, 0);
    if (n > 0) env->SetByteArrayRegion(buf, at, static_cast<jsize>(n), scratch.data());
    return n;
}

// A pread straight into the array, pinned, that never waits: RWF_NOWAIT takes only what the page
// cache holds (a pinned array holds off the collector, so the pin must never span a wait for a
// disk, a network file system or another thread). HotSpot copies nothing for the pin, so a cached
// read costs the kernel's copy alone, where the ordinary read adds a second one. Returns -1
// when nothing was read this way (not cached, a kernel or file system without the flag, or a
// position pread refuses, or an array at a distance where the kernel's copy crawls): the ordinary
// pread then runs and reports errno. A read at the
// descriptor's own offset is always one ordinary read(2): finishing a short cached part with a
// second call would let another thread's read on the same descriptor land between the two.
ssize_t read_pinned(JNIEnv* env, const c_transfer& t, jbyteArray buf, std::size_t count) {
    // A negative position is pread's own EINVAL (preadv2 would take -1 for the own offset).
    if (!t.positional || t.position < 0 || count > k_large_transfer) return -1;
    void* array = got_from_jni(env->GetPrimitiveArrayCritical(buf, nullptr), "GetPrimitiveArrayCritical");
    if (copy_crawls(reinterpret_cast<std::uintptr_t>(array), static_cast<std::uintptr_t>(t.position))) {
        env->ReleasePrimitiveArrayCritical(buf, array, JNI_ABORT);
        return -1;  // scratch at a good distance plus the user-space copy beat the crawl
    }
    const ssize_t n = t.read(array, count, 0, RWF_NOWAIT);
    env->ReleasePrimitiveArrayCritical(buf, array, n > 0 ? 0 : JNI_ABORT);
    return n;
}

// A file or block device may answer a cached prefix short: the rest is read as one ordinary pread
// would have, and a failure there still reports the prefix. Other descriptors that take a position
// answer short as an ordinary pread would.
ssize_t read_rest(JNIEnv* env, const c_transfer& t, jbyteArray buf, std::size_t count, ssize_t n) {
    const auto taken = static_cast<std::size_t>(n);
    struct stat st {};
    if (taken == count || ::fstat(t.fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISBLK(st.st_mode))) return n;
    const ssize_t more = read_through_scratch(env, t, buf, static_cast<jint>(n), count - taken);
    return more > 0 ? n + more : n;
}

jint read_frame(JNIEnv* env, jintArray err, const c_transfer& t, jbyteArray buf, jint count,
               jintArray done) noexcept {
    return exception_frame(env, jint{-1}, [&]() -> jint {
        if (range_refused(env, buf, 0, count)) return report_errno(env, err, EFAULT);
        const auto n = static_cast<std::size_t>(count);
        return errno_frame(
            env, err,
            [&] {
                const ssize_t pinned = read_pinned(env, t, buf, n);
                return pinned >= 0 ? read_rest(env, t, buf, n, pinned) : read_through_scratch(env, t, buf, 0, n);
            },
            [&](ssize_t r) { set_int_result(env, done, static_cast<jint>(r)); });
    });
}

// Writes go through native scratch: buffered writes with RWF_NOWAIT are refused by common file
// systems, and a pinned array must not span a write that waits for the disk.
jint write_frame(JNIEnv* env, jintArray err, const c_transfer& t, jbyteArray buf, jint start, jint count,
                 jintArray done) noexcept {
    return exception_frame(env, jint{-1}, [&]() -> jint {
        if (range_refused(env, buf, start, count)) return report_errno(env, err, EFAULT);
        const auto n = static_cast<std::size_t>(count);
        c_transfer_buffer scratch(n, t.positional ? t.position : 0);
        env->GetByteArrayRegion(buf, start, count, scratch.data());
        return errno_frame(
            env, err, [&] { return t.write(scratch.data(), n); },
            [&](ssize_t r) { set_int_result(env, done, static_cast<jint>(r)); });
    });
}

DIR* dir_of(jlong handle) noexcept { return reinterpret_cast<DIR*>(static_cast<std::intptr_t>(handle)); }

}  // namespace
}  // namespace kor::jni

using namespace kor::jni;

extern "C" {

// ---- descriptor calls --------------------------------------------------------------------------

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1open(JNIEnv* env, jclass, jintArray err,
                                                                       jintArray fd, jstring path, jint flags,
                                                                       jint mode) {
    const int linux_flags = translate_open_flags(flags);
    return path_errno_frame(
        env, err,
        [&](const char* p) {
            return mode < 0 ? ::open(p, linux_flags) : ::open(p, linux_flags, static_cast<mode_t>(mode));
        },
        [&](int opened) { set_int_result(env, fd, opened); }, path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1creat(JNIEnv* env, jclass, jintArray err,
                                                                        jintArray fd, jstring path, jint mode) {
    return path_errno_frame(
        env, err, [&](const char* p) { return ::creat(p, static_cast<mode_t>(mode)); },
        [&](int opened) { set_int_result(env, fd, opened); }, path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1close(JNIEnv* env, jclass, jintArray err,
                                                                        jint fd) {
    // Never retried: after EINTR the descriptor is gone all the same.
    return errno_frame(env, err, [&] { return ::close(fd); });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1read(JNIEnv* env, jclass, jintArray err,
                                                                       jint fd, jbyteArray buf, jint count,
                                                                       jintArray done) {
    return read_frame(env, err, c_transfer{fd, false, 0}, buf, count, done);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1write(JNIEnv* env, jclass, jintArray err,
                                                                        jint fd, jbyteArray buf, jint count,
                                                                        jintArray done) {
    return write_frame(env, err, c_transfer{fd, false, 0}, buf, 0, count, done);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1pread(JNIEnv* env, jclass, jintArray err,
                                                                        jint fd, jbyteArray buf, jint count,
                                                                        jlong position, jintArray done) {
    return read_frame(env, err, c_transfer{fd, true, position}, buf, count, done);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1pwrite(JNIEnv* env, jclass, jintArray err,
                                                                         jint fd, jbyteArray buf, jint start,
                                                                         jint count, jlong position,
                                                                         jintArray done) {
    return write_frame(env, err, c_transfer{fd, true, position}, buf, start, count, done);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1lseek(JNIEnv* env, jclass, jintArray err,
                                                                        jint fd, jlong offset, jint whence,
                                                                        jlongArray position) {
    return errno_frame(
        env, err, [&] { return ::lseek(fd, offset, whence); },
        [&](off_t at) { set_long_result(env, position, at); });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1ftruncate(JNIEnv* env, jclass,
                                                                            jintArray err, jint fd,
                                                                            jlong length) {
    return errno_frame(env, err, [&] { return ::ftruncate(fd, length); });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1fstat(
    JNIEnv* env, jclass, jintArray err, jint fd, jintArray dev, jintArray ino, jintArray mode, jintArray nlink,
    jintArray uid, jintArray gid, jintArray rdev, jintArray size, jlongArray atime, jlongArray mtime,
    jlongArray ctime, jintArray blksize, jintArray blocks) {
    struct stat st {};
    return errno_frame(
        env, err, [&] { return ::fstat(fd, &st); },
        [&](int) {
            write_stat(env, st,
                       c_stat_arrays<jintArray>{dev, ino, mode, nlink, uid, gid, rdev, size, atime, mtime,
                                                ctime, blksize, blocks});
        });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1fstatvfs(
    JNIEnv* env, jclass, jintArray err, jint fd, jlongArray bsize, jlongArray frsize, jlongArray blocks,
    jlongArray bfree, jlongArray bavail, jlongArray files, jlongArray ffree, jlongArray favail, jlongArray fsid,
    jlongArray flag, jlongArray namemax) {
    struct statvfs st {};
    return errno_frame(
        env, err, [&] { return ::fstatvfs(fd, &st); },
        [&](int) {
            write_statvfs(env, st,
                          c_statvfs_arrays<jlongArray>{bsize, frsize, blocks, bfree, bavail, files, ffree,
                                                       favail, fsid, flag, namemax});
        });
}

// ---- path calls --------------------------------------------------------------------------------

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1stat(
    JNIEnv* env, jclass, jintArray err, jstring path, jintArray dev, jintArray ino, jintArray mode,
    jintArray nlink, jintArray uid, jintArray gid, jintArray rdev, jintArray size, jlongArray atime,
    jlongArray mtime, jlongArray ctime, jlongArray blksize, jlongArray blocks) {
    struct stat st {};
    return path_errno_frame(
        env, err, [&](const char* p) { return ::stat(p, &st); },
        [&](int) {
            write_stat(env, st,
                       c_stat_arrays<jlongArray>{dev, ino, mode, nlink, uid, gid, rdev, size, atime, mtime,
                                                 ctime, blksize, blocks});
        },
        path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1statvfs(
    JNIEnv* env, jclass, jintArray err, jstring path, jlongArray bsize, jlongArray frsize, jlongArray blocks,
    jlongArray bfree, jlongArray bavail, jlongArray files, jlongArray ffree, jlongArray favail, jlongArray fsid,
    jlongArray flag, jlongArray namemax) {
    struct statvfs st {};
    return path_errno_frame(
        env, err, [&](const char* p) { return ::statvfs(p, &st); },
        [&](int) {
            write_statvfs(env, st,
                          c_statvfs_arrays<jlongArray>{bsize, frsize, blocks, bfree, bavail, files, ffree,
                                                       favail, fsid, flag, namemax});
        },
        path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1chmod(JNIEnv* env, jclass, jintArray err,
                                                                        jstring path, jint mode) {
    return path_errno_frame(
        env, err, [&](const char* p) { return ::chmod(p, static_cast<mode_t>(mode)); }, no_result, path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1chown(JNIEnv* env, jclass, jintArray err,
                                                                        jstring path, jint uid, jint gid) {
    return path_errno_frame(
        env, err,
        [&](const char* p) { return ::chown(p, static_cast<uid_t>(uid), static_cast<gid_t>(gid)); },
        no_result, path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1mkdir(JNIEnv* env, jclass, jintArray err,
                                                                        jstring path, jint mode) {
    return path_errno_frame(
        env, err, [&](const char* p) { return ::mkdir(p, static_cast<mode_t>(mode)); }, no_result, path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1rmdir(JNIEnv* env, jclass, jintArray err,
                                                                        jstring path) {
    return path_errno_frame(env, err, [](const char* p) { return ::rmdir(p); }, no_result, path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1unlink(JNIEnv* env, jclass, jintArray err,
                                                                         jstring path) {
    return path_errno_frame(env, err, [](const char* p) { return ::unlink(p); }, no_result, path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1remove(JNIEnv* env, jclass, jintArray err,
                                                                         jstring path) {
    return path_errno_frame(env, err, [](const char* p) { return std::remove(p); }, no_result, path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1rename(JNIEnv* env, jclass, jintArray err,
                                                                         jstring from, jstring to) {
    return path_errno_frame(
        env, err, [](const char* f, const char* t) { return std::rename(f, t); }, no_result, from, to);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1system(JNIEnv* env, jclass, jintArray err,
                                                                         jstring command) {
    // Only a shell that could not be run is a failure; the command's exit status is not reported.
    return path_errno_frame(env, err, [](const char* c) { return std::system(c); }, no_result, command);
}

// ---- directory streams -------------------------------------------------------------------------

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1opendir(JNIEnv* env, jclass,
                                                                          jintArray err, jlongArray dir,
                                                                          jstring path) {
    DIR* opened = nullptr;
    return path_errno_frame(
        env, err,
        [&](const char* p) {
            opened = ::opendir(p);
            return opened ? 0 : -1;
        },
        [&](int) { set_long_result(env, dir, static_cast<jlong>(reinterpret_cast<std::intptr_t>(opened))); },
        path);
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1readdir(JNIEnv* env, jclass,
                                                                          jintArray err, jlong dir,
                                                                          jintArray ino, jobjectArray name) {
    return exception_frame(env, jint{-1}, [&]() -> jint {
        struct dirent entry {};
        struct dirent* result = nullptr;
        errno = 0;
        // readdir_r fills an entry of this call, so different handles may be read from different
        // threads at once; glibc marks it deprecated in favour of readdir, whose buffer belongs
        // to the stream.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        const int failed = ::readdir_r(dir_of(dir), &entry, &result);
#pragma GCC diagnostic pop
        const int saved = errno;
        // readdir_r returns its error (errno may stay 0, e.g. for a name longer than NAME_MAX).
        if (failed) return report_errno(env, err, failed);
        if (!result) {
            report_errno(env, err, saved);
            return 1;
        }
        const c_java_string converted(env, entry.d_name);
        put_result(env, ino, entry.d_ino);
        env->SetObjectArrayElement(name, 0, converted.string);
        return 0;
    });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1rewinddir(JNIEnv*, jclass, jlong dir) {
    ::rewinddir(dir_of(dir));
    return 0;
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1closedir(JNIEnv* env, jclass,
                                                                           jintArray err, jlong dir) {
    return errno_frame(env, err, [&] { return ::closedir(dir_of(dir)); });
}

}  // extern "C"
