// Local drive redirection: the POSIX bridges (m_native_unix_*), the Windows-style file helpers,
// the directory listing, the version check and the inert entry points. The JNI entry points are
// declared by the generated kor_plox_ldm_NativeLDM.h; this header holds what they share.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>

#include "jni_support.h"

namespace kor::jni {

// ---- pure helpers ------------------------------------------------------------------------------

// The Java side's open flag word to Linux open(2) flags: access mode (bits 0-1) as is, 0x4
// non-blocking, 0x80 sync, 0x200 truncate, 0x400 exclusive. Nothing creates or appends.
int translate_open_flags(std::int32_t java_flags) noexcept;

// True when [start, start + count) lies inside an array of `length` elements; negative values
// never do.
bool byte_range_ok(std::int32_t length, std::int32_t start, std::int32_t count) noexcept;

// Hidden in the Windows sense: the last component of the path begins with a dot (".", "..",
// "/a/.b"); a path ending in "/" is not hidden.
bool is_hidden_path(const char* path) noexcept;

// 100-ns intervals since 1601-01-01 UTC from Unix seconds and nanoseconds, and back to whole Unix
// seconds (truncated toward zero).
std::int64_t unix_to_file_time(std::int64_t seconds, std::int64_t nanoseconds) noexcept;
std::int64_t file_time_to_unix_seconds(std::int64_t file_time) noexcept;

// Windows read-only attribute applied to a mode: read-only drops every write bit, writable adds
// only the owner's. Other bits pass unchanged.
mode_t read_only_mode(mode_t mode) noexcept;
mode_t writable_mode(mode_t mode) noexcept;

// ---- the path gate -----------------------------------------------------------------------------

// Where the drive calls turn a Java path into a system path (FSAddWatch converts its own). A
// path that c_native_path refuses never reaches their system calls: its conversion is undefined
// and a prefix of it could name another file. `refuse()` gives the caller's answer instead; otherwise body(paths...) runs with
// every path converted, in argument order. refuse() and body must return the same type.
template <class Refuse, class Body>
auto with_native_paths(JNIEnv*, Refuse&&, Body&& body) {
    return body();
}

template <class Refuse, class Body, class... Rest>
auto with_native_paths(JNIEnv* env, Refuse&& refuse, Body&& body, jstring first, Rest... rest) {
    const c_native_path path(env, first);
    if (!path.ok) return refuse();
    return with_native_paths(
        env, refuse, [&](auto... later) { return body(path.c_str(), later...); }, rest...);
}

constexpr auto no_result = [](auto) {};

// The errno frame over converted paths: an unconvertible one reports EILSEQ without a system
// call. errno is read by errno_frame straight after call(), while the paths are still alive.
template <class Call, class OnOk, class... Paths>
jint path_errno_frame(JNIEnv* env, jintArray err, Call&& call, OnOk&& on_ok, Paths... paths) noexcept {
    return exception_frame(env, jint{-1}, [&] {
        return with_native_paths(
            env, [&] { return report_errno(env, err, EILSEQ); },
            [&](auto... names) { return errno_frame(env, err, [&] { return call(names...); }, on_ok); },
            paths...);
    });
}

// The boolean frame over converted paths: an unconvertible one answers false.
template <class Body, class... Paths>
jboolean path_boolean_frame(JNIEnv* env, Body&& body, Paths... paths) noexcept {
    return boolean_frame(env, [&] { return with_native_paths(env, [] { return false; }, body, paths...); });
}

// ---- result layouts ----------------------------------------------------------------------------

// Stores a value into element 0: an int[] receives the low 32 bits, a long[] all 64.
template <class V>
void put_result(JNIEnv* env, jintArray a, V v) {
    set_int_result(env, a, static_cast<jint>(static_cast<std::uint32_t>(v)));
}
template <class V>
void put_result(JNIEnv* env, jlongArray a, V v) {
    set_long_result(env, a, static_cast<jlong>(v));
}

// The thirteen stat arrays; fstat hands blksize and blocks back in int[], stat in long[].
template <class BlockArray>
struct c_stat_arrays {
    jintArray dev, ino, mode, nlink, uid, gid, rdev, size;
    jlongArray atime, mtime, ctime;
    BlockArray blksize, blocks;
};

template <class BlockArray>
void write_stat(JNIEnv* env, const struct stat& st, const c_stat_arrays<BlockArray>& a) {
    put_result(env, a.dev, st.st_dev);
    put_result(env, a.ino, st.st_ino);
    put_result(env, a.mode, st.st_mode);
    put_result(env, a.nlink, st.st_nlink);
    put_result(env, a.uid, st.st_uid);
    put_result(env, a.gid, st.st_gid);
    put_result(env, a.rdev, st.st_rdev);
    put_result(env, a.size, st.st_size);
    put_result(env, a.atime, st.st_atim.tv_sec);
    put_result(env, a.mtime, st.st_mtim.tv_sec);
    put_result(env, a.ctime, st.st_ctim.tv_sec);
    put_result(env, a.blksize, st.st_blksize);
    put_result(env, a.blocks, st.st_blocks);
}

// The eleven statvfs arrays, in the field order of struct statvfs.
template <class Array>
struct c_statvfs_arrays {
    Array bsize, frsize, blocks, bfree, bavail, files, ffree, favail, fsid, flag, namemax;
};

template <class Array>
void write_statvfs(JNIEnv* env, const struct statvfs& st, const c_statvfs_arrays<Array>& a) {
    put_result(env, a.bsize, st.f_bsize);
    put_result(env, a.frsize, st.f_frsize);
    put_result(env, a.blocks, st.f_blocks);
    put_result(env, a.bfree, st.f_bfree);
    put_result(env, a.bavail, st.f_bavail);
    put_result(env, a.files, st.f_files);
    put_result(env, a.ffree, st.f_ffree);
    put_result(env, a.favail, st.f_favail);
    put_result(env, a.fsid, st.f_fsid);
    put_result(env, a.flag, st.f_flag);
    put_result(env, a.namemax, st.f_namemax);
}

}  // namespace kor::jni
