#include "wake_ups.h"

#include <sys/eventfd.h>

#include <algorithm>

namespace kprobe
{

namespace
{

constexpr size_t kRingSize = 4096;  // it is disarmed soon after it has been written to

}  // namespace

int WakeUps::open(int cpu)
{
    auto wake_up = std::make_unique<Ring>();
    if (const int status = wake_up->open(cpu, kRingSize, Use::kWakeUp); status < 0)
        return status;
    let_go(cpu);
    const common::Lock lock(lock_);
    wake_ups_.reserve(wake_ups_.size() + 1);
    wake_up->arm(armed_);
    wake_ups_.push_back(std::move(wake_up));
    return 0;
}

void WakeUps::let_go(int cpu)
{
    const common::Lock lock(lock_);
    std::erase_if(wake_ups_, [cpu](const auto &wake_up) { return wake_up->cpu() == cpu; });
}

std::vector<Ring *> WakeUps::list()
{
    const common::Lock lock(lock_);
    std::vector<Ring *> out;
    for (const auto &wake_up : wake_ups_)
        out.push_back(wake_up.get());
    return out;
}

const Ring *WakeUps::of(int cpu)
{
    const common::Lock lock(lock_);
    const auto found =
        std::find_if(wake_ups_.begin(), wake_ups_.end(), [cpu](const auto &wake_up) { return wake_up->cpu() == cpu; });
    return found == wake_ups_.end() ? nullptr : found->get();
}

void WakeUps::arm(bool on)
{
    const common::Lock lock(lock_);
    armed_ = on;
    for (const auto &wake_up : wake_ups_) {
        wake_up->arm(on);
        wake_up->forget();
    }
}

// Some kernels run new events of an armed ring only when the ring is armed anew. Hits must not be recorded before that,
// or nobody is woken by them.
void WakeUps::wake_from_now_on(EventSet &events)
{
    events.enable(true);
    const common::Lock lock(lock_);
    if (!armed_)
        return;
    for (const auto &wake_up : wake_ups_) {
        wake_up->arm(false);
        wake_up->arm(true);
    }
    wake();  // what came in between has caused no wake-up
}

void WakeUps::wake()
{
    if (wake_ >= 0)
        eventfd_write(wake_, 1);
}

void WakeUps::abandon()
{
    for (const auto &wake_up : wake_ups_)
        wake_up->close();
    wake_ = -1;
}

}  // namespace kprobe
