/*
 * wake_ups.h: a ring a CPU whose events do nothing but wake the thread that empties the others, see reader.h.
 */
#ifndef KPROBE_WAKE_UPS_H
#define KPROBE_WAKE_UPS_H

#include <atomic>
#include <memory>
#include <vector>

#include "common/mutex.h"
#include "perf.h"

namespace kprobe
{

// Any thread; who opens these rings and lets them go sees to it that nobody uses what list() and of() gave.
class WakeUps
{
public:
    // For that CPU, in place of an earlier one. 0 or a negative errno; -ENODEV: it is offline.
    int open(int cpu) EXCLUDES(lock_);
    void let_go(int cpu) EXCLUDES(lock_);

    std::vector<Ring *> list() EXCLUDES(lock_);
    const Ring *of(int cpu) EXCLUDES(lock_);  // null: none

    void arm(bool on) EXCLUDES(lock_);

    // Switches new events on.
    void wake_from_now_on(EventSet &events) EXCLUDES(lock_);

    // An eventfd, by which the thread is asked to look.
    void wake_by(int fd) { wake_ = fd; }
    void wake();

    // Calls `body` with each ring's descriptor.
    template <typename Body>
    void each_descriptor(Body &&body) EXCLUDES(lock_)
    {
        const common::Lock lock(lock_);
        for (const auto &wake_up : wake_ups_)
            body(wake_up->fd());
    }

    common::Mutex &mutex() RETURN_CAPABILITY(lock_) { return lock_; }
    void abandon() REQUIRES(lock_);

private:
    common::Mutex lock_;
    bool armed_ GUARDED_BY(lock_) = false;
    std::vector<std::unique_ptr<Ring>> wake_ups_ GUARDED_BY(lock_);
    std::atomic<int> wake_ = -1;
};

}  // namespace kprobe

#endif
