/*
 * replacement.h: new events with another filter take the place of a probe's, and no hit is lost on the way.
 *
 * The kernel walks the events of a probe one by one, may be interrupted meanwhile, and drops, uncounted, what comes to
 * an event that was just switched off. A hit that was on its way when the new events came sees the old ones only: these
 * have to stay for a while, in which all other hits are recorded twice.
 */
#ifndef KPROBE_REPLACEMENT_H
#define KPROBE_REPLACEMENT_H

#include <vector>

#include "common/mutex.h"
#include "perf.h"
#include "records.h"
#include "wake_ups.h"

namespace kprobe
{

// Any thread.
class Replacement
{
public:
    static constexpr uint64_t kOverlap = 20000000;  // ns; far longer than a hit takes

    Replacement(Records &records, WakeUps &wake_ups) : records_(records), wake_ups_(wake_ups) {}

    // For one more probe's events: replace() needs no memory behind this.
    void reserve() EXCLUDES(lock_);

    // Switches the new events on, and keeps the old ones until close_old(). They change places.
    void replace(size_t probe, ProbeEvents &now, ProbeEvents &next) EXCLUDES(lock_);

    // The old events of a probe go at once.
    void drop(size_t probe) noexcept EXCLUDES(lock_);
    void drop_cpu(int cpu) EXCLUDES(lock_);

    // For the thread that empties the rings: closes events whose place others took a while ago. True: some are left.
    bool close_old() EXCLUDES(lock_);

    common::Mutex &mutex() RETURN_CAPABILITY(lock_) { return lock_; }
    void abandon() REQUIRES(lock_) { old_.clear(); }

private:
    struct Old {
        size_t probe;  // which has one at most
        ProbeEvents events;
        uint64_t since;
    };
    void close(std::vector<Old>::iterator old) REQUIRES(lock_);
    void settle_repeats() REQUIRES(lock_);

    Records &records_;
    WakeUps &wake_ups_;
    common::Mutex lock_;
    std::vector<Old> old_ GUARDED_BY(lock_);  // in the order of `since`
};

}  // namespace kprobe

#endif
