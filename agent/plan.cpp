#include "plan.h"

#include <algorithm>
#include <cstring>

#include "below.h"
#include "descriptors.h"
#include "event_names.h"
#include "message.h"
#include "mounts.h"
#include "orx_fmon.h"

namespace agent
{

namespace
{

constexpr uint32_t kDefault = FMON_CREATE | FMON_DELETE | FMON_MODIFY | FMON_CLOSE_WRITE | FMON_MOVED_FROM |
                              FMON_MOVED_TO | FMON_ATTRIB | FMON_DELETE_SELF | FMON_MOVE_SELF;
constexpr uint32_t kDefaultMount = FMON_MODIFY | FMON_CLOSE_WRITE;

/* The instances with --pid, in the plan's order. */
enum : size_t { kNamed, kOthers, kAll };

// Whether one watch may insist on the process of all kinds.
bool names_all(const Request &options)
{
    return options.pid && options.source != Source::kMarks && !options.mount && options.max_depth == 0;
}

// "all" with --mount means all that a mount can report.
uint32_t asked_events(const Request &options)
{
    if (options.events == 0)
        return options.mount ? kDefaultMount : kDefault;
    return options.mount ? options.events & kProcessEvents : options.events;
}

class Planner
{
public:
    Planner(const Request &options, bool container)
        : options_(options), container_(container), masks_(plan_masks(options))
    {
    }

    Plan run()
    {
        if (masks_.pid_mask)
            plan_.instances.push_back({"watch-pid", masks_.pid_shown});
        plan_.instances.push_back({"watch", masks_.shown});
        if (masks_.pid_mask && names_all(options_))
            plan_.instances.push_back({"watch-all", masks_.shown | masks_.pid_shown});
        plan_.spared = spared_paths(options_, container_);
        for (const std::string &given : options_.paths)
            add_path(given);
        return std::move(plan_);
    }

private:
    void add_path(const std::string &given)
    {
        if (given.empty())
            return refuse("a PATH is empty");
        Root root;
        root.given = given;
        root.path = container_ ? literal_path(given) : absolute_path(given);
        root.pattern = root.path.find('*') != std::string::npos;
        root.identity = root.pattern ? Identity{} : identify(root.path);
        root.waits = root.pattern || options_.wait;
        const std::string reason = refusal(root, given);
        if (!reason.empty())
            return refuse(root.path + reason);
        const auto same = [&](const Root &other) { return other.path == root.path; };
        if (std::any_of(plan_.roots.begin(), plan_.roots.end(), same))
            return;
        plan_.roots.push_back(root);
        add_watches(root);
    }

    // The rest of a line that begins with the path; empty: it can be watched as far as one sees from here.
    std::string refusal(const Root &root, const std::string &given) const
    {
        const Identity &id = root.identity;
        for (const std::string &spared : plan_.spared)
            if (is_below(spared, root.path))
                return " is left unwatched by @" + spared + ": leave out one of the two";
        if (root.path.size() > kMaxPath)
            return ": the path is longer than the " + std::to_string(kMaxPath) + " bytes that can be watched";
        if (root.pattern)
            return pattern_refusal(root);
        if (id.error == ENOENT || id.error == ENOTDIR)
            return options_.wait ? "" : " does not exist: check the path, or wait for it with --wait";
        if (id.error)
            return std::string(" cannot be reached: ") + reason_text(id.error) +
                   (id.error == EACCES ? ": run as root, or make its directories searchable" : "");
        if (!id.is_dir() && !id.is_file())
            return std::string(" is ") + kind_name(id.mode) + ": only directories and regular files can be watched";
        if (!id.is_dir() && (options_.mount || given.back() == '/'))
            return " is not a directory";
        return too_many_refusal(root);
    }

    // The monitor takes one "*", and no pattern that is also waited for: it looks a pattern up again by itself.
    std::string pattern_refusal(const Root &root) const
    {
        if (std::count(root.path.begin(), root.path.end(), '*') > 1)
            return ": a pattern can hold one \"*\" only";
        if (options_.wait && !options_.unattended)
            return ": a pattern waits for what it matches by itself: leave out --wait";
        return options_.mount ? ": --mount takes no pattern" : "";
    }

    std::string too_many_refusal(const Root &root) const
    {
        const uint64_t limit = options_.max_subdirs;
        if (limit == 0 || !root.identity.is_dir() ||
            count_directories(root.path, options_.max_depth, limit + 1) <= limit)
            return "";
        return " has more than " + counted(limit, "directory") +
               " below it: name a smaller tree, or raise --max-subdirs";
    }

    void refuse(const std::string &line) { plan_.refusals.push_back(line); }

