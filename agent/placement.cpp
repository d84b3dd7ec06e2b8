#include "placement.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace agent
{

namespace
{

constexpr uint64_t fmon_left_out::*kCounters[] = {
    &fmon_left_out::inotify_limit, &fmon_left_out::fanotify_limit, &fmon_left_out::cache_full, &fmon_left_out::denied,
    &fmon_left_out::descriptors,   &fmon_left_out::too_long,       &fmon_left_out::gone,       &fmon_left_out::other,
};

std::atomic<Placement *> g_placement; /* the one that listens; null: none */

bool is_own_thread(std::thread::id listener) { return std::this_thread::get_id() == listener; }

std::string with_error(const std::string &what, int error) { return error ? what + ": " + strerror(error) : what; }

}  // namespace

// What went away meanwhile is no loss.
uint64_t Findings::left_out() const
{
    uint64_t sum = 0;
    for (const auto counter : kCounters)
        sum += counts.*counter;
    return sum - counts.gone;
}

bool is_want_of_room(uint32_t reason)
{
    return reason == FMON_LEFT_INOTIFY_LIMIT || reason == FMON_LEFT_FANOTIFY_LIMIT || reason == FMON_LEFT_CACHE_FULL ||
           reason == FMON_LEFT_DESCRIPTORS;
}

bool Findings::limit_reached() const
{
    return counts.inotify_limit || counts.fanotify_limit || counts.cache_full || counts.descriptors;
}

std::string refusal_text(const struct fmon_refusal &last)
{
    const std::string path = last.path;
    switch (last.step) {
        case FMON_STEP_OPEN:
            return with_error("open " + path + " to mark it failed", last.error);
        case FMON_STEP_READ:
            return with_error("open dir " + path + " failed", last.error);
        case FMON_STEP_INOTIFY:
            return with_error("inotify add failed", last.error);
        case FMON_STEP_FANOTIFY:
            return with_error("fanotify add failed", last.error);
        case FMON_STEP_TABLE:
            return "add seq failed";
        case FMON_STEP_MEMORY:
            return with_error("malloc iterate failed", last.error);
        default:
            return {};
    }
}

std::string trouble_text(const struct fmon_source &monitor) { return with_error(monitor.why, monitor.error); }

void Placement::start(const Module &module)
{
    module_ = &module;
    g_placement.store(this, std::memory_order_release);
    module.on_mark(on_mark);
}

void Placement::stop()
{
    if (!module_)
        return;
    module_->on_mark(nullptr);
    g_placement.store(nullptr, std::memory_order_release);
    module_ = nullptr;
}

void Placement::listen(Listener placed, Listener own)
{
    listener_ = std::this_thread::get_id();
    placed_ = std::move(placed);
    own_ = std::move(own);
    to_placed_.store(&placed_, std::memory_order_release);
}

void Placement::listen_to_denials(Listener denied)
{
    denied_ = std::move(denied);
    to_denied_.store(&denied_, std::memory_order_release);
}

void Placement::on_mark(const char *path, const struct fmon_refusal *refusal)
{
    Placement *const self = g_placement.load(std::memory_order_acquire);
    if (!self)
        return;
    if (refusal)
        self->refused(*refusal);
    else
        self->marked(path);
}

void Placement::marked(const char *path)
{
    count_.fetch_add(1, std::memory_order_relaxed);
    const Listener *const placed = to_placed_.load(std::memory_order_acquire);
    if (placed)
        (is_own_thread(listener_) ? own_ : *placed)(path);
}

void Placement::refused(const struct fmon_refusal &refusal)
{
    if (refusal.reason == FMON_LEFT_DENIED) {
        const common::Lock hold(lock_);
        if (paths_.first_denied.empty())
            paths_.first_denied = refusal.path;
    }
    if (is_want_of_room(refusal.reason)) {
        const common::Lock hold(lock_);
        paths_.without_room = refusal.path;
    }
    if (to_placed_.load(std::memory_order_acquire) && is_own_thread(listener_) && own_refusal_ == 0)
        own_refusal_ = refusal.reason;
    const Listener *const denied = to_denied_.load(std::memory_order_acquire);
    if (denied && refusal.reason == FMON_LEFT_DENIED && refusal.step == FMON_STEP_INOTIFY)
        (*denied)(refusal.path);
    if (refusal.reason != FMON_LEFT_GONE && !any_.exchange(true, std::memory_order_relaxed))
        changed_();
}

void Placement::told_before(uint32_t reason) { seen_.told_before.*kCounters[reason - 1] += 1; }

std::string Placement::without_room() const
{
    const common::Lock hold(lock_);
    return paths_.without_room;
}

void Placement::found_room()
{
    const common::Lock hold(lock_);
    paths_.without_room.clear();
}

// A monitor that could not start, or had to end, reports that alone.
Findings Placement::take()
{
    Findings found;
    any_.store(false, std::memory_order_relaxed);
    struct fmon_status now = {};
    const bool runs = module_ && module_->read_status(now);
    found.ended = module_ && now.monitor.state == FMON_SOURCE_REFUSED;
    if (found.ended)
        found.monitor = now.monitor;
    if (!runs)
        return found;
    for (const auto counter : kCounters) {
        const uint64_t more = now.left_out.*counter - seen_.counts.*counter;
        found.counts.*counter = more - std::min(more, seen_.told_before.*counter);
    }
    seen_.told_before = {};
    if (now.refusals != seen_.refusals)
        found.last = now.last_refusal;
    seen_.counts = now.left_out;
    seen_.refusals = now.refusals;
    const common::Lock hold(lock_);
    found.first_denied = std::exchange(paths_.first_denied, {});
    return found;
}

}  // namespace agent
