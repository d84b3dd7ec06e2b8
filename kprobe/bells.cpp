#include "bells.h"

#include <sys/eventfd.h>

#include <algorithm>

namespace kprobe
{

namespace
{

constexpr size_t kBell = 4096;  // a bell is disarmed soon after it has rung

}  // namespace

int Bells::open(int cpu)
{
    auto bell = std::make_unique<Ring>();
    if (const int status = bell->open(cpu, kBell, Use::kBell); status < 0)
        return status;
    let_go(cpu);
    const common::Lock lock(lock_);
    bells_.reserve(bells_.size() + 1);
    bell->arm(armed_);
    bells_.push_back(std::move(bell));
    return 0;
}

void Bells::let_go(int cpu)
{
    const common::Lock lock(lock_);
    std::erase_if(bells_, [cpu](const auto &bell) { return bell->cpu() == cpu; });
}

std::vector<Ring *> Bells::list()
{
    const common::Lock lock(lock_);
    std::vector<Ring *> out;
    for (const auto &bell : bells_)
        out.push_back(bell.get());
    return out;
}

const Ring *Bells::of(int cpu)
{
    const common::Lock lock(lock_);
    const auto found =
        std::find_if(bells_.begin(), bells_.end(), [cpu](const auto &bell) { return bell->cpu() == cpu; });
    return found == bells_.end() ? nullptr : found->get();
}

void Bells::arm(bool on)
{
    const common::Lock lock(lock_);
    armed_ = on;
    for (const auto &bell : bells_) {
        bell->arm(on);
        bell->forget();
    }
}

// Some kernels run new events of an armed bell only when the bell is armed anew. Hits must not be recorded before that,
// or nobody is told of them.
void Bells::ring_from_now_on(EventSet *events)
{
    events->enable(true);
    const common::Lock lock(lock_);
    if (!armed_)
        return;
    for (const auto &bell : bells_) {
        bell->arm(false);
        bell->arm(true);
    }
    wake();  // what came in between has rung none
}

void Bells::wake()
{
    if (wake_ >= 0)
        eventfd_write(wake_, 1);
}

void Bells::abandon()
{
    for (const auto &bell : bells_)
        bell->close();
    wake_ = -1;
}

}  // namespace kprobe
