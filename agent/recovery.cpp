#include "recovery.h"

#include <algorithm>
#include <utility>

namespace agent
{

void Recovery::lost() { wanted_ = true; }

void Recovery::found_no_room(uint64_t now)
{
    if (!std::exchange(short_of_room_, true))
        next_trial_ = now + kTrialMs;
}

void Recovery::tried(uint64_t now, bool has_room)
{
    next_trial_ = now + kTrialMs;
    wanted_ |= has_room;
}

void Recovery::started(uint64_t now)
{
    wanted_ = false;
    walking_ = true;
    started_ = now;
    rest_ms_ = now < calm_ ? std::min(2 * rest_ms_, kLongestMs) : kShortestMs;
}

bool Recovery::ended(uint64_t now, bool no_room)
{
    walking_ = false;
    short_of_room_ = no_room;
    next_trial_ = now + kTrialMs;
    next_walk_ = now + std::max(rest_ms_, kRestShare * (now - started_));
    calm_ = next_walk_ + 2 * rest_ms_ + kCalmMs;
    return !wanted_;
}

uint64_t Recovery::next(uint64_t now) const
{
    if (walking_)
        return now + kSliceMs;
    const uint64_t walk = wanted_ ? next_walk_ : UINT64_MAX, trial = short_of_room_ ? next_trial_ : UINT64_MAX;
    return std::min(walk, trial);
}

}  // namespace agent
