#include "intake.h"

#include <unistd.h>

#include <utility>

#include "orx_host.h"
#include "time_format.h"

namespace agent
{

namespace
{

Intake *g_intake; /* a callback has no argument of its own */

template <uint32_t Source>
int32_t callback(struct event *event)
{
    return g_intake->accept(Source, *event);
}

constexpr fmon_client_cb kCallbacks[Intake::kMaxSources] = {callback<0>, callback<1>, callback<2>, callback<3>,
                                                            callback<4>};

}  // namespace

uint32_t Intake::own_pid() { return static_cast<uint32_t>(getpid()); }

// Probes name the thread, and the monitor's own thread writes its log.
bool Intake::is_own(uint32_t pid) const
{
    static thread_local const uint32_t thread = static_cast<uint32_t>(gettid());
    return pid == self_ || pid == thread;
}

fmon_client_cb Intake::add_source(uint32_t wanted)
{
    if (sources_ == kMaxSources)
        return nullptr;
    g_intake = this;
    wanted_[sources_] = wanted;
    return kCallbacks[sources_++];
}

// /proc is read with the monitor's lock held: a process may be gone a moment later, and each is read once in a while.
int32_t Intake::accept(uint32_t source, const struct event &event)
{
    // The record's mask is the union of all that happened, not only of what this instance's watch asks for.
    const uint32_t mask = event.mask & wanted_[source];
    if (mask == 0 || is_own(event.pid))
        return 0;
    if (held_.load(std::memory_order_relaxed))
        return kPauseMs;
    ProcessPtr process;
    if (event.pid != 0) {
        if (queue_.full())
            return kPauseMs;
        process = processes_.find(event.pid, orx_host_lock_count(), steady_ms());
    }
    const Event copy = {wall_clock_ns(), mask, event.pid, source, event.path, event.container ? event.container : "",
                        nullptr};
    return queue_.push(copy, std::move(process)) ? 0 : kPauseMs;
}

}  // namespace agent
