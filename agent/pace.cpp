#include "pace.h"

#include <algorithm>
#include <utility>

namespace agent
{

void Pace::sleeps(uint64_t now)
{
    asleep_ = true;
    asleep_since_ = now;
}

void Pace::wakes(uint64_t now)
{
    if (!std::exchange(asleep_, false))
        return;
    woken_ = now;
    slept_ms_ = now - asleep_since_;
}

void Pace::looked(uint64_t now, bool expecting)
{
    const bool busy = now - woken_ < kBusyLookMs && slept_ms_ < kBusyLookMs;
    next_look_ = now + (busy || expecting ? kBusyLookMs : kIdleLookMs);
}

void Pace::look_soon(uint64_t now) { next_look_ = std::min(next_look_, now + kBusyLookMs); }

void TimeLimit::see(uint64_t now, uint64_t shown)
{
    if (std::exchange(shown_, shown) != shown)
        since_ = now;
}

}  // namespace agent
