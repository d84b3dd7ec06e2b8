/*
 * clock.h: the time that records have.
 */
#ifndef KPROBE_CLOCK_H
#define KPROBE_CLOCK_H

#include <cstdint>
#include <ctime>

namespace kprobe
{

// CLOCK_MONOTONIC, nanoseconds.
inline uint64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace kprobe

#endif
