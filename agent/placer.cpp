#include "placer.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "common/mutex.h"
#include "fallback.h"
#include "marks.h"
#include "message.h"
#include "monitor.h"

namespace agent
{

namespace
{

// A watch that marks every directory below its path.
bool is_tree(const PlannedWatch &watch) { return (watch.flags & FMON_RECURSIVE) && !(watch.flags & FMON_MOUNT); }

}  // namespace

void Placer::run(Intake &intake)
{
    if (!create_instances(intake))
        return;
    for (Root &root : plan_.roots)
        root.placed = root.waits;
    for (const PlannedWatch &watch : plan_.watches)
        add(watch);
    if (options_.mount)
        check_mounts();
    for (const Root &root : plan_.roots)
        any_placed_ |= root.placed;
}

bool Placer::create_instances(Intake &intake)
{
    for (const PlannedInstance &instance : plan_.instances) {
        // What ends a watch and what is new in a tree is seen by the command even when it is not shown.
        const uint32_t wanted = instance.shown | FMON_DELETE_SELF | FMON_MOVE_SELF | FMON_CREATE;
        const int id = make_instance(module_, instance.name.c_str(), intake.add_source(wanted), plan_.spared);
        if (id < 0) {
            complain("the monitor made no instance (code " + std::to_string(id) + ")");
            refused_ = true;
            return false;
        }
        instances_.push_back(id);
    }
    return true;
}

struct fmon_fs_status Placer::file_systems() const
{
    struct fmon_status now = {};
    return module_.read_status(now) ? now.fs : fmon_fs_status{};
}

// Whether it is served by a mark of its file system, the status says: nobody else adds watches meanwhile.
Placer::Answer Placer::request(const PlannedWatch &watch) const
{
    const common::Lock hold(placing_lock());
    const uint64_t marks = all_inotify_watches();
    const struct fmon_fs_status before = file_systems();
    Answer answer;
    answer.code = module_.add_watch(static_cast<uint32_t>(instances_[watch.instance]), watch.path.c_str(), watch.mask,
                                    watch.flags, options_.max_depth, options_.max_subdirs);
    const struct fmon_fs_status now = file_systems();
    const uint64_t more = all_inotify_watches();
    own_marks_ += more - std::min(more, marks);
    answer.served = answer.code == 0 && now.watches > before.watches;
    if (!answer.served && now.fallbacks > before.fallbacks)
        answer.fallback = now.last_fallback;
    if (answer.code == 0 && !answer.served && options_.source == Source::kFilesystem) {
        take_back(watch);
        answer.code = kNotServed;
    }
    return answer;
}

// What cannot be had in one watch is asked for in two.
Placer::Answer Placer::request_all(const PlannedWatch &watch) const
{
    const Answer answer = request(watch);
    const bool is_apart = answer.code == FMON_ENOTSUP || answer.code == kNoFanotify || answer.code == kFanotifyRefused;
    if (!is_apart || options_.source == Source::kFilesystem)
        return answer;
    const std::vector<PlannedWatch> parts = watches_apart(options_, watch);
    Answer last = answer;
    for (size_t i = 0; i < parts.size(); i++) {
        last.code = request(parts[i]).code;
        if (last.code == 0)
            continue;
        const common::Lock hold(placing_lock());
        if (i > 0)
            take_back(parts[0]);
        break;
    }
    return last;
}

void Placer::take_back(const PlannedWatch &watch) const
{
    module_.del_watch(static_cast<uint32_t>(instances_[watch.instance]), watch.path.c_str());
}

void Placer::add(const PlannedWatch &watch)
{
    Root &root = plan_.roots[watch.root];
    const Answer answer = request_all(watch);
    const Findings findings = placement_.take();
    if (answer.code == FMON_ENOENT && root.waits)
        return;
    if (answer.code != 0)
        return refuse(watch, answer, findings);
    root.placed = true;
    root.served = answer.served;
    root.watched = root.path;
    note_fallback(watch, answer);
    if (findings.left_out())
        report_left_out(watch, findings);
}

// Where a tree costs a mark for each directory although it need not, as root could help.
void Placer::note_fallback(const PlannedWatch &watch, const Answer &answer)
{
    const uint32_t reason = answer.fallback.reason;
    const bool is_chosen = reason == FMON_FALLBACK_NONE || reason == FMON_FALLBACK_KIND;
    if (is_chosen || reason == FMON_FALLBACK_CONTAINER || !is_tree(watch) || geteuid() != 0)
        return;
    fallbacks_.push_back(watch.path +
                         " has marks on each directory: " + explain_fallback(answer.fallback, true).line());
}

int Placer::take_up(size_t index, const std::string &path)
{
    Root &root = plan_.roots[index];
    for (PlannedWatch &watch : watches_of(options_, root, index)) {
        watch.path = path;
        watch.flags |= FMON_NO_LINKS;
        const Answer answer = request_all(watch);
        if (answer.code != 0) {
            failure_ = refusal_of(watch, answer, placement_.take());
            give_up(root);
            return answer.code;
        }
        root.served = answer.served;
        root.watched = path;
    }
    return 0;
}

std::string Placer::why() const { return explain_retry(failure_, facts()); }

void Placer::give_up(Root &root)
{
    const common::Lock hold(placing_lock());
    for (const int instance : instances_)
        if (!root.watched.empty())
            module_.del_watch(static_cast<uint32_t>(instance), root.watched.c_str());
    root.watched.clear();
    root.served = false;
}

void Placer::leave()
{
    const common::Lock hold(placing_lock());
    for (const int instance : instances_)
        module_.del_instance(static_cast<uint32_t>(instance));
    instances_.clear();
}

Facts Placer::facts() const
{
    Facts facts = gather_facts();
    facts.max_dentries = max_dentries(options_);
    return facts;
}

Refusal Placer::refusal_of(const PlannedWatch &watch, const Answer &answer, const Findings &findings)
{
    return {watch.path, answer.code,    (watch.flags & FMON_MOUNT) != 0, (watch.flags & FMON_PID) != 0,
            findings,   answer.fallback};
}

void Placer::refuse(const PlannedWatch &watch, const Answer &answer, const Findings &findings)
{
    complain(explain_refusal(refusal_of(watch, answer, findings), facts()));
    refused_ = true;
}

void Placer::report_left_out(const PlannedWatch &watch, const Findings &findings)
{
    const uint64_t count = count_left_out(findings);
    complain(explain_left_out(watch.path, findings, count, facts()));
    left_out_ += count;
    refused_ |= findings.limit_reached();
}

// A directory that found no room in the cache is not entered, so those below it are refused nowhere: then all that
// should be watched is counted, and what is watched taken off.
uint64_t Placer::count_left_out(const Findings &findings) const
{
    if (!findings.counts.cache_full)
        return findings.left_out();
    uint64_t wanted = 0;
    for (const PlannedWatch &watch : plan_.watches)
        if (is_tree(watch) && plan_.roots[watch.root].placed && !plan_.roots[watch.root].served)
            wanted += 1 + count_directories(watch.path, options_.max_depth, UINT64_MAX);
    const uint64_t watched = inotify_watches();
    return std::max(findings.left_out(), wanted - std::min(wanted, watched));
}

// The monitor marks the nearest mount in its table, which holds writable devices only: for any other file system that
// is a mount on which nothing of the path happens.
void Placer::check_mounts()
{
    const std::vector<uint64_t> marked = process_marks("self").fanotify_mounts;
    for (Root &root : plan_.roots) {
        if (!root.placed || std::find(marked.begin(), marked.end(), root.identity.mount_id) != marked.end())
            continue;
        complain(root.path +
                 " lies on a file system that cannot be marked as a whole (only writable devices can, and "
                 "bind mounts cannot): watch it without --mount");
        root.placed = false;
        refused_ = true;
    }
}

// What comes later is not known where other sessions have marks, too.
uint64_t Placer::inotify_watches() const { return placement_.is_limited() ? own_marks_ : all_inotify_watches(); }

uint64_t Placer::all_inotify_watches() const
{
    struct fmon_status now;
    return module_.read_status(now) ? now.inotify_watches : 0;
}

// Each watched file has an inotify watch, too, and so has, for its own end, each directory that a mark of its file
// system serves.
uint64_t Placer::directories() const
{
    uint64_t others = 0;
    for (const Root &root : plan_.roots)
        others += !root.watched.empty() && (root.served || root.identity.is_file());
    const uint64_t watches = inotify_watches();
    return watches - std::min(watches, others);
}

const char *Placer::source() const
{
    bool served = false, marked = directories() > 0;
    for (const Root &root : plan_.roots) {
        served |= root.served;
        marked |= !root.watched.empty() && !root.served;
    }
    return served && marked ? "both" : served ? "filesystem" : "marks";
}

struct Progress::State {
    const Placement &placement;
    common::Mutex lock = {};
    common::Condition changed = {};
    bool over GUARDED_BY(lock) = false;
    std::thread thread = {};

    void run()
    {
        const common::Lock hold(lock);
        while (!changed.wait_for(lock, std::chrono::milliseconds(400), [this]() REQUIRES(lock) { return over; }))
            say("\r" + counted(placement.placed(), "directory") + " ...\033[K");
        say("\r\033[K");
    }
};

Progress::Progress(bool wanted, const Placement &placement)
{
    if (!wanted || !stderr_is_terminal())
        return;
    state_ = new State{placement};
    state_->thread = std::thread([state = state_] { state->run(); });
}

Progress::~Progress()
{
    if (!state_)
        return;
    {
        const common::Lock hold(state_->lock);
        state_->over = true;
    }
    state_->changed.notify_one();
    state_->thread.join();
    delete state_;
}

}  // namespace agent
