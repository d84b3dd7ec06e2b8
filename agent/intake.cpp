#include "intake.h"

#include <unistd.h>

#include <array>
#include <utility>

#include "common/mutex.h"

#include "orx_host.h"
#include "time_format.h"

namespace agent
{

namespace
{

/* A callback has no argument of its own: each knows its place by its number. */
struct Place {
    std::atomic<Intake *> intake; /* null: free */
    uint32_t source;
};
Place g_places[FMON_MAX_INSTANCES];

template <size_t Number>
int32_t callback(struct event *event)
{
    Intake *const intake = g_places[Number].intake.load(std::memory_order_acquire);
    return intake ? intake->accept(g_places[Number].source, *event) : 0;
}

template <size_t... Numbers>
constexpr std::array<fmon_client_cb, sizeof...(Numbers)> callbacks(std::index_sequence<Numbers...>)
{
    return {callback<Numbers>...};
}

constexpr auto kCallbacks = callbacks(std::make_index_sequence<FMON_MAX_INSTANCES>());

common::Mutex g_lock; /* of taking a place */

// The number of the place that was free; FMON_MAX_INSTANCES: none was.
size_t take_place(Intake *intake, uint32_t source)
{
    const common::Lock hold(g_lock);
    size_t number = 0;
    while (number < FMON_MAX_INSTANCES && g_places[number].intake.load(std::memory_order_relaxed))
        number++;
    if (number < FMON_MAX_INSTANCES) {
        g_places[number].source = source;
        g_places[number].intake.store(intake, std::memory_order_release);
    }
    return number;
}

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
    wanted_[sources_] = wanted;
    const size_t place = take_place(this, static_cast<uint32_t>(sources_));
    if (place == FMON_MAX_INSTANCES)
        return nullptr;
    sources_++;
    return kCallbacks[place];
}

Intake::~Intake()
{
    const common::Lock hold(g_lock);
    for (Place &place : g_places)
        if (place.intake.load(std::memory_order_relaxed) == this)
            place.intake.store(nullptr, std::memory_order_release);
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
    struct fmon_event_details more = {sizeof more, FMON_DIR_UNKNOWN, 0};
    if (details_)
        details_(&event, &more);
    Event copy = {wall_clock_ns(), mask, event.pid, source, event.path, event.container ? event.container : "",
                  nullptr};
    copy.dir = static_cast<Known>(more.dir);
    copy.move = more.move;
    return queue_.push(copy, std::move(process)) ? 0 : kPauseMs;
}

}  // namespace agent
