/* The mutex, the locks and the condition variable do what the standard's do; what clang checks of them:
 * mutex_misuse.sh. */
#include "common/mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using common::Condition;
using common::ExclusiveLock;
using common::Lock;
using common::Mutex;
using common::SharedLock;
using common::SharedMutex;

namespace
{

constexpr std::chrono::seconds kLong{60}; /* never waited for to its end */

struct Counter {
    Mutex lock;
    Condition changed;
    int value GUARDED_BY(lock) = 0;

    void add(int times)
    {
        for (int i = 0; i < times; i++) {
            const Lock hold(lock);
            value++;
        }
    }
    int get()
    {
        const Lock hold(lock);
        return value;
    }
};

/* Whether another thread would have to wait for the mutex. */
bool is_held(Mutex &mutex)
{
    bool taken = false;
    std::thread([&] {
        if (!mutex.try_lock())
            return;
        taken = true;
        mutex.unlock();
    }).join();
    return !taken;
}

TEST(CommonMutex, LetsOneThreadInAtATime)
{
    Counter counter;
    std::thread other([&] { counter.add(20000); });
    counter.add(20000);
    other.join();
    EXPECT_EQ(40000, counter.get());
}

TEST(CommonMutex, IsNotWaitedForByATry)
{
    Mutex mutex;
    EXPECT_FALSE(is_held(mutex));
    if (!mutex.try_lock()) {
        FAIL() << "held by nobody, and not taken";
    } else {
        EXPECT_TRUE(is_held(mutex));
        mutex.unlock();
    }
    EXPECT_FALSE(is_held(mutex));
}

TEST(CommonMutex, IsHeldToTheEndOfALocksBlock)
{
    Mutex mutex;
    {
        const Lock hold(mutex);
        EXPECT_TRUE(is_held(mutex));
    }
    EXPECT_FALSE(is_held(mutex));
}

TEST(CommonMutex, IsFreeWhileALockHasReleasedIt)
{
    Mutex mutex;
    {
        Lock hold(mutex);
        hold.unlock();
        EXPECT_FALSE(is_held(mutex));
        hold.lock();
        EXPECT_TRUE(is_held(mutex));
        hold.unlock();
    }
    EXPECT_FALSE(is_held(mutex));
}

TEST(CommonMutex, IsReleasedByALockThatTookItOver)
{
    Mutex mutex;
    mutex.lock();
    {
        const Lock hold(mutex, common::kAdopt);
        EXPECT_TRUE(is_held(mutex));
    }
    EXPECT_FALSE(is_held(mutex));
}

TEST(CommonSharedMutex, HasRoomForManyReaders)
{
    SharedMutex mutex;
    std::atomic<int> inside{0};
    auto reader = [&] {
        const SharedLock hold(mutex);
        inside++;
        while (inside < 2)
            std::this_thread::yield(); /* ends only if both are inside at once */
    };
    std::thread other(reader);
    reader();
    other.join();
    EXPECT_EQ(2, inside);
}

TEST(CommonSharedMutex, KeepsReadersFromAWriter)
{
    SharedMutex mutex;
    int first = 0, second = 0;
    auto write = [&] {
        for (int i = 0; i < 20000; i++) {
            const ExclusiveLock hold(mutex);
            first++;
            second++;
        }
    };
    std::thread writer(write);
    int torn = 0;
    for (int i = 0; i < 20000; i++) {
        const SharedLock hold(mutex);
        torn += first != second;
    }
    writer.join();
    EXPECT_EQ(0, torn);
    EXPECT_EQ(20000, first);
}

TEST(CommonCondition, WakesWhoWaitsForAValue)
{
    Counter counter;
    std::thread other([&] {
        counter.add(1);
        counter.changed.notify_one();
    });
    {
        const Lock hold(counter.lock);
        counter.changed.wait(counter.lock, [&]() REQUIRES(counter.lock) { return counter.value == 1; });
        EXPECT_EQ(1, counter.value);
        EXPECT_TRUE(is_held(counter.lock));
    }
    other.join();
    EXPECT_FALSE(is_held(counter.lock));
}

TEST(CommonCondition, WakesAllWhoWait)
{
    Counter counter;
    std::atomic<int> done{0};
    auto wait = [&] {
        const Lock hold(counter.lock);
        while (counter.value == 0)
            counter.changed.wait(counter.lock);
        done++;
    };
    std::thread a(wait), b(wait);
    counter.add(1);
    counter.changed.notify_all();
    a.join();
    b.join();
    EXPECT_EQ(2, done);
}

TEST(CommonCondition, EndsAWaitByWhatIsReadyOrByTime)
{
    Counter counter;
    const Lock hold(counter.lock);
    auto ready = [&]() REQUIRES(counter.lock) { return counter.value == 1; };
    EXPECT_FALSE(counter.changed.wait_for(counter.lock, std::chrono::milliseconds(1), ready));
    EXPECT_TRUE(is_held(counter.lock));
    counter.value = 1;
    EXPECT_TRUE(counter.changed.wait_for(counter.lock, kLong, ready));
    EXPECT_TRUE(is_held(counter.lock));
}

}  // namespace
