// The CPUs of an instance: a ring, a bell and the probes' events for each, whenever they come and go.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "instance.h"
#include "log.h"

namespace kprobe
{

namespace
{

bool contains(const std::vector<int> &list, int cpu) { return std::find(list.begin(), list.end(), cpu) != list.end(); }

}  // namespace

int Instance::take_up(int cpu)
{
    const int status = bells_.open(cpu);
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

// As all probes are switched and filtered now.
int Instance::open_events_on(int cpu)
{
    const Ring *ring = records_.ring(cpu), *bell = bells_.of(cpu);
    int status = 0;
    bool bad_filter;
    for (const auto &probe : probes_) {
        if (!probe->defined || probe->gone)
            continue;
        status = probe->events.records.add(probe->event_id, *ring, probe->in_kernel, &bad_filter);
        if (status == 0)
            status = probe->events.bells.add(probe->event_id, *bell, probe->in_kernel, &bad_filter);
        if (status < 0)
            return status;
        if (probe->on) {
            probe->events.bells.enable(true, cpu);
            probe->events.records.enable(true, cpu);
        }
    }
    return 0;
}

void Instance::let_go(int cpu)
{
    records_.sweep(0);  // what it wrote is there still
    for (const auto &probe : probes_)
        probe->events.drop(cpu);
    replacement_.drop_cpu(cpu);
    bells_.let_go(cpu);
    records_.close_ring(cpu);
}

bool Instance::follow(const std::vector<int> &online, const std::set<int> &renewed)
{
    const std::unique_lock control(control_, std::try_to_lock);
    if (!control)
        return false;
    for (const int cpu : records_.cpus())
        if (!contains(online, cpu) || renewed.count(cpu) != 0)
            let_go(cpu);
    const std::vector<int> known = records_.cpus();
    for (const int cpu : online) {
        if (contains(known, cpu))
            continue;
        int status = take_up(cpu);
        if (status == 0)
            status = open_events_on(cpu);
        if (status < 0)
            let_go(cpu);
        if (status < 0 && status != -ENODEV)
            KP_LOG(1, "processor %d came, and what happens there cannot be seen: %s", cpu, strerror(-status));
    }
    return true;
}

}  // namespace kprobe
