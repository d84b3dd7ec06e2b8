#include "replacement.h"

#include <algorithm>

#include "clock.h"

namespace kprobe
{

void Replacement::reserve()
{
    const common::Lock lock(lock_);
    old_.reserve(old_.size() + 1);
}

void Replacement::replace(size_t probe, ProbeEvents &now, ProbeEvents &next)
{
    drop(probe);
    wake_ups_.wake_from_now_on(next.wake_ups);
    const common::Lock lock(lock_);
    records_.expect_repeats();
    next.records.enable(true);
    old_.push_back({probe, std::move(now), now_ns()});
    now = std::move(next);
    wake_ups_.wake();
}

void Replacement::drop(size_t probe) noexcept
{
    const common::Lock lock(lock_);
    const auto found = std::find_if(old_.begin(), old_.end(), [probe](const Old &old) { return old.probe == probe; });
    if (found != old_.end())
        close(found);
    settle_repeats();
}

void Replacement::drop_cpu(int cpu)
{
    const common::Lock lock(lock_);
    for (Old &old : old_)
        old.events.drop(cpu);
}

bool Replacement::close_old()
{
    if (!lock_.try_lock())
        return true;  // rings fill up while somebody waits for the kernel
    const common::Lock lock(lock_, common::kAdopt);
    if (old_.empty())
        return false;
    while (!old_.empty() && now_ns() - old_.front().since >= kOverlap)
        close(old_.begin());
    settle_repeats();
    return !old_.empty();
}

// Switched off, since a process that is forked at this moment still holds them open.
void Replacement::close(std::vector<Old>::iterator old)
{
    old->events.records.enable(false);
    old->events.wake_ups.enable(false);
    old_.erase(old);
}

// What was on its way through the last of them may still come.
void Replacement::settle_repeats()
{
    if (old_.empty())
        records_.end_repeats(now_ns() + kOverlap);
}

}  // namespace kprobe
