/*
 * pace.h: when a session looks around, how long it sleeps, and when events gather.
 *
 * Times are milliseconds of a clock that does not run backwards, and always the caller's.
 */
#ifndef AGENT_PACE_H
#define AGENT_PACE_H

#include <cstdint>

namespace agent
{

/* Losses and vanished paths make no event, so they are looked for: each second while events come or something is
 * expected, else more rarely, to leave an idle machine asleep. */
class Pace
{
public:
    static constexpr uint64_t kBusyLookMs = 1000, kIdleLookMs = 4000;
    static constexpr uint64_t kGatherMs = 5;  /* how long a stream's events gather before they are shown together */
    static constexpr uint64_t kStreamMs = 20; /* a shorter sleep means a stream of events */

    void start(uint64_t now) { next_look_ = now + kBusyLookMs; }

    void sleeps(uint64_t now);
    void wakes(uint64_t now); /* nothing where it did not sleep */

    bool look_is_due(uint64_t now) const { return now >= next_look_; }
    uint64_t next_look() const { return next_look_; }
    void looked(uint64_t now, bool expecting);
    /* Something was seen that a look within a second may add to. */
    void look_soon(uint64_t now);

    /* The one rule for gathering. In a stream of events, waking for each costs more than showing it, so some
     * milliseconds of them are shown together. The first event after a silence is shown at once. */
    uint64_t gather_ms() const { return slept_ms_ <= kStreamMs ? kGatherMs : 0; }

private:
    uint64_t next_look_ = 0;
    uint64_t asleep_since_ = 0;
    bool asleep_ = false;
    uint64_t woken_ = 0;    /* when the last sleep ended */
    uint64_t slept_ms_ = 0; /* how long it took */
};

/* The time without an event after which a session ends. */
class TimeLimit
{
public:
    explicit TimeLimit(uint64_t limit_ms) : limit_ms_(limit_ms) {} /* 0: none */

    void start(uint64_t now) { since_ = now; }
    /* Begins anew when more events were shown than at the last call: those that a filter hides do not count. */
    void see(uint64_t now, uint64_t shown);
    uint64_t end() const { return limit_ms_ ? since_ + limit_ms_ : UINT64_MAX; }

private:
    const uint64_t limit_ms_;
    uint64_t since_ = 0, shown_ = 0;
};

}  // namespace agent

#endif
