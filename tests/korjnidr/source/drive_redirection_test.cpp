#include "drive_redirection.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <climits>

using namespace kor::jni;

TEST(DriveOpenFlags, EachJavaBitAndNothingElse) {
    struct { std::int32_t java; int linux_flags; } const cases[] = {
        {0, O_RDONLY}, {1, O_WRONLY}, {2, O_RDWR}, {3, 3}, {0x4, O_NONBLOCK}, {0x80, O_SYNC},
        {0x201, O_WRONLY | O_TRUNC}, {0x402, O_RDWR | O_EXCL},
        {0x8 | 0x10 | 0x20 | 0x40 | 0x100 | 0x800, 0},  // nothing creates or appends
        {-1, 3 | O_NONBLOCK | O_SYNC | O_TRUNC | O_EXCL},
    };
    for (const auto& c : cases) EXPECT_EQ(translate_open_flags(c.java), c.linux_flags) << std::hex << c.java;
}

TEST(DriveByteRange, InsideTheArrayOnly) {
    struct { std::int32_t length, start, count; bool ok; } const cases[] = {
        {10, 0, 10, true}, {10, 5, 3, true}, {10, 10, 0, true}, {0, 0, 0, true}, {10, 8, 3, false},
        {10, 11, 0, false}, {10, -1, 1, false}, {10, 0, -1, false}, {10, 1, INT_MAX, false},
        {INT_MAX, INT_MAX, 1, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(byte_range_ok(c.length, c.start, c.count), c.ok) << c.length << ' ' << c.start << ' ' << c.count;
}

TEST(DriveHiddenName, LastComponentStartsWithADot) {
    struct { const char* path; bool hidden; } const cases[] = {
        {"/home/u/.profile", true}, {".profile", true}, {"/a/..", true}, {".", true}, {"a/.b", true},
        {"/home/u/a.b", false}, {"/home/u/.dir/file", false}, {"/home/u/.dir/", false}, {"/", false},
        {"", false}, {"name.", false}, {"a..b", false},
    };
    for (const auto& c : cases) EXPECT_EQ(is_hidden_path(c.path), c.hidden) << c.path;
}

TEST(DriveFileTime, HundredNanosecondsSince1601BothWays) {
    EXPECT_EQ(unix_to_file_time(0, 0), 116444736000000000);
    EXPECT_EQ(unix_to_file_time(1, 500000000), 116444736015000000);
    EXPECT_EQ(unix_to_file_time(0, 199), 116444736000000001);
    EXPECT_EQ(file_time_to_unix_seconds(116444736015000000), 1);  // the sub-second part is dropped
    EXPECT_EQ(file_time_to_unix_seconds(0), -11644473600);
    EXPECT_EQ(file_time_to_unix_seconds(-5), -11644473600);  // truncated toward zero before 1601
}

TEST(DriveReadOnlyMode, WriteBitsOnly) {
    EXPECT_EQ(read_only_mode(S_IFREG | 0664), S_IFREG | 0444u);
    EXPECT_EQ(read_only_mode(S_IFDIR | 01777), S_IFDIR | 01555u);
    EXPECT_EQ(writable_mode(S_IFREG | 0400), S_IFREG | 0600u);  // group and other stay as they were
}
