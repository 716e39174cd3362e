#include "drive_redirection.h"

#include <fcntl.h>
#include <gtest/gtest.h>

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

TEST(DriveFileTime, TruncatesAndSaturates) {
    EXPECT_EQ(unix_to_file_time(1, 500000099), 116444736015000000);
    EXPECT_EQ(unix_to_file_time(-11644473600, 0), 0);                  // 1601-01-01
    EXPECT_EQ(unix_to_file_time(9000000000000, 0), INT64_MAX);         // far future kept by tmpfs
    EXPECT_EQ(unix_to_file_time(-9000000000000, 0), INT64_MIN);
    EXPECT_EQ(file_time_to_unix_seconds(116444736000000000), 0);
    EXPECT_EQ(file_time_to_unix_seconds(116444735985000000), -2);     // 1601-based ticks truncate first
}
