#include "jni_support.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

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

TEST(LockedCounter, ReturnsTheValueItMadeAlsoBelowZeroAndAcrossThreads) {
    c_locked_counter down;
    EXPECT_EQ(down.decrement(), -1);
    c_locked_counter counter;
    constexpr int threads = 4, per_thread = 2000;
    std::vector<std::vector<int>> seen(threads);
    std::vector<std::thread> pool;
    for (auto& values : seen)
        pool.emplace_back([&counter, &values] {
            for (int i = 0; i < per_thread; ++i) values.push_back(counter.increment());
        });
    for (auto& t : pool) t.join();
    std::set<int> distinct;
    for (const auto& values : seen) distinct.insert(values.begin(), values.end());
    EXPECT_EQ(distinct.size(), std::size_t{threads * per_thread}) << "a value was handed out twice";
    EXPECT_EQ(*distinct.begin(), 1);
    EXPECT_EQ(counter.decrement(), threads * per_thread - 1);
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
