#include "placement.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "below.h"

namespace agent
{

namespace
{

constexpr uint64_t fmon_left_out::*kCounters[] = {
    &fmon_left_out::inotify_limit, &fmon_left_out::fanotify_limit, &fmon_left_out::cache_full, &fmon_left_out::denied,
    &fmon_left_out::descriptors,   &fmon_left_out::too_long,       &fmon_left_out::gone,       &fmon_left_out::other,
};

/* Those that listen. The lock is taken with the monitor's lock held, never the other way round. */
struct Listening {
    common::Mutex lock = {};
    std::vector<Placement *> all GUARDED_BY(lock) = {};
};

Listening &listening()
{
    static Listening all;
    return all;
}

thread_local bool t_is_session = false; /* this thread's marks are its own session's doing */
thread_local bool t_is_news = false;    /* and those are of directories that were made */

bool is_own_thread(std::thread::id listener) { return std::this_thread::get_id() == listener; }

std::string with_error(const std::string &what, int error) { return error ? what + ": " + strerror(error) : what; }

}  // namespace

MarksAreNews::MarksAreNews() { t_is_news = true; }

MarksAreNews::~MarksAreNews() { t_is_news = false; }

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
    {
        const common::Lock hold(listening().lock);
        listening().all.push_back(this);
    }
    module.on_mark(on_mark);
}

void Placement::stop()
{
    if (!module_)
        return;
    bool last = false;
    {
        const common::Lock hold(listening().lock);
        std::erase(listening().all, this);
        last = listening().all.empty();
    }
    if (last)
        module_->on_mark(nullptr);
    module_ = nullptr;
}

void Placement::limit_to(const std::vector<std::string> &paths)
{
    limited_ = true;
    const common::Lock hold(lock_);
    found_.reached = paths;
}

void Placement::reach(const std::string &path)
{
    const common::Lock hold(lock_);
    if (limited_)
        found_.reached.push_back(path);
}

// A path that is too long to be built may be anybody's.
bool Placement::concerns(const char *path) const
{
    if (!limited_ || !*path)
        return true;
    const common::Lock hold(lock_);
    return std::any_of(found_.reached.begin(), found_.reached.end(),
                       [&](const std::string &reached) { return is_below(reached, path); });
}

void Placement::listen(Listener placed, Listener own)
{
    listener_ = std::this_thread::get_id();
    t_is_session = true;
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
    const common::Lock hold(listening().lock);
    for (Placement *const each : listening().all) {
        if (!each->concerns(refusal ? refusal->path : path))
            continue;
        if (refusal)
            each->refused(*refusal);
        else
            each->marked(path);
    }
}

void Placement::marked(const char *path)
{
    count_.fetch_add(1, std::memory_order_relaxed);
    const Listener *const placed = to_placed_.load(std::memory_order_acquire);
    if (!placed)
        return;
    if (is_own_thread(listener_))
        own_(path);
    else if (!t_is_session || t_is_news)
        (*placed)(path);
}

void Placement::refused(const struct fmon_refusal &refusal)
{
    if (refusal.reason == FMON_LEFT_DENIED) {
        const common::Lock hold(lock_);
        if (found_.first_denied.empty())
            found_.first_denied = refusal.path;
    }
    if (is_want_of_room(refusal.reason)) {
        const common::Lock hold(lock_);
        found_.without_room = refusal.path;
    }
    if (limited_)
        note(refusal);
    if (to_placed_.load(std::memory_order_acquire) && is_own_thread(listener_) && own_refusal_ == 0)
        own_refusal_ = refusal.reason;
    const Listener *const denied = to_denied_.load(std::memory_order_acquire);
    if (denied && refusal.reason == FMON_LEFT_DENIED && refusal.step == FMON_STEP_INOTIFY)
        (*denied)(refusal.path);
    if (refusal.reason != FMON_LEFT_GONE && !any_.exchange(true, std::memory_order_relaxed))
        changed_();
}

// An attempt that was refused twice counts once, for what was met first.
void Placement::note(const struct fmon_refusal &refusal)
{
    const common::Lock hold(lock_);
    const bool again = found_.noted.last.code != 0 && strcmp(found_.noted.last.path, refusal.path) == 0;
    found_.noted.last = refusal;
    if (!again && refusal.reason >= FMON_LEFT_INOTIFY_LIMIT && refusal.reason <= FMON_LEFT_OTHER)
        found_.noted.counts.*kCounters[refusal.reason - 1] += 1;
}

void Placement::told_before(uint32_t reason) { seen_.told_before.*kCounters[reason - 1] += 1; }

std::string Placement::without_room() const
{
    const common::Lock hold(lock_);
    return found_.without_room;
}

void Placement::found_room()
{
    const common::Lock hold(lock_);
    found_.without_room.clear();
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
    if (limited_)
        take_noted(found);
    else
        take_counted(now, found);
    for (const auto counter : kCounters)
        found.counts.*counter -= std::min(found.counts.*counter, seen_.told_before.*counter);
    seen_.told_before = {};
    const common::Lock hold(lock_);
    found.first_denied = std::exchange(found_.first_denied, {});
    return found;
}

void Placement::take_counted(const struct fmon_status &now, Findings &found)
{
    for (const auto counter : kCounters)
        found.counts.*counter = now.left_out.*counter - seen_.counts.*counter;
    if (now.refusals != seen_.refusals)
        found.last = now.last_refusal;
    seen_.counts = now.left_out;
    seen_.refusals = now.refusals;
}

void Placement::take_noted(Findings &found)
{
    const common::Lock hold(lock_);
    const Findings noted = std::exchange(found_.noted, {});
    found.counts = noted.counts;
    found.last = noted.last;
}

}  // namespace agent