    void add_watches(const Root &root)
    {
        if (options_.mount)
            return add_mounts(root);
        for (PlannedWatch &watch : watches_of(options_, root, plan_.roots.size() - 1))
            plan_.watches.push_back(std::move(watch));
    }

    // The mount that holds the path, and with -r those below it: events below each point reach its own watch.
    void add_mounts(const Root &root)
    {
        const uint32_t flags =
            FMON_MOUNT | (options_.delay ? uint32_t{FMON_DELAY} : 0u) | (options_.pid ? uint32_t{FMON_PID} : 0u);
        add_watch(root.path, flags);
        if (!options_.recursive)
            return;
        for (const std::string &point : markable_mounts_below(read_mounts(), root.path))
            add_watch(point, flags);
    }

    void add_watch(const std::string &point, uint32_t flags)
    {
        const auto same = [&](const PlannedWatch &watch) { return watch.path == point; };
        if (std::none_of(plan_.watches.begin(), plan_.watches.end(), same))
            plan_.watches.push_back({plan_.roots.size() - 1, 0, point, masks_.mask, flags});
    }

    const Request &options_;
    const bool container_;
    const Masks masks_;
    Plan plan_;
};

}  // namespace

uint32_t with_delay_kinds(uint32_t mask)
{
    if (mask & FMON_CLOSE_WRITE)
        mask |= FMON_MODIFY;
    if (mask & FMON_CLOSE_NOWRITE)
        mask |= FMON_ACCESS;
    if (mask & FMON_ACCESS)
        mask |= FMON_CLOSE;
    if (mask & FMON_MODIFY)
        mask |= FMON_CLOSE_WRITE;
    return mask;
}

Masks plan_masks(const Request &options)
{
    const uint32_t asked = asked_events(options);
    uint32_t reads_and_writes = asked & kProcessEvents;
    if (options.delay)
        reads_and_writes = with_delay_kinds(reads_and_writes);
    if (options.mount)
        return {asked, reads_and_writes, 0, 0};
    // Without these the end of a watch, and new directories, would go unnoticed.
    const uint32_t own = FMON_DELETE_SELF | FMON_MOVE_SELF | (options.recursive ? uint32_t{FMON_CREATE} : 0u);
    const uint32_t others = (asked & ~kProcessEvents) | own;
    if (options.pid)
        return {asked & ~kProcessEvents, others, asked & kProcessEvents, reads_and_writes};
    return {asked, others | reads_and_writes, 0, 0};
}

std::vector<PlannedWatch> watches_of(const Request &options, const Root &root, size_t index)
{
    if (!root.identity.is_dir() && !root.identity.is_file())
        return {};
    const Masks masks = plan_masks(options);
    const uint32_t delay = options.delay ? uint32_t{FMON_DELAY} : 0u;
    uint32_t flags = FMON_FILE;
    if (root.identity.is_dir())
        flags = FMON_DIR | (options.recursive ? uint32_t{FMON_RECURSIVE | FMON_SYNC} : 0u) |
                (options.sync ? uint32_t{FMON_SYNC} : 0u);
    if (!masks.pid_mask)
        return {{index, 0, root.path, masks.mask, flags | delay | (options.pid ? uint32_t{FMON_PID} : 0u)}};
    const PlannedWatch all = {index, kAll, root.path, masks.mask | masks.pid_mask, flags | delay | FMON_PID};
    return names_all(options) && root.identity.is_dir() ? std::vector{all} : watches_apart(options, all);
}

std::vector<PlannedWatch> watches_apart(const Request &options, const PlannedWatch &watch)
{
    const Masks masks = plan_masks(options);
    if (!masks.pid_mask || !(watch.flags & FMON_PID) || options.mount)
        return {};
    const uint32_t rest = watch.flags & ~uint32_t{FMON_PID | FMON_DELAY};
    return {{watch.root, kNamed, watch.path, masks.pid_mask, watch.flags},
            {watch.root, kOthers, watch.path, masks.mask, rest}};
}

std::vector<std::string> spared_paths(const Request &options, bool container)
{
    std::vector<std::string> spared;
    for (const std::string &given : options.spare) {
        const std::string path = container ? literal_path(given) : absolute_path(given);
        if (std::find(spared.begin(), spared.end(), path) == spared.end())
            spared.push_back(path);
    }
    return spared;
}

Plan make_plan(const Request &options, bool container) { return Planner(options, container).run(); }

Plan system_plan(const Request &options)
{
    Plan plan;
    plan.instances.push_back({"system", options.events ? options.events & kSystemEvents : kSystemEvents});
    plan.spared = spared_paths(options, false);
    return plan;
}

}  // namespace agent
