// The mutex and its scoped lock.

#include "PTMutex.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <type_traits>

namespace {

bool AnotherThreadCanTake(PTMutex& mutex)
{
    bool taken = false;
    std::thread([&] {
        taken = mutex.TryLock();
        if (taken)
            mutex.Unlock();
    }).join();
    return taken;
}

TEST(AMutex, IsFreeWhenNew)
{
    PTMutex mutex;
    EXPECT_TRUE(AnotherThreadCanTake(mutex));
    EXPECT_TRUE(mutex.TryLock());
    mutex.Unlock();
}

TEST(AMutex, KeepsOthersOutFromLockToUnlock)
{
    PTMutex mutex;
    mutex.Lock();
    EXPECT_FALSE(AnotherThreadCanTake(mutex));
    mutex.Unlock();
    EXPECT_TRUE(AnotherThreadCanTake(mutex));
}

TEST(AMutex, KeepsOthersOutAfterASuccessfulTry)
{
    PTMutex mutex;
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_FALSE(AnotherThreadCanTake(mutex));
    mutex.Unlock();
}

TEST(AMutex, IsNotRecursive)
{
    PTMutex mutex;
    mutex.Lock();
    EXPECT_FALSE(mutex.TryLock());
    mutex.Unlock();
}

TEST(AMutex, LetsAWaitingThreadInAfterTheUnlock)
{
    PTMutex mutex;
    bool was_unlocked = false;
    bool seen = false;
    mutex.Lock();
    std::thread waiting([&] {
        mutex.Lock();
        seen = was_unlocked;
        mutex.Unlock();
    });
    was_unlocked = true;
    mutex.Unlock();
    waiting.join();
    EXPECT_TRUE(seen);
}

TEST(AMutex, IsOnePosixMutexAndCannotBeCopied)
{
    EXPECT_EQ(sizeof(pthread_mutex_t), sizeof(PTMutex));
    EXPECT_FALSE(std::is_copy_constructible_v<PTMutex>);
    EXPECT_FALSE(std::is_copy_assignable_v<PTMutex>);
}

TEST(AScopedLock, HoldsTheMutexForItsScope)
{
    PTMutex mutex;
    {
        const PTAutoLock lock_scope(mutex);
        EXPECT_FALSE(AnotherThreadCanTake(mutex));
    }
    EXPECT_TRUE(AnotherThreadCanTake(mutex));
}

TEST(AScopedLock, ReleasesTheMutexWhenAnExceptionEndsTheScope)
{
    PTMutex mutex;
    EXPECT_THROW(
        {
            const PTAutoLock lock_scope(mutex);
            throw std::runtime_error("thrown under the lock");
        },
        std::runtime_error);
    EXPECT_TRUE(AnotherThreadCanTake(mutex));
}

TEST(AScopedLock, CannotBeCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<PTAutoLock>);
    EXPECT_FALSE(std::is_copy_assignable_v<PTAutoLock>);
    EXPECT_TRUE((std::is_constructible_v<PTAutoLock, PTMutex&>));
}

}  // namespace
