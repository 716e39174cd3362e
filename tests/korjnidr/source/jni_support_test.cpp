#include "jni_support.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace kor::jni;

TEST(MapErrno, KeepsOrMarksEachRange) {
    const struct {
        int errno_value;
        int reported;
    } cases[] = {
        {0, 0},   {40, 40},         {41, 0x8000029},  {42, 42},   {57, 57},         {58, 0x800003A},
        {74, 0x800004A}, {75, 132}, {76, 0x800004C},  {124, 0x800007C}, {125, 125}, {126, 0x800007E},
        {-2, -2}, {0x7FFFFFFF, 0x7FFFFFFF},
    };
    for (const auto& c : cases) EXPECT_EQ(map_errno(c.errno_value), c.reported) << "errno " << c.errno_value;
}

// Races on the counters are ThreadSanitizer's to find (korjnidr_scard_tsan takes owner ids on
// many threads).
TEST(LockedCounter, ReturnsTheValueItMade) {
    c_locked_counter counter;
    EXPECT_EQ(counter.decrement(), -1);
    EXPECT_EQ(counter.increment(), 0);
    EXPECT_EQ(counter.increment(), 1);
}

TEST(MutexLock, UnlocksDuringUnwinding) {
    c_mutex m(false);
    EXPECT_THROW(
        {
            c_mutex_lock lock(m);
            throw std::runtime_error("x");
        },
        std::runtime_error);
    ASSERT_EQ(pthread_mutex_trylock(m.native()), 0);
    m.unlock();
}
