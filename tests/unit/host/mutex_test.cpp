/* Tests of the mutexes of orx_base.h, misuse included. */

#include <cerrno>
#include <thread>

#include "host_support.h"
#include "orx_base.h"
#include "orx_host.h"

/* These cases misuse mutexes, which the thread sanitizer would report before the mutex can; it asks for this name. */
extern "C" [[gnu::visibility("default")]] const char *__tsan_default_options();
extern "C" const char *__tsan_default_options() { return "report_mutex_bugs=0:report_destroy_locked=0"; }

namespace
{

using host_test::CapturedStderr;

struct Mutex {
    void *handle = th_mutex_init();
    Mutex() = default;
    ~Mutex() { th_mutex_destroy(handle); }
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;
};

TEST(Mutex, LetsOneThreadInAtATime)
{
    Mutex mutex;
    ASSERT_NE(mutex.handle, nullptr);
    int counter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; i++) {
            EXPECT_EQ(th_mutex_lock(mutex.handle), 0);
            counter++;
            EXPECT_EQ(th_mutex_unlock(mutex.handle), 0);
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 40000);
}

TEST(Mutex, TellsOfASecondLockByItsOwner)
{
    CapturedStderr err;
    Mutex mutex;
    EXPECT_EQ(th_mutex_lock(mutex.handle), 0);
    EXPECT_EQ(th_mutex_lock(mutex.handle), -EDEADLK);
    EXPECT_NE(err.text().find("mutex lock failed"), std::string::npos);
    EXPECT_EQ(th_mutex_unlock(mutex.handle), 0);
    EXPECT_EQ(th_mutex_lock(mutex.handle), 0) << "the failed lock counts for nothing";
    EXPECT_EQ(th_mutex_unlock(mutex.handle), 0);
}

TEST(Mutex, TellsOfAnUnlockByAnother)
{
    CapturedStderr err;
    Mutex mutex;
    EXPECT_EQ(th_mutex_unlock(mutex.handle), -EPERM);
    EXPECT_EQ(th_mutex_lock(mutex.handle), 0);
    std::thread([&] { EXPECT_EQ(th_mutex_unlock(mutex.handle), -EPERM); }).join();
    EXPECT_EQ(th_mutex_unlock(mutex.handle), 0);
}

/* Its holder will still unlock it: a block that leaks is better than one that is used after it was freed. */
TEST(Mutex, StaysWhereItIsWhileItIsHeld)
{
    CapturedStderr err;
    void *mutex = th_mutex_init();
    EXPECT_EQ(th_mutex_lock(mutex), 0);
    th_mutex_destroy(mutex);
    EXPECT_NE(err.text().find("mutex destroy failed"), std::string::npos);
    EXPECT_EQ(th_mutex_unlock(mutex), 0);
    th_mutex_destroy(mutex);
}

TEST(Mutex, CountsHolds)
{
    Mutex one, other;
    const auto before = orx_host_lock_count();
    th_mutex_lock(one.handle);
    th_mutex_lock(other.handle);
    EXPECT_EQ(orx_host_lock_count(), before + 2);
    EXPECT_EQ(orx_host_lock_count(), before + 2) << "within a hold it stays";
    CapturedStderr hidden;
    th_mutex_lock(one.handle);
    th_mutex_lock(nullptr);
    EXPECT_EQ(orx_host_lock_count(), before + 2) << "refused";
    th_mutex_unlock(one.handle);
    th_mutex_unlock(other.handle);
    EXPECT_EQ(orx_host_lock_count(), before + 2);
}

TEST(Mutex, RefusesNull)
{
    CapturedStderr err;
    EXPECT_EQ(th_mutex_lock(nullptr), -EINVAL);
    EXPECT_EQ(th_mutex_unlock(nullptr), -EINVAL);
    th_mutex_destroy(nullptr);
}

}  // namespace
