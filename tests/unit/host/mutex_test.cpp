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
    ASSERT_NE(nullptr, mutex.handle);
    int counter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; i++) {
            EXPECT_EQ(0, th_mutex_lock(mutex.handle));
            counter++;
            EXPECT_EQ(0, th_mutex_unlock(mutex.handle));
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(40000, counter);
}

TEST(Mutex, ReportsASecondLockByItsOwner)
{
    CapturedStderr err;
    Mutex mutex;
    EXPECT_EQ(0, th_mutex_lock(mutex.handle));
    EXPECT_EQ(-EDEADLK, th_mutex_lock(mutex.handle));
    EXPECT_NE(err.text().find("mutex lock failed"), std::string::npos);
    EXPECT_EQ(0, th_mutex_unlock(mutex.handle));
    EXPECT_EQ(0, th_mutex_lock(mutex.handle)) << "the failed lock counts for nothing";
    EXPECT_EQ(0, th_mutex_unlock(mutex.handle));
}

TEST(Mutex, ReportsAnUnlockByAnother)
{
    CapturedStderr err;
    Mutex mutex;
    EXPECT_EQ(-EPERM, th_mutex_unlock(mutex.handle));
    EXPECT_EQ(0, th_mutex_lock(mutex.handle));
    std::thread([&] { EXPECT_EQ(-EPERM, th_mutex_unlock(mutex.handle)); }).join();
    EXPECT_EQ(0, th_mutex_unlock(mutex.handle));
}

/* Its holder will still unlock it: a block that leaks is better than one that is used after it was freed. */
TEST(Mutex, StaysWhereItIsWhileItIsHeld)
{
    CapturedStderr err;
    void *mutex = th_mutex_init();
    EXPECT_EQ(0, th_mutex_lock(mutex));
    th_mutex_destroy(mutex);
    EXPECT_NE(err.text().find("mutex destroy failed"), std::string::npos);
    EXPECT_EQ(0, th_mutex_unlock(mutex));
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
    EXPECT_EQ(-EINVAL, th_mutex_lock(nullptr));
    EXPECT_EQ(-EINVAL, th_mutex_unlock(nullptr));
    th_mutex_destroy(nullptr);
}

}  // namespace
