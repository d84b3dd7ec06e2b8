/*
 * pace.h: when to let a stream of events gather.
 *
 * The monitor thread reads as soon as the kernel has something; in a stream it is woken for a few events at a time, and
 * being woken costs more than handling them. A short sleep in the callback lets the kernel collect a read's worth. The
 * kernel's queue has room for far more than what comes in that time, and the sleep is left out where turns are full
 * already, so that nothing is lost by it. The first event after a silence is never held up.
 */
#ifndef CLI_PACE_H
#define CLI_PACE_H

#include <cstdint>

namespace cli
{

class Pace
{
public:
    /* For each event, at monotonic time `now`: how many nanoseconds to sleep, 0 for none. After a sleep call woke(). */
    uint64_t event(uint64_t now)
    {
        const uint64_t gap = now - last_;
        last_ = now;
        if (gap < kSameTurn) {
            together_++;
            return 0;
        }
        const bool was_full = together_ >= kFullTurn;
        together_ = 1;
        return was_full || gap > kSilence ? 0 : kNap;
    }
    void woke(uint64_t now) { last_ = now; }

    static constexpr uint64_t kSameTurn = 8'000;    /* ns: events of one read follow each other faster than that */
    static constexpr uint64_t kSilence = 3'000'000; /* ns: longer than that between events is no stream */
    static constexpr uint64_t kNap = 1'000'000;     /* ns */
    static constexpr uint32_t kFullTurn = 64;       /* events: a read of 4096 bytes brings about a hundred */

private:
    uint64_t last_ = 0;
    uint32_t together_ = 0;
};

}  // namespace cli

#endif
