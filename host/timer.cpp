/* The clock of orx_base.h: ticks of the monotonic clock, and their milliseconds. */

#include <atomic>
#include <ctime>

#include "orx_base.h"
#include "orx_host.h"

namespace
{

constexpr uint64_t kTicksPerSecond = 1000000000; /* a tick is a nanosecond */
constexpr long kLookNs = 200000;

std::atomic<bool> wanted;

}  // namespace

/* The kernel's clock needs no preparation; that somebody is ready for it is worth knowing. */
void timer_init(void) { wanted = true; }

int orx_host_await_timers(int ms)
{
    const uint64_t end = timer_get_ticks() + static_cast<uint64_t>(ms > 0 ? ms : 0) * (kTicksPerSecond / 1000);
    while (!wanted) {
        if (timer_get_ticks() >= end)
            return -1;
        const struct timespec pause = {0, kLookNs};
        nanosleep(&pause, nullptr);
    }
    return 0;
}

/* CLOCK_MONOTONIC, which no clock change moves; it stands while the machine sleeps, as the kernel's timeouts do. */
uint64_t timer_get_ticks(void)
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kTicksPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t timer_ticks2ms(uint64_t ticks) { return ticks / (kTicksPerSecond / 1000); }
