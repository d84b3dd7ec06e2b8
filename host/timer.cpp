#include <ctime>

#include "orx_base.h"

namespace
{

constexpr uint64_t kTicksPerSecond = 1000000000; /* a tick is a nanosecond */

}  // namespace

/* The kernel's clock needs no preparation. */
void timer_init(void) {}

/* CLOCK_MONOTONIC, which no clock change moves; it stands while the machine sleeps, as the kernel's timeouts do. */
uint64_t timer_get_ticks(void)
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kTicksPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t timer_ticks2ms(uint64_t ticks) { return ticks / (kTicksPerSecond / 1000); }
