/*
 * boot_time.h: the clocks of processes: ticks after boot, nanoseconds of the monotonic clock, the time of day.
 */
#ifndef AGENT_BOOT_TIME_H
#define AGENT_BOOT_TIME_H

#include <cstdint>

namespace agent
{

uint64_t monotonic_ns(); /* the clock of the kernel's process events */

/* The clock tick after boot, as in "stat", of a time of the monotonic clock. That clock stops while the machine is
 * suspended, and the ticks do not: what was before the last suspension is given a tick too late. */
uint64_t tick_of(uint64_t monotonic_ns);

/* Nanoseconds since 1970 of a tick, in steps of one. The machine's time at boot is asked for once, so that a process
 * has one start however the clock is set afterwards. */
uint64_t wall_clock_of_tick(uint64_t tick);

}  // namespace agent

#endif
