// The m_native_unix_* bridges: one POSIX call each under the errno frame. Descriptor calls first,
// then the calls that take a path, then the directory stream.
#include "drive_redirection.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

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

// The errno frame over buf[start, start + count). A range outside the array reports EFAULT and
// makes no system call, as the kernel would for a bad user pointer. A failed
// GetByteArrayElements leaves the VM's OutOfMemoryError pending and returns -1 with no call.
// The elements are copied back only after a successful call that filled them (`fills`).
template <class Call>
jint buffer_errno_frame(JNIEnv* env, jintArray err, jbyteArray buf, jint start, jint count, bool fills,
                        jintArray done, Call&& call) noexcept {
    return exception_frame(env, jint{-1}, [&]() -> jint {
        if (!buf || !byte_range_ok(env->GetArrayLength(buf), start, count)) return report_errno(env, err, EFAULT);
        c_byte_array_elements bytes(env, buf);
        if (!bytes) return -1;
        bytes.abort_changes();
        return errno_frame(
            env, err, [&] { return call(bytes.data() + start, static_cast<std::size_t>(count)); },
            [&](ssize_t n) {
                if (fills) bytes.keep_changes();
                set_int_result(env, done, static_cast<jint>(n));
            });
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
    return buffer_errno_frame(env, err, buf, 0, count, true, done,
                              [&](jbyte* at, std::size_t n) { return ::read(fd, at, n); });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1write(JNIEnv* env, jclass, jintArray err,
                                                                        jint fd, jbyteArray buf, jint count,
                                                                        jintArray done) {
    return buffer_errno_frame(env, err, buf, 0, count, false, done,
                              [&](const jbyte* at, std::size_t n) { return ::write(fd, at, n); });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1pread(JNIEnv* env, jclass, jintArray err,
                                                                        jint fd, jbyteArray buf, jint count,
                                                                        jlong position, jintArray done) {
    return buffer_errno_frame(env, err, buf, 0, count, true, done,
                              [&](jbyte* at, std::size_t n) { return ::pread(fd, at, n, position); });
}

JNIEXPORT jint JNICALL Java_kor_plox_ldm_NativeLDM_m_1native_1unix_1pwrite(JNIEnv* env, jclass, jintArray err,
                                                                         jint fd, jbyteArray buf, jint start,
                                                                         jint count, jlong position,
                                                                         jintArray done) {
    return buffer_errno_frame(env, err, buf, start, count, false, done,
                              [&](const jbyte* at, std::size_t n) { return ::pwrite(fd, at, n, position); });
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
        if (!converted.ok && java_exception_pending(env)) return -1;  // NewString ran out of memory
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
