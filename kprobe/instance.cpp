#include "instance.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log.h"

namespace kprobe
{

namespace
{

bool contains(const std::vector<int> &list, int cpu) { return std::find(list.begin(), list.end(), cpu) != list.end(); }

}  // namespace

int Instance::take_up(int cpu)
{
    const int status = wake_ups_.open(cpu);
    return status < 0 ? status : records_.open_ring(cpu, sizes_);
}

int Instance::open(const std::vector<int> &cpus, const Sizes &sizes)
{
    sizes_ = sizes;
    for (const int cpu : cpus) {
        const int status = take_up(cpu);
        if (status < 0 && status != -ENODEV)  // it went offline since they were counted
            return status;
    }
    return records_.open();
}

kp_losses Instance::losses()
{
    const uint64_t missed = probes_.missed();
    kp_losses out = records_.counts();
    delivery_.add_counts(out);
    out.missed = missed;
    return out;
}

// ---- CPUs ----

// With the events of all probes, as these are switched and filtered now.
int Instance::follow_one(int cpu)
{
    const int status = take_up(cpu);
    return status < 0 ? status : probes_.open_events_on(*records_.ring(cpu), *wake_ups_.of(cpu));
}

void Instance::let_go(int cpu)
{
    records_.sweep(0);  // what it wrote is there still
    probes_.drop_cpu(cpu);
    wake_ups_.let_go(cpu);
    records_.close_ring(cpu);
}

bool Instance::follow(const std::vector<int> &online, const std::set<int> &renewed)
{
    if (!probes_.mutex().try_lock())
        return false;
    const common::Lock lock(probes_.mutex(), common::kAdopt);
    for (const int cpu : records_.cpus())
        if (!contains(online, cpu) || renewed.count(cpu) != 0)
            let_go(cpu);
    const std::vector<int> known = records_.cpus();
    for (const int cpu : online) {
        const int status = contains(known, cpu) ? 0 : follow_one(cpu);
        if (status < 0)
            let_go(cpu);
        if (status < 0 && status != -ENODEV)
            KP_LOG(1, "processor %d came, and what happens there cannot be seen: %s", cpu, strerror(-status));
    }
    return true;
}

// ---- fork ----

// A lock that is taken here is given back in unlock_for_fork(), which no analysis of one function sees.
void Instance::lock_for_fork() NO_THREAD_SAFETY_ANALYSIS
{
    probes_.mutex().lock();
    wake_ups_.mutex().lock();
    replacement_.mutex().lock();
    records_.mutex().lock();
}

void Instance::unlock_for_fork() NO_THREAD_SAFETY_ANALYSIS
{
    records_.mutex().unlock();
    replacement_.mutex().unlock();
    wake_ups_.mutex().unlock();
    probes_.mutex().unlock();
}

// Perf events that a child holds open would go on costing after the parent has gone.
void Instance::abandon() NO_THREAD_SAFETY_ANALYSIS
{
    probes_.abandon();
    records_.abandon();
    wake_ups_.abandon();
    replacement_.abandon();
    groups_.abandon();
}

}  // namespace kprobe
