/* Tests of the clock of orx_base.h. */

#include <ctime>
#include <thread>

#include "host_support.h"
#include "orx_base.h"
#include "orx_host.h"

namespace
{

uint64_t monotonic_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

/* The first case of this program: nobody has called timer_init() yet. */
TEST(Timer, AreAwaitedUntilSomebodyWantsThem)
{
    const uint64_t before = monotonic_ms();
    EXPECT_EQ(-1, orx_host_await_timers(0));
    EXPECT_EQ(-1, orx_host_await_timers(-1));
    EXPECT_EQ(-1, orx_host_await_timers(30));
    EXPECT_GE(monotonic_ms(), before + 30);
    std::thread other([] { timer_init(); });
    EXPECT_EQ(0, orx_host_await_timers(60000));
    other.join();
    EXPECT_EQ(0, orx_host_await_timers(0));
}

TEST(Timer, ShowsTheKernelsMonotonicClock)
{
    timer_init();
    timer_init();
    uint64_t before = monotonic_ms();
    uint64_t now = timer_ticks2ms(timer_get_ticks());
    uint64_t after = monotonic_ms();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(Timer, NeverGoesBack)
{
    uint64_t last = timer_get_ticks();
    for (int i = 0; i < 100000; i++) {
        uint64_t now = timer_get_ticks();
        ASSERT_GE(now, last);
        last = now;
    }
}

TEST(Timer, RoundsTicksDown)
{
    EXPECT_EQ(0u, timer_ticks2ms(0));
    EXPECT_EQ(0u, timer_ticks2ms(999999));
    EXPECT_EQ(1u, timer_ticks2ms(1000000));
    EXPECT_EQ(18446744073709u, timer_ticks2ms(UINT64_MAX));
}

}  // namespace
