/*
 * recovery.h: when watched trees are looked at again, after records were lost or directories found no room.
 *
 * After a loss the trees are walked at once, and no second walk begins before the first is through. What is lost during
 * a walk makes it one of those that do not count: another follows. While losses go on walks come later each time, and
 * in any case they take no more than a fifth of the time. Directories that found no room are no reason for a walk by
 * themselves: one of them is tried regularly, and the walk follows when that one has found room.
 *
 * Times are milliseconds of a clock that does not run backwards, and always the caller's.
 */
#ifndef AGENT_RECOVERY_H
#define AGENT_RECOVERY_H

#include <cstdint>

namespace agent
{

class Recovery
{
public:
    static constexpr uint64_t kShortestMs = 1000, kLongestMs = 30000; /* between two walks */
    static constexpr uint64_t kCalmMs = 10000; /* without a loss; what comes earlier is of losses that go on */
    static constexpr uint64_t kRestShare = 4;  /* times what the walk before took */
    static constexpr uint64_t kTrialMs = 1000; /* between two trials */
    static constexpr uint64_t kSliceMs = 1;    /* between two steps of a walk, in which others get the monitor's lock */

    void lost();                      /* records were */
    void found_no_room(uint64_t now); /* directories */

    bool trial_is_due(uint64_t now) const { return short_of_room_ && !walking_ && now >= next_trial_; }
    void tried(uint64_t now, bool has_room);

    bool walk_is_due(uint64_t now) const { return wanted_ && !walking_ && now >= next_walk_; }
    void started(uint64_t now);
    bool is_walking() const { return walking_; }
    /* The walk is through. `no_room`: it met a directory for which there is none. True: nothing was lost since it
     * began, so that what it found holds. */
    bool ended(uint64_t now, bool no_room);

    /* When there is something to do; UINT64_MAX: nothing is to be done. */
    uint64_t next(uint64_t now) const;

private:
    bool wanted_ = false; /* a walk */
    bool walking_ = false, short_of_room_ = false;
    uint64_t started_ = 0, next_walk_ = 0, next_trial_ = 0;
    uint64_t calm_ = 0; /* a walk that begins earlier is not the first of its kind */
    uint64_t rest_ms_ = kShortestMs;
};

}  // namespace agent

#endif
