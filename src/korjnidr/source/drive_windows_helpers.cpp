// The Windows-style file helpers: attribute bits, 100-ns file times since 1601, free space in
// clusters, move and end of file. Each answers true or false and nothing else.
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>

#include "drive_redirection.h"
#include "kor_plox_ldm_NativeLDM.h"

namespace kor::jni {

namespace {
constexpr std::int64_t k_seconds_1601_to_1970 = 11644473600;
constexpr std::int64_t k_ticks_per_second = 10000000;

constexpr jint k_attribute_read_only = 0x1;
constexpr jint k_attribute_hidden = 0x2;
constexpr jint k_attribute_directory = 0x10;
constexpr jint k_attribute_normal = 0x80;

constexpr mode_t k_all_write_bits = S_IWUSR | S_IWGRP | S_IWOTH;
}  // namespace

bool is_hidden_path(const char* path) noexcept {
    const std::size_t length = std::strlen(path);
    if (length == 0) return false;
    for (std::size_t i = length - 1; i > 0; --i) {
        if (path[i] == '/') return false;
        if (path[i] == '.' && path[i - 1] == '/') return true;
    }
    return path[0] == '.';
}

// File systems such as tmpfs keep any 64-bit time; one beyond the file-time range saturates
// instead of wrapping.
std::int64_t unix_to_file_time(std::int64_t seconds, std::int64_t nanoseconds) noexcept {
    std::int64_t t = 0;
    if (__builtin_add_overflow(seconds, k_seconds_1601_to_1970, &t) ||
        __builtin_mul_overflow(t, k_ticks_per_second, &t) || __builtin_add_overflow(t, nanoseconds / 100, &t))
        return seconds < 0 ? INT64_MIN : INT64_MAX;
    return t;
}

std::int64_t file_time_to_unix_seconds(std::int64_t file_time) noexcept {
    return file_time / k_ticks_per_second - k_seconds_1601_to_1970;
}

mode_t read_only_mode(mode_t mode) noexcept { return mode & ~k_all_write_bits; }
mode_t writable_mode(mode_t mode) noexcept { return mode | S_IWUSR; }

namespace {

// chmod to change(current mode); false when either step fails.
template <class Change>
bool change_mode(const char* path, Change&& change) {
    struct stat st {};
    return ::stat(path, &st) == 0 && ::chmod(path, change(st.st_mode)) == 0;
}

bool apply_read_only(const char* path, bool read_only) {
    if (!read_only) return change_mode(path, writable_mode);
    if (!change_mode(path, read_only_mode)) return false;
    // A directory is never left read-only: the owner keeps the right to change its entries.
    struct stat st {};
    if (::stat(path, &st) != 0) return false;
    return !S_ISDIR(st.st_mode) || ::chmod(path, writable_mode(st.st_mode)) == 0;
}

bool set_modification_time(const char* path, jlong last_write) {
    // The access time is kept; when it cannot be read there is nothing sound to pass to utimes,
    // so the call fails without touching the file.
    struct stat st {};
    if (::stat(path, &st) != 0) return false;
    const timeval times[2] = {
        {st.st_atim.tv_sec, st.st_atim.tv_nsec / 1000},
        {static_cast<time_t>(file_time_to_unix_seconds(last_write)), 0},
    };
    return ::utimes(path, times) == 0;
}

}  // namespace
}  // namespace kor::jni

using namespace kor::jni;

extern "C" {

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_NativeGetFileAttrib(JNIEnv* env, jclass, jstring path,
                                                                         jintArray attributes,
                                                                         jlongArray creation,
                                                                         jlongArray last_access,
                                                                         jlongArray last_write) {
    return path_boolean_frame(
        env,
        [&](const char* p) {
            struct stat st {};
            if (::stat(p, &st) != 0) return false;
            jint bits = 0;
            if (::access(p, W_OK) != 0) bits |= k_attribute_read_only;
            if (S_ISDIR(st.st_mode)) bits |= k_attribute_directory;
            if (is_hidden_path(p)) bits |= k_attribute_hidden;
            if (bits == 0) bits = k_attribute_normal;
            set_long_result(env, creation, 0);  // Linux keeps no creation time
            set_long_result(env, last_access, unix_to_file_time(st.st_atim.tv_sec, st.st_atim.tv_nsec));
            set_long_result(env, last_write, unix_to_file_time(st.st_mtim.tv_sec, st.st_mtim.tv_nsec));
            set_int_result(env, attributes, bits);
            return true;
        },
        path);
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_NativeSetFileAttr(JNIEnv* env, jclass, jstring path,
                                                                       jint which, jlong last_write, jlong,
                                                                       jlong, jlong, jint attributes) {
    return path_boolean_frame(
        env,
        [&](const char* p) {
            if ((which & 0x1) && !apply_read_only(p, attributes & k_attribute_read_only)) return false;
            if (which & 0x2) return set_modification_time(p, last_write);
            return true;
        },
        path);
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_NativeGetDiskFreeSpace(JNIEnv* env, jclass,
                                                                            jstring path,
                                                                            jintArray sectors_per_cluster,
                                                                            jintArray bytes_per_sector,
                                                                            jlongArray free_clusters,
                                                                            jlongArray total_clusters) {
    return path_boolean_frame(
        env,
        [&](const char* p) {
            struct statvfs st {};
            if (::statvfs(p, &st) != 0) return false;
            // A cluster is one block counted as f_bsize one-byte sectors; free space includes the
            // blocks kept for the superuser (f_bfree, not f_bavail).
            put_result(env, sectors_per_cluster, st.f_bsize);
            set_int_result(env, bytes_per_sector, 1);
            put_result(env, free_clusters, st.f_bfree);
            put_result(env, total_clusters, st.f_blocks);
            return true;
        },
        path);
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_NativeMoveFile(JNIEnv* env, jclass, jstring from,
                                                                    jstring to) {
    return path_boolean_frame(
        env, [](const char* f, const char* t) { return std::rename(f, t) == 0; }, from, to);
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_NativeLDM_NativeSetEndOfFile(JNIEnv* env, jclass, jstring path,
                                                                        jlong length) {
    return path_boolean_frame(
        env, [&](const char* p) { return ::truncate(p, length) == 0; }, path);
}

}  // extern "C"
