#include "probe.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "log.h"
#include "translate.h"

namespace kprobe
{

namespace
{

constexpr size_t kMaxName = 40;  // of an event; the kernel takes 63 bytes with the process id

}  // namespace

int Probe::place()
{
    std::string why;
    if (translate(def, kernel_.facts, plan, why))
        return 0;
    KP_LOG(1, "probe %s cannot be placed: %s", def.name.c_str(), why.c_str());
    return -EINVAL;
}

int Probe::define(unsigned serial, Layout &layout)
{
    // Never a name again: an earlier definition may have been busy when it was to be deleted.
    event_ = def.name.substr(0, kMaxName) + "_" + std::to_string(getpid()) + "_" + std::to_string(serial);
    std::string why;
    const int status = kernel_.tracefs.define(plan.command(kernel_.group, event_), why);
    if (status < 0) {
        KP_LOG(1, "probe %s at %s refused: %s", def.name.c_str(), plan.point.c_str(), why.c_str());
        return status;
    }
    made_ = true;
    const int id = kernel_.tracefs.event_id(kernel_.group, event_);
    if (id < 0 || !layout.resolve(plan, kernel_.tracefs.format(kernel_.group, event_))) {
        KP_LOG(1, "probe %s has another layout than was asked for", def.name.c_str());
        return -EINVAL;
    }
    event_id_ = id;
    return 0;
}

void Probe::remove() noexcept
{
    int status = -ENOMEM;
    try {
        status = kernel_.tracefs.remove(kernel_.group, event_);
    } catch (const std::exception &) {  // out of memory
    }
    if (status < 0)
        KP_LOG(2, "probe %s stays in the kernel: %s", def.name.c_str(), strerror(-status));
    event_id_ = -1;
    made_ = false;
}

std::string Probe::why_refused(const std::string &filter) const
{
    const int watcher = kernel_.facts.deletes_safely() ? 0 : kernel_.tracefs.watcher();
    if (watcher == 0)
        return kernel_.tracefs.filter_error(kernel_.group, event_, filter);
    return strerror(EINVAL) + std::string("; process ") + std::to_string(watcher) +
           " watches tracefs with fanotify, so that the kernel is not asked for its reason";
}

int Probe::open_events(const std::string &filter, const std::vector<Ring *> &rings, const std::vector<Ring *> &wake_ups,
                       ProbeEvents &out)
{
    bool bad_filter;
    int status = out.records.open(event_id_, rings, filter, bad_filter);
    if (status == 0)
        status = out.wake_ups.open(event_id_, wake_ups, filter, bad_filter);
    if (status == 0)
        in_kernel_ = filter;
    else if (bad_filter)
        KP_LOG(1, "filter of %s refused: %s: %s", def.name.c_str(), filter.c_str(), why_refused(filter).c_str());
    else
        KP_LOG(1, "probe %s cannot be read: %s", def.name.c_str(), strerror(-status));
    return status;
}

int Probe::open_events_on(const Ring &ring, const Ring &wake_up)
{
    bool bad_filter;
    int status = events.records.add(event_id_, ring, in_kernel_, bad_filter);
    if (status == 0)
        status = events.wake_ups.add(event_id_, wake_up, in_kernel_, bad_filter);
    if (status == 0 && on) {
        events.wake_ups.enable(true, wake_up.cpu());
        events.records.enable(true, ring.cpu());
    }
    return status;
}

uint64_t Probe::missed() const
{
    const bool may_be_faults = kernel_.facts.faults_are_misses && plan.shape != Shape::kFile;
    return may_be_faults ? 0 : kernel_.tracefs.missed(event_);
}

void Probe::abandon()
{
    events.close();
    event_id_ = -1;
    made_ = false;
}

}  // namespace kprobe
