/* The part of a session that is about paths: placing, waiting, new directories, mounts. */
#include <unistd.h>

#include <algorithm>

#include "agent/message.h"
#include "agent/signals.h"
#include "orx_fmon.h"
#include "session.h"

namespace cli
{

namespace
{

/* Where a container has the host's file system, and, as PID/root, those of other containers (fanotify only). */
constexpr char kHostFiles[] = "/rootfs", kOtherRoots[] = "/proc/";

}  // namespace

// Everything is in place before the first event is shown; what comes meanwhile waits in the queue.
bool Session::place()
{
    if (options_.recursive && !options_.mount)
        placement_.listen_to_denials([this](const std::string &path) { unreadable_.refused(path); });
    placer_ = std::make_unique<agent::Placer>(options_, module_, placement_, plan_);
    {
        const agent::StopAtOnce at_once;
        const agent::Progress progress(!options_.quiet, placement_);
        placer_->run(intake_);
    }
    if (!placer_->any_placed() || (placer_->refused() && !options_.keep_going) || !keep_tree())
        return false;
    wait_for_paths();
    return begin() && tell_start();
}

bool Session::tell_start()
{
    agent::Established all = {{}, {}, placer_->directories()};
    for (const agent::Root &root : plan_.roots) {
        if (root.placed && !root.match)
            (root.pattern || !root.watched.empty() ? all.paths : all.missing).push_back(root.path);
    }
    reporter_.established(all);
    std::string first;
    tell_left_out(placer_->left_out(), first);
    reporter_.flush();
    if (!reporter_.has_records())
        note_start(all);
    note_container(all.paths);
    return true;
}

void Session::wait_for_paths()
{
    waiting_ = std::make_unique<agent::Waiting>(
        plan_, *placer_, module_.is_container(),
        agent::Waiting::Reports{
            [this](const std::string &watched) { follow_root(watched); },
            [this](const std::string &path) { report_appearance(path); },
            [this](const std::string &path, const char *reason) { report_absence(path, reason); },
            [](const std::string &line) { agent::complain(line); },
        });
    waiting_->start();
}

// Links and patterns lead to paths that nobody gave.
void Session::follow_root(const std::string &path)
{
    reporter_.add_root(path);
    if (keeper_)
        keeper_->add_root(path);
}

void Session::report_appearance(const std::string &path)
{
    reporter_.appeared(path);
    if (!reporter_.has_records())
        reporter_.note(path + " is there, and watched");
}

void Session::report_absence(const std::string &path, const char *reason)
{
    reporter_.ended(path, reason);
    if (!reporter_.has_records())
        reporter_.note(path + " was " + reason + "; it is waited for");
}

// Of what a container sees, only the host's files are watched; other paths are accepted and stay silent. Marks on
// mounts do not ask where they are.
void Session::note_container(const std::vector<std::string> &paths)
{
    if (!module_.is_container() || options_.mount)
        return;
    for (const std::string &path : paths)
        if (!path.starts_with(kHostFiles) && !path.starts_with(kOtherRoots))  // as the monitor tells them apart
            reporter_.note(path + " stays silent: inside a container only what is below " + kHostFiles + " is seen");
}

void Session::note_start(const agent::Established &all)
{
    const auto names = [](const std::vector<std::string> &paths) {
        return paths.size() == 1 ? paths[0] : agent::counted(paths.size(), "path");
    };
    std::string text = all.paths.empty() ? "" : "watching " + names(all.paths);
    if (options_.recursive && all.directories)
        text += " (" + agent::counted(all.directories, "directory") + ")";
    if (!all.missing.empty())
        text += (text.empty() ? "waiting for " : ", waiting for ") + names(all.missing);
    if (geteuid() != 0)
        text += "; without root, events do not name their process";
    reporter_.note(text);
}

void Session::report_end(agent::Root &root, const char *reason)
{
    placer_->give_up(root);
    reporter_.ended(root.path, reason);
    reporter_.flush();
    agent::complain(root.path + " is no longer watched: it was " + reason +
                    " (with --wait its return would be waited for)");
}

// The trees in which new directories are to be completed.
bool Session::keep_tree()
{
    if (!options_.recursive || options_.mount)
        return true;
    std::vector<std::string> roots;
    for (const agent::Root &root : plan_.roots)
        roots.push_back(root.path);
    keeper_ = std::make_unique<agent::TreeKeeper>(module_, roots, options_.max_depth);
    if (keeper_->start() < 0)
        return fail("the monitor has no instance left");
    placement_.listen([this](const std::string &path) { keeper_->made(path); });
    return true;
}

void Session::look_at_mounts()
{
    if (!keeper_)
        return;
    mounts_.look(agent::read_mounts(), plan_.roots);
    keeper_->run();
}

void Session::report_mount(const std::string &point)
{
    reporter_.loss("watches", 1, point);
    agent::complain("a file system came or went at " + point + ": what happened below it until now was not seen");
    keeper_->again(point);
}

// One record for each directory that is known by name, and one for all others. Those that were told are not told again.
uint64_t Session::tell_left_out(uint64_t count, std::string &first)
{
    const agent::Unreadable::News news = unreadable_.take();
    uint64_t told = 0;
    for (const std::string &path : news.paths) {
        const auto given = [&](const agent::Root &root) { return root.path == path || root.watched == path; };
        if (std::any_of(plan_.roots.begin(), plan_.roots.end(), given))
            continue; /* refused as a whole, which is said elsewhere */
        reporter_.loss("watches", 1, path);
        if (told++ == 0)
            first = path;
    }
    const uint64_t rest = count - std::min(count, told + news.repeated);
    if (rest)
        reporter_.loss("watches", rest, "");
    return told + rest;
}

void Session::look_at_unreadable()
{
    if (!keeper_ || !unreadable_.any())
        return;
    unreadable_.look([this](const std::string &path) { keeper_->again(path); });
    keeper_->run();
}

void Session::look_at_paths()
{
    guard_.look();
    if (waiting_)
        waiting_->look();
}

}  // namespace cli
