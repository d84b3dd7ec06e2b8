#include "boot_time.h"

#include <unistd.h>

#include <ctime>

namespace agent
{

namespace
{

constexpr uint64_t kNs = 1000000000;

uint64_t clock_ns(clockid_t clock)
{
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * kNs + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t tick_ns()
{
    static const uint64_t length = kNs / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    return length;
}

}  // namespace

uint64_t monotonic_ns() { return clock_ns(CLOCK_MONOTONIC); }

uint64_t tick_of(uint64_t monotonic_ns)
{
    const uint64_t suspended = clock_ns(CLOCK_BOOTTIME) - clock_ns(CLOCK_MONOTONIC);
    return (monotonic_ns + suspended) / tick_ns();
}

// Rounded, so that it is the same in the next run too, unless the clock was set.
uint64_t wall_clock_of_tick(uint64_t tick)
{
    static const uint64_t boot = (clock_ns(CLOCK_REALTIME) - clock_ns(CLOCK_BOOTTIME) + tick_ns() / 2) / tick_ns();
    return (boot + tick) * tick_ns();
}

}  // namespace agent
