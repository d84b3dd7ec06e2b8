/*
 * pace.h: when to let a stream of events gather.
 *
 * The monitor thread reads as soon as the kernel has something; in a stream it is woken for a few events at a time, and
 * being woken costs more than handling them. A short sleep in the callback lets the kernel collect more. It is taken
 * only in a turn that the thread had to wait for: the kernel's queue was empty then, and has room for far more than
 * what comes in that time, so that nothing is lost by it. The first event after a silence is never held up.
 */
#ifndef CLI_PACE_H
#define CLI_PACE_H

#include <cstdint>

namespace cli
{

class Pace
{
public:
    /* For each event, at monotonic time `now` (ns): whether it may be the first of a turn. */
    bool starts_turn(uint64_t now)
    {
        gap_ = now - last_;
        last_ = now;
        return gap_ >= kSameTurn;
    }

    /* For the first of a turn. `waits`: how often the thread has waited until now. How many ns to sleep, 0: not at all;
     * after a sleep call woke(). */
    uint64_t nap(int64_t waits)
    {
        const bool waited = waits != waits_;
        waits_ = waits;
        return waited && gap_ <= kSilence ? kNap : 0;
    }
    void woke(uint64_t now, int64_t waits)
    {
        last_ = now;
        waits_ = waits;
    }

    static constexpr uint64_t kSameTurn = 8'000;    /* ns: events of one turn follow each other faster than that */
    static constexpr uint64_t kSilence = 3'000'000; /* ns: longer than that between events is no stream */
    static constexpr uint64_t kNap = 1'000'000;     /* ns */

private:
    uint64_t last_ = 0, gap_ = 0;
    int64_t waits_ = 0;
};

}  // namespace cli

#endif
