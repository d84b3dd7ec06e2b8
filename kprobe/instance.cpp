#include "instance.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>

#include "clock.h"
#include "filter.h"
#include "log.h"
#include "translate.h"

namespace kprobe
{

namespace
{

constexpr size_t kMaxName = 40;  // of an event; the kernel takes 63 bytes with the process id

}  // namespace

Instance::Instance(const Tracefs &tracefs, const Facts &facts, std::string group)
    : tracefs_(tracefs), facts_(facts), group_(std::move(group))
{
}

Instance::~Instance()
{
    const std::lock_guard lock(control_);
    for (const auto &probe : probes_)
        undefine(probe.get());
}

// ---- probes ----

Instance::Probe *Instance::find(const std::string &event)
{
    for (const auto &probe : probes_)
        if (!probe->gone && probe->def.name == event)
            return probe.get();
    return nullptr;
}

// What the kernel is given for a filter in the monitor's words.
std::string Instance::kernel_filter(const Probe &probe, const std::string &text)
{
    if (probe.plan.shape == Shape::kInotify)
        return groups_.filter(filter_with_ends(text));
    if (!probe.plan.by_device || text.empty())
        return text;
    return mounts_.by_device(whole_filter(probe.def, text));
}

std::string Instance::why_refused(const Probe &probe, const std::string &filter) const
{
    const int watcher = facts_.deletes_safely() ? 0 : tracefs_.watcher();
    if (watcher == 0)
        return tracefs_.filter_error(group_, probe.event, filter);
    return strerror(EINVAL) + std::string("; process ") + std::to_string(watcher) +
           " watches tracefs with fanotify, so that the kernel is not asked for its reason";
}

int Instance::open_events(Probe *probe, const std::string &filter, ProbeEvents *events)
{
    bool bad_filter;
    int status = events->records.open(probe->event_id, records_.rings(), filter, &bad_filter);
    if (status == 0)
        status = events->bells.open(probe->event_id, bells_.list(), filter, &bad_filter);
    if (status == 0)
        probe->in_kernel = filter;
    if (status < 0 && bad_filter)
        KP_LOG(1, "filter of %s refused: %s: %s", probe->def.name.c_str(), filter.c_str(),
               why_refused(*probe, filter).c_str());
    else if (status < 0)
        KP_LOG(1, "probe %s cannot be read: %s", probe->def.name.c_str(), strerror(-status));
    return status;
}

// From a plan to a probe in the kernel, switched off; nothing of it where that fails.
int Instance::define(Probe *probe)
{
    int status = -ENOMEM;
    try {
        status = define_in_kernel(probe);
    } catch (const std::exception &) {  // out of memory
    }
    if (status < 0)
        undefine(probe);
    return status;
}

int Instance::define_in_kernel(Probe *probe)
{
    // Never a name again: an earlier definition may have been busy when it was to be deleted.
    probe->event = probe->def.name.substr(0, kMaxName) + "_" + std::to_string(getpid());
    probe->event += "_" + std::to_string(serial_++);
    std::string why;
    const std::string command = probe->plan.command(group_, probe->event);
    const int status = tracefs_.define(command, &why);
    if (status < 0) {
        KP_LOG(1, "probe %s at %s refused: %s", probe->def.name.c_str(), probe->plan.point.c_str(), why.c_str());
        return status;
    }
    probe->defined = true;
    const int id = tracefs_.event_id(group_, probe->event);
    Layout layout;
    if (id < 0 || !layout.resolve(probe->plan, tracefs_.format(group_, probe->event))) {
        KP_LOG(1, "probe %s has another layout than was asked for", probe->def.name.c_str());
        return -EINVAL;
    }
    probe->event_id = id;
    delivery_.lay_out(probe->number, std::move(layout));
    records_.belong(id, probe->number);
    return open_events(probe, kernel_filter(*probe, probe->def.filter), &probe->events);
}

void Instance::undefine(Probe *probe) noexcept
{
    if (!probe->defined)
        return;
    probe->events.close();
    replacement_.drop(probe->number);
    int status = -ENOMEM;
    try {
        status = tracefs_.remove(group_, probe->event);
        sweep(0);                       // what it wrote still belongs to it
    } catch (const std::exception &) {  // out of memory
    }
    if (status < 0)
        KP_LOG(2, "probe %s stays in the kernel: %s", probe->def.name.c_str(), strerror(-status));
    records_.belong(-1, probe->number);
    probe->event_id = -1;
    probe->defined = false;
}

// Probes at one function are run in the reverse order of their definition. The monitor defines in the order in which
// it wants to hear (of a rename the old name first), so that every earlier one is made anew behind the latest.
void Instance::restack(Probe *added)
{
    for (size_t i = probes_.size(); i-- > 0;) {
        Probe *probe = probes_[i].get();
        if (probe == added || probe->gone || probe->plan.point != added->plan.point)
            continue;
        undefine(probe);
        if (define(probe) < 0)
            probe->gone = true;
        else
            switch_events(probe);
    }
}

void Instance::switch_events(Probe *probe)
{
    if (probe->on)
        bells_.ring_from_now_on(&probe->events.bells);
    probe->events.records.enable(probe->on);
    if (!probe->on) {
        probe->events.bells.enable(false);
        replacement_.drop(probe->number);
    }
}

std::vector<uint32_t> Instance::left_out_by(const Probe &probe, const std::string &filter)
{
    return probe.plan.shape == Shape::kInotify ? threads_left_out(filter) : std::vector<uint32_t>();
}

void Instance::keep_filter(Probe *probe, std::string text, std::vector<uint32_t> left_out) noexcept
{
    probe->def.filter.swap(text);
    records_.leave_out(probe->number, std::move(left_out));
}

int Instance::learn_groups()
{
    const int status = groups_.learn(tracefs_, facts_);
    if (status < 0)
        KP_LOG(1, "inotify instances of this process cannot be told from others: %s", strerror(-status));
    return std::min(status, 0);
}

// Its number may be that of a probe that could not be defined, of which there are no records.
void Instance::expect(const Probe &probe, kp_record_cb callback)
{
    const Plan &plan = probe.plan;
    records_.expect(probe.number, left_out_by(probe, probe.def.filter));
    delivery_.expect(probe.number, {callback, plan.by_device, plan.shape == Shape::kInotify, plan.tells_group});
}

int Instance::add(const kp_probe_def &record, kp_record_cb callback)
{
    auto probe = std::make_unique<Probe>();
    std::string why;
    if (!callback || !parse_definition(record, &probe->def)) {
        KP_LOG(1, "a probe definition cannot be understood");
        return -EINVAL;
    }
    if (!translate(probe->def, facts_, &probe->plan, &why)) {
        KP_LOG(1, "probe %s cannot be placed: %s", probe->def.name.c_str(), why.c_str());
        return -EINVAL;
    }
    const std::lock_guard lock(control_);
    if (probe->plan.tells_group)
        if (const int status = learn_groups(); status < 0)
            return status;
    probes_.reserve(probes_.size() + 1);  // behind the definition nothing may fail
    probe->number = probes_.size();
    expect(*probe, callback);
    if (Probe *old = find(probe->def.name)) {
        undefine(old);
        old->gone = true;
    }
    probe->on = probe->def.on;
    if (const int status = define(probe.get()); status < 0)
        return status;
    KP_LOG(3, "probe %s at %s, %zu arguments", probe->def.name.c_str(), probe->plan.point.c_str(),
           probe->plan.args.size());
    Probe *added = probe.get();
    probes_.push_back(std::move(probe));
    restack(added);
    mark_mounts(*added);
    switch_events(added);
    return 0;
}

void Instance::mark_mounts(const Probe &probe)
{
    if (!probe.plan.needs_marks)
        return;
    if (probe.on)
        mounts_.mark(probe.def.filter, &marks_);
    else
        marks_.remove();
}

int Instance::enable(const std::string &event, bool on)
{
    const std::lock_guard lock(control_);
    Probe *probe = find(event);
    if (!probe)
        return -ENOENT;
    // What is not to be told apart stays as it was.
    if (on && probe->plan.tells_group && groups_.learn(tracefs_, facts_) > 0)
        if (const int status = set_filter(probe, probe->def.filter); status < 0)
            return status;
    probe->on = on;
    mark_mounts(*probe);
    switch_events(probe);
    return 0;
}

int Instance::filter(const std::string &event, const std::string &text)
{
    const std::lock_guard lock(control_);
    Probe *probe = find(event);
    if (!probe)
        return -ENOENT;
    if (text.size() > kMaxFilter)
        return -EINVAL;
    if (probe->plan.tells_group)
        if (const int status = learn_groups(); status < 0)
            return status;
    return set_filter(probe, text);
}

// A perf event takes a filter once, so that new events take the place of the old ones.
int Instance::set_filter(Probe *probe, const std::string &text)
{
    replacement_.reserve();  // behind the change nothing may fail
    ProbeEvents events;
    std::string kept = text;
    std::vector<uint32_t> left_out = left_out_by(*probe, text);
    if (const int status = open_events(probe, kernel_filter(*probe, text), &events); status < 0)
        return status;
    keep_filter(probe, std::move(kept), std::move(left_out));
    if (probe->on)
        replacement_.replace(probe->number, &probe->events, &events);
    else
        probe->events = std::move(events);
    mark_mounts(*probe);
    return 0;
}

bool Instance::losses(kp_losses *out)
{
    const std::lock_guard lock(control_);
    uint64_t missed = 0;
    for (const auto &probe : probes_)
        if (!probe->gone)
            missed += tracefs_.missed(probe->event);
    *out = records_.counts();
    delivery_.add_counts(out);
    out->missed = missed;
    return true;
}

// ---- fork ----

void Instance::lock_for_fork()
{
    control_.lock();
    bells_.mutex().lock();
    replacement_.mutex().lock();
    records_.mutex().lock();
}

void Instance::unlock_for_fork()
{
    records_.mutex().unlock();
    replacement_.mutex().unlock();
    bells_.mutex().unlock();
    control_.unlock();
}

// Perf events that a child holds open would go on costing after the parent has gone.
void Instance::abandon()
{
    for (const auto &probe : probes_) {
        probe->events.close();
        probe->event_id = -1;
        probe->defined = false;
    }
    records_.abandon();
    bells_.abandon();
    replacement_.abandon();
    marks_.remove();
    groups_.abandon();
}

}  // namespace kprobe
