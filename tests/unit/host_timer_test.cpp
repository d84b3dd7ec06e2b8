#include <ctime>

#include "host_support.h"
#include "orx_base.h"

namespace
{

uint64_t monotonic_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
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
    EXPECT_EQ(timer_ticks2ms(0), 0u);
    EXPECT_EQ(timer_ticks2ms(999999), 0u);
    EXPECT_EQ(timer_ticks2ms(1000000), 1u);
    EXPECT_EQ(timer_ticks2ms(UINT64_MAX), 18446744073709u);
}

}  // namespace
