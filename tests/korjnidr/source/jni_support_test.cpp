#include "jni_support.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace kor::jni;

// Races on the counters are ThreadSanitizer's to find (korjnidr_scard_tsan takes owner ids on
// many threads).
TEST(LockedCounter, ReturnsTheValueItMade) {
    c_locked_counter counter;
    EXPECT_EQ(counter.increment(), 1);
    EXPECT_EQ(counter.increment(), 2);
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
