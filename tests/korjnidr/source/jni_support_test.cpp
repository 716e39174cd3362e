#include "jni_support.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

using namespace kor::jni;

TEST(MapErrno, TableBoundaries) {
    struct {
        int in;
        int out;
    } const cases[] = {
        {0, 0},           {1, 1},           {40, 40},         {41, 0x8000029}, {42, 42},
        {57, 57},         {58, 0x800003A},  {74, 0x800004A},  {75, 132},       {76, 0x800004C},
        {84, 0x8000054},  {124, 0x800007C}, {125, 125},       {126, 0x800007E}, {-1, -1},
        {-2, -2},         {0x7FFFFFFF, 0x7FFFFFFF},
    };
    for (const auto& c : cases) EXPECT_EQ(map_errno(c.in), c.out) << "errno " << c.in;
}

TEST(LockedCounter, CountsUpAndBelowZero) {
    c_locked_counter a;
    EXPECT_EQ(a.increment(), 1);
    EXPECT_EQ(a.increment(), 2);
    EXPECT_EQ(a.decrement(), 1);
    c_locked_counter b;
    EXPECT_EQ(b.decrement(), -1);
}

TEST(LockedCounter, ManyThreadsGiveDistinctValues) {
    c_locked_counter counter;
    constexpr int threads = 8, per_thread = 1000;
    std::vector<std::vector<int>> seen(threads);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            for (int i = 0; i < per_thread; ++i) seen[t].push_back(counter.increment());
        });
    for (auto& th : pool) th.join();
    std::vector<bool> hit(threads * per_thread + 1, false);
    for (const auto& values : seen)
        for (int v : values) {
            ASSERT_GE(v, 1);
            ASSERT_LE(v, threads * per_thread);
            ASSERT_FALSE(hit[v]) << "value " << v << " handed out twice";
            hit[v] = true;
        }
    EXPECT_EQ(counter.increment(), threads * per_thread + 1);
}

TEST(MutexLock, UnlocksDuringUnwinding) {
    c_mutex m(false);
    try {
        c_mutex_lock lock(m);
        throw std::runtime_error("x");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(pthread_mutex_trylock(m.native()), 0);
    m.unlock();
    c_mutex r(true);  // the recursive kind may be taken twice by one thread
    r.lock();
    r.lock();
    r.unlock();
    r.unlock();
}
