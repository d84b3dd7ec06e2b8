// The processors of an instance: a ring, a bell and a queue for each, whenever they come and go.
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "instance.h"
#include "log.h"

namespace kprobe
{

namespace
{

constexpr size_t kLeastRing = size_t{1} << 16;

bool contains(const std::vector<int> &list, int cpu) { return std::find(list.begin(), list.end(), cpu) != list.end(); }

}  // namespace

size_t Instance::ring_size() const
{
    const size_t taken = rings().size() * sizes_.ring;
    const size_t left = sizes_.all_rings > taken ? sizes_.all_rings - taken : 0;
    size_t size = sizes_.ring;
    while (size > left && size > kLeastRing)
        size /= 2;
    return size;
}

int Instance::open_processor(Processor *processor)
{
    int status = processor->ring->open(processor->cpu, ring_size());
    if (status == 0)
        status = bells_.open(processor->cpu);
    if (status < 0 || contains(cpus_, processor->cpu))
        return status;
    processor->queue = std::make_unique<RecordQueue>();
    return processor->queue->open(sizes_.queue) ? 0 : -ENOMEM;
}

// One that was there before gets its old place, where records of it may still wait.
void Instance::take_up(Processor *processor)
{
    const std::lock_guard records(records_);
    const auto at = static_cast<size_t>(std::find(cpus_.begin(), cpus_.end(), processor->cpu) - cpus_.begin());
    if (at == cpus_.size()) {
        cpus_.reserve(at + 1);
        rings_.reserve(at + 1);
        queues_.reserve(at + 1);
        latest_.resize(at + 1);
        cpus_.push_back(processor->cpu);
        queues_.push_back(std::move(processor->queue));
        rings_.emplace_back();
    }
    rings_[at] = std::move(processor->ring);
    latest_[at] = {};
}

int Instance::open(const std::vector<int> &cpus, const Sizes &sizes)
{
    sizes_ = sizes;
    for (const int cpu : cpus) {
        Processor processor = {cpu};
        const int status = open_processor(&processor);
        if (status == -ENODEV)  // it went offline since they were counted
            continue;
        if (status < 0)
            return status;
        take_up(&processor);
    }
    signal_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return signal_ ? 0 : -errno;
}

// As all probes are switched and filtered now.
int Instance::open_events_on(size_t at)
{
    int status = 0;
    bool bad_filter;
    for (const auto &probe : probes_) {
        if (!probe->defined || probe->gone)
            continue;
        status = probe->events.add(probe->event_id, *rings_[at], probe->in_kernel, &bad_filter);
        if (status == 0)
            status = probe->bells.add(probe->event_id, *bells_.of(cpus_[at]), probe->in_kernel, &bad_filter);
        if (status < 0)
            return status;
        if (probe->on) {
            probe->bells.enable(true, cpus_[at]);
            probe->events.enable(true, cpus_[at]);
        }
    }
    return 0;
}

void Instance::let_go(size_t at)
{
    sweep(0);  // what it wrote is there still
    for (const auto &probe : probes_) {
        probe->events.drop(cpus_[at]);
        probe->bells.drop(cpus_[at]);
    }
    bells_.let_go(cpus_[at]);
    const std::lock_guard replaced_lock(replaced_lock_);
    for (Replaced &replaced : replaced_) {
        replaced.events.drop(cpus_[at]);
        replaced.bells.drop(cpus_[at]);
    }
    const std::lock_guard records(records_);
    rings_[at]->close();
}

bool Instance::follow(const std::vector<int> &online, const std::set<int> &renewed)
{
    const std::unique_lock control(control_, std::try_to_lock);
    if (!control)
        return false;
    for (size_t at = 0; at < cpus_.size(); at++)
        if (is_up(at) && (!contains(online, cpus_[at]) || renewed.count(cpus_[at]) != 0))
            let_go(at);
    for (const int cpu : online) {
        const auto known = std::find(cpus_.begin(), cpus_.end(), cpu);
        if (known != cpus_.end() && is_up(static_cast<size_t>(known - cpus_.begin())))
            continue;
        Processor processor = {cpu};
        int status = open_processor(&processor);
        if (status == 0) {
            take_up(&processor);
            const auto at = static_cast<size_t>(std::find(cpus_.begin(), cpus_.end(), cpu) - cpus_.begin());
            status = open_events_on(at);
            if (status < 0)
                let_go(at);
        }
        if (status < 0 && status != -ENODEV)
            KP_LOG(1, "processor %d came, and what happens there cannot be seen: %s", cpu, strerror(-status));
    }
    return true;
}

}  // namespace kprobe
