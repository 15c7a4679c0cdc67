// ContextAutoLock: holds the mutex exactly for its scope.
#include <gtest/gtest.h>
#include <lumora/ContextAutoLock.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace {

GMutex g_testMutex;

TEST(ContextAutoLockTest, HoldsTheMutexUntilTheScopeEnds) {
    {
        ContextAutoLock lock(&g_testMutex);
        EXPECT_FALSE(g_mutex_trylock(&g_testMutex));
    }
    ASSERT_TRUE(g_mutex_trylock(&g_testMutex));
    g_mutex_unlock(&g_testMutex);
}

TEST(ContextAutoLockTest, AnExceptionReleasesTheMutex) {
    try {
        ContextAutoLock lock(&g_testMutex);
        throw std::runtime_error("leave");
    } catch (const std::runtime_error&) {
    }
    ASSERT_TRUE(g_mutex_trylock(&g_testMutex));
    g_mutex_unlock(&g_testMutex);
}

TEST(ContextAutoLockTest, SerialisesThreads) {
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&counter] {
            for (int i = 0; i < 20000; ++i) {
                ContextAutoLock lock(&g_testMutex);
                ++counter;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(80000, counter);
}

TEST(ContextAutoLockTest, NullMutexIsIgnoredWithoutCrashing) {
    EXPECT_NO_THROW({ ContextAutoLock lock(nullptr); });
}

}  // namespace
