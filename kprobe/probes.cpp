#include "probes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "filter.h"
#include "log.h"

namespace kprobe
{

namespace
{

std::vector<uint32_t> left_out_by(const Probe &probe, const std::string &filter)
{
    return probe.plan.shape == Shape::kInotify ? threads_left_out(filter) : std::vector<uint32_t>();
}

}  // namespace

Probes::~Probes()
{
    const common::Lock lock(lock_);
    for (const auto &probe : probes_)
        undefine(*probe);
}

Probe *Probes::find(const std::string &name)
{
    for (const auto &probe : probes_)
        if (!probe->gone && probe->def.name == name)
            return probe.get();
    return nullptr;
}

// ---- definitions ----

// From a plan to a probe in the kernel, switched off; nothing of it where that fails.
int Probes::define(Probe &probe)
{
    int status = -ENOMEM;
    try {
        status = define_and_open(probe);
    } catch (const std::exception &) {  // out of memory
    }
    if (status < 0)
        undefine(probe);
    return status;
}

int Probes::define_and_open(Probe &probe)
{
    Layout layout;
    if (const int status = probe.define(serial_++, layout); status < 0)
        return status;
    parts_.delivery.lay_out(probe.number, std::move(layout));
    parts_.records.belong(probe.event_id(), probe.number);
    return probe.open_events(kernel_filter(probe, probe.def.filter), parts_.records.rings(), parts_.wake_ups.list(),
                             probe.events);
}

void Probes::undefine(Probe &probe) noexcept
{
    if (!probe.is_defined())
        return;
    probe.events.close();
    parts_.replacement.drop(probe.number);
    probe.remove();
    try {
        parts_.records.sweep(0);        // what it wrote still belongs to it
    } catch (const std::exception &) {  // out of memory
    }
    parts_.records.belong(-1, probe.number);
}

// Probes at one function are run in the reverse order of their definition. The monitor defines in the order in which
// it wants to hear (of a rename the old name first), so that every earlier one is made anew behind the latest.
void Probes::restack(Probe &added)
{
    for (size_t i = probes_.size(); i-- > 0;) {
        Probe &probe = *probes_[i];
        if (&probe == &added || probe.gone || probe.plan.point != added.plan.point)
            continue;
        undefine(probe);
        if (define(probe) < 0)
            probe.gone = true;
        else
            switch_events(probe);
    }
}

int Probes::learn_groups()
{
    const int status = parts_.groups.learn(kernel_.tracefs, kernel_.facts);
    if (status < 0)
        KP_LOG(1, "inotify instances of this process cannot be told from others: %s", strerror(-status));
    return std::min(status, 0);
}

// Its number may be that of a probe that could not be defined, of which there are no records.
void Probes::expect(const Probe &probe, kp_record_cb callback)
{
    const Plan &plan = probe.plan;
    parts_.records.expect(probe.number, left_out_by(probe, probe.def.filter));
    parts_.delivery.expect(probe.number, {callback, plan.by_device, plan.shape == Shape::kInotify, plan.names_group});
}

int Probes::add(const kp_probe_def &record, kp_record_cb callback)
{
    auto probe = std::make_unique<Probe>(kernel_);
    if (!callback || !parse_definition(record, probe->def)) {
        KP_LOG(1, "a probe definition cannot be understood");
        return -EINVAL;
    }
    int status = probe->place();
    if (status < 0)
        return status;
    const common::Lock lock(lock_);
    if (probe->plan.names_group && (status = learn_groups()) < 0)
        return status;
    probes_.reserve(probes_.size() + 1);  // behind the definition nothing may fail
    probe->number = probes_.size();
    expect(*probe, callback);
    if (Probe *old = find(probe->def.name)) {
        undefine(*old);
        old->gone = true;
    }
    probe->on = probe->def.on;
    if (status = define(*probe); status < 0)
        return status;
    KP_LOG(3, "probe %s at %s, %zu arguments", probe->def.name.c_str(), probe->plan.point.c_str(),
           probe->plan.args.size());
    Probe &added = *probe;
    probes_.push_back(std::move(probe));
    restack(added);
    mark_mounts(added);
    switch_events(added);
    return 0;
}

// ---- switches and filters ----

// What the kernel is given for a filter in the monitor's words.
std::string Probes::kernel_filter(const Probe &probe, const std::string &text)
{
    if (probe.plan.shape == Shape::kInotify)
        return parts_.groups.filter(filter_with_ends(text));
    if (!probe.plan.by_device || text.empty())
        return text;
    return parts_.mounts.by_device(whole_filter(probe.def, text));
}

void Probes::switch_events(Probe &probe)
{
    if (probe.on)
        parts_.wake_ups.wake_from_now_on(probe.events.wake_ups);
    probe.events.records.enable(probe.on);
    if (!probe.on) {
        probe.events.wake_ups.enable(false);
        parts_.replacement.drop(probe.number);
    }
}

void Probes::mark_mounts(const Probe &probe)
{
    if (!probe.plan.needs_marks)
        return;
    if (probe.on)
        parts_.mounts.mark(probe.def.filter, marks_);
    else
        marks_.remove();
}

int Probes::enable(const std::string &name, bool on)
{
    const common::Lock lock(lock_);
    Probe *probe = find(name);
    if (!probe)
        return -ENOENT;
    // What is not to be told apart stays as it was.
    if (on && probe->plan.names_group && parts_.groups.learn(kernel_.tracefs, kernel_.facts) > 0)
        if (const int status = set_filter(probe->def.filter, *probe); status < 0)
            return status;
    probe->on = on;
    mark_mounts(*probe);
    switch_events(*probe);
    return 0;
}

int Probes::filter(const std::string &name, const std::string &text)
{
    const common::Lock lock(lock_);
    Probe *probe = find(name);
    if (!probe)
        return -ENOENT;
    if (text.size() > kMaxFilter)
        return -EINVAL;
    if (probe->plan.names_group)
        if (const int status = learn_groups(); status < 0)
            return status;
    return set_filter(text, *probe);
}

// A perf event takes a filter once, so that new events take the place of the old ones.
int Probes::set_filter(const std::string &text, Probe &probe)
{
    parts_.replacement.reserve();
    ProbeEvents events;
    std::string kept = text;
    std::vector<uint32_t> left_out = left_out_by(probe, text);
    const int status =
        probe.open_events(kernel_filter(probe, text), parts_.records.rings(), parts_.wake_ups.list(), events);
    if (status < 0)
        return status;
    // Behind the change nothing may fail.
    probe.def.filter.swap(kept);
    parts_.records.leave_out(probe.number, std::move(left_out));
    if (probe.on)
        parts_.replacement.replace(probe.number, probe.events, events);
    else
        probe.events = std::move(events);
    mark_mounts(probe);
    return 0;
}

uint64_t Probes::missed()
{
    const common::Lock lock(lock_);
    uint64_t missed = 0;
    for (const auto &probe : probes_)
        if (!probe->gone)
            missed += probe->missed();
    return missed;
}

// ---- CPUs, fork ----

int Probes::open_events_on(const Ring &ring, const Ring &wake_up)
{
    for (const auto &probe : probes_) {
        if (!probe->is_defined() || probe->gone)
            continue;
        if (const int status = probe->open_events_on(ring, wake_up); status < 0)
            return status;
    }
    return 0;
}

void Probes::drop_cpu(int cpu)
{
    for (const auto &probe : probes_)
        probe->events.drop(cpu);
    parts_.replacement.drop_cpu(cpu);
}

void Probes::abandon()
{
    for (const auto &probe : probes_)
        probe->abandon();
    marks_.remove();
}

}  // namespace kprobe
