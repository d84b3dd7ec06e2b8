#include "watched_paths.h"

#include <unistd.h>

#include <algorithm>

#include "below.h"
#include "message.h"
#include "mounts.h"
#include "orx_fmon.h"
#include "signals.h"

namespace agent
{

namespace
{

constexpr uint32_t kDeepest = 65535; /* levels below a watch, as the monitor keeps them */

/* Where a container has the host's file system, and, as PID/root, those of other containers (fanotify only). */
constexpr char kHostFiles[] = "/rootfs", kOtherRoots[] = "/proc/";

}  // namespace

WatchedPaths::WatchedPaths(const Request &request, const Module &module, Placement &placement, Plan &plan,
                           Report &report)
    : request_(request),
      module_(module),
      placement_(placement),
      plan_(plan),
      report_(report),
      placer_(request, module, placement, plan),
      guard_(plan.roots, [this](Root &root, const char *reason) { report_end(root, reason); }),
      mounts_([this](const std::string &point) { report_mount(point); }),
      walk_(module, placement)
{
    mounts_.look(read_mounts(), plan_.roots);
}

bool WatchedPaths::place(Intake &intake)
{
    if (request_.recursive && !request_.mount)
        placement_.listen_to_denials([this](const std::string &path) { unreadable_.refused(path); });
    {
        const StopAtOnce at_once;
        const Progress progress(!request_.quiet, placement_);
        placer_.run(intake);
    }
    if (!placer_.any_placed() || (placer_.refused() && !request_.keep_going) || !keep_trees())
        return false;
    wait_for_paths();
    return true;
}

// The trees in which new directories are to be completed.
bool WatchedPaths::keep_trees()
{
    if (!request_.recursive || request_.mount)
        return true;
    std::vector<std::string> roots;
    for (const Root &root : plan_.roots)
        roots.push_back(root.path);
    // A limit of depth has the monitor walk: a mark of a whole file system has none.
    const uint32_t depth = request_.max_depth || request_.source == Source::kMarks ? request_.max_depth : kDeepest;
    keeper_ = std::make_unique<TreeKeeper>(module_, roots, depth, plan_.spared);
    if (keeper_->start() < 0) {
        report_.warning("the monitor has no instance left");
        return false;
    }
    if (!request_.no_found)
        found_ = std::make_unique<Found>([this] { complete_trees(); });
    placement_.listen(
        [this](const std::string &path) {
            keeper_->made(path); /* first: found_ has the keeper run before it looks there */
            if (found_)
                found_->marked(path);
        },
        [this](const std::string &path) {
            keeper_->walk_marked();
            if (found_ && keeper_->walks_made())
                found_->marked(path);
        });
    return true;
}

void WatchedPaths::wait_for_paths()
{
    waiting_ = std::make_unique<Waiting>(
        plan_, placer_, module_.is_container(),
        Waiting::Reports{
            [this](const std::string &watched) { follow_root(watched); },
            [this](const std::string &path) { report_appearance(path); },
            [this](const std::string &path, const char *reason) { report_absence(path, reason); },
            [this](const std::string &line) { report_.warning(line); },
        });
    waiting_->start();
}

// Links and patterns lead to paths that nobody gave.
void WatchedPaths::follow_root(const std::string &path)
{
    report_.add_root(path);
    placement_.reach(path);
    if (keeper_)
        keeper_->add_root(path);
}

void WatchedPaths::report_appearance(const std::string &path)
{
    report_.appeared(path);
    if (!report_.has_records())
        report_.note(path + " is there, and watched");
}

void WatchedPaths::report_absence(const std::string &path, const char *reason)
{
    report_.ended(path, reason);
    if (!report_.has_records())
        report_.note(path + " was " + reason + "; it is waited for");
}

void WatchedPaths::report_end(Root &root, const char *reason)
{
    placer_.give_up(root);
    report_.ended(root.path, reason);
    report_.flush();
    report_.warning(root.path + " is no longer watched: it was " + reason +
                    " (with --wait its return would be waited for)");
}

void WatchedPaths::report_mount(const std::string &point)
{
    report_.loss("watches", 1, point);
    report_.warning("a file system came or went at " + point + ": what happened below it until now was not seen");
    if (has_marks_above(point))
        keeper_->again(point);
}

// Whether a tree whose directories have marks of their own reaches there.
bool WatchedPaths::has_marks_above(const std::string &point) const
{
    return std::any_of(plan_.roots.begin(), plan_.roots.end(), [&](const Root &root) {
        return !root.watched.empty() && !root.served && is_below(root.watched, point);
    });
}

Established WatchedPaths::established() const
{
    Established all = {{}, {}, placer_.directories(), placer_.source()};
    for (const Root &root : plan_.roots)
        if (root.placed && !root.match)
            (root.pattern || !root.watched.empty() ? all.paths : all.missing).push_back(root.path);
    return all;
}

void WatchedPaths::report_start()
{
    const Established all = established();
    report_.established(all);
    report_left_out_at_start();
    report_.flush();
    if (!report_.has_records())
        note_start(all);
    for (const std::string &line : placer_.fallback_lines())
        report_.note(line);
    note_container(all.paths);
}

// The placer has said what it was refused. What the monitor was refused since then, in a watched tree, it has not, and
// the session will not: it takes what has been reported for said.
void WatchedPaths::report_left_out_at_start()
{
    const uint64_t said = placer_.left_out();
    const LeftOut left_out = report_left_out(said);
    if (left_out.reported <= said)
        return;
    Findings since;
    since.counts.denied = left_out.reported - said;
    since.first_denied = left_out.latest;
    report_.warning(explain_left_out("", since, since.counts.denied, gather_facts()));
}

std::string WatchedPaths::how_watched(const Established &all) const
{
    std::string marks;
    if (request_.recursive && all.directories)
        marks = counted(all.directories, "directory");
    if (all.source != "marks")
        marks += std::string(marks.empty() ? "" : " and ") +
                 (all.paths.size() == 1 ? "a mark of its file system" : "marks of file systems");
    return marks.empty() ? "" : " (" + marks + ")";
}

void WatchedPaths::note_start(const Established &all) const
{
    const auto names = [](const std::vector<std::string> &paths) {
        return paths.size() == 1 ? paths[0] : counted(paths.size(), "path");
    };
    std::string text = all.paths.empty() ? "" : "watching " + names(all.paths);
    text += how_watched(all);
    if (!all.missing.empty())
        text += (text.empty() ? "waiting for " : ", waiting for ") + names(all.missing);
    if (geteuid() != 0)
        text += "; without root, events do not name their process";
    report_.note(text);
}

// Of what a container sees, only the host's files are watched; other paths are accepted and stay silent. Marks on
// mounts do not ask where they are.
void WatchedPaths::note_container(const std::vector<std::string> &paths) const
{
    if (!module_.is_container() || request_.mount)
        return;
    for (const std::string &path : paths)
        if (!path.starts_with(kHostFiles) && !path.starts_with(kOtherRoots))  // as the monitor tells them apart
            report_.note(path + " stays silent: inside a container only what is below " + kHostFiles + " is seen");
}

// Trees first: what happens in a new directory is seen only once it is marked.
void WatchedPaths::before(const Batch &batch)
{
    complete_trees();
    if (found_)
        found_->begin(batch);
}

// Where creations are not shown, none is looked for.
void WatchedPaths::report_found(const Event &event)
{
    if (plan_.instances[event.source].shown & FMON_CREATE)
        found_->shown(event, [this](const Event &found) { report_.event(found); });
}

void WatchedPaths::shown(const Event &event)
{
    if (found_)
        report_found(event);
    guard_.event(event.path, event.mask);
    waiting_->event(event.path, event.mask);
    readable_ |= (event.mask & FMON_ATTRIB) && unreadable_.knows(event.path);
}

void WatchedPaths::after()
{
    if (std::exchange(readable_, false))
        look_at_unreadable();
}

void WatchedPaths::look()
{
    look_at_paths();
    look_at_unreadable();
    if (found_)
        found_->look();
}

void WatchedPaths::look_at_paths()
{
    guard_.look();
    waiting_->look();
}

void WatchedPaths::look_at_unreadable()
{
    if (!keeper_ || !unreadable_.any())
        return;
    unreadable_.look([this](const std::string &path) { keeper_->again(path); });
    walk_again();
}

void WatchedPaths::walk_again()
{
    keeper_->run();
    const TreeKeeper::Again again = keeper_->take_again();
    if (!again.paths.empty())
        report_whole(again.paths, again.directories);
}

void WatchedPaths::report_whole(const std::vector<std::string> &paths, uint64_t directories)
{
    report_.resynced(paths, directories);
    if (!report_.has_records())
        report_.note("after the loss all is watched again: " + counted(directories, "directory") + " that " +
                     (directories == 1 ? "was" : "were") + " not");
}

// What a mark of its file system serves needs no walk.
void WatchedPaths::start_walk()
{
    if (found_)
        found_->clear();
    std::vector<std::string> roots;
    for (const Root &root : plan_.roots)
        if (request_.recursive && !request_.mount && !root.watched.empty() && !root.served && !root.identity.is_file())
            roots.push_back(root.watched);
    walk_.start(roots, request_.max_depth);
}

void WatchedPaths::report_resynced()
{
    std::vector<std::string> paths;
    for (const Root &root : plan_.roots)
        if (!root.watched.empty())
            paths.push_back(root.watched);
    if (!paths.empty())
        report_whole(paths, walk_.take_new());
}

void WatchedPaths::mounts_changed()
{
    if (keeper_) {
        mounts_.look(read_mounts(), plan_.roots);
        walk_again();
    }
    look_at_paths();
}

void WatchedPaths::complete_trees()
{
    if (keeper_)
        keeper_->run();
}

bool WatchedPaths::is_expecting() const { return waiting_->any() || unreadable_.any() || lacks_room(); }

bool WatchedPaths::is_given(const std::string &path) const
{
    return std::any_of(plan_.roots.begin(), plan_.roots.end(),
                       [&](const Root &root) { return root.path == path || root.watched == path; });
}

// A path that was given is refused as a whole, which is said elsewhere.
Watched::LeftOut WatchedPaths::report_left_out(uint64_t count)
{
    const Unreadable::News news = unreadable_.take();
    LeftOut left_out;
    for (const std::string &path : news.paths) {
        if (is_given(path))
            continue;
        report_.loss("watches", 1, path);
        left_out.reported++;
        left_out.latest = path;
    }
    // A refusal that comes between the look at the counters and this one is named now and counted later.
    const uint64_t known = left_out.reported + news.repeated, due = std::exchange(ahead_, 0) + known;
    const uint64_t rest = count - std::min(count, due);
    ahead_ = std::min(known, due - std::min(count, due));
    if (rest)
        report_.loss("watches", rest, "");
    left_out.reported += rest;
    return left_out;
}

}  // namespace agent
