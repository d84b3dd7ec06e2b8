#include "waiting.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "orx_fmon.h"
#include "resolve.h"
#include "roots.h"

namespace agent
{

namespace
{

constexpr size_t kMostTold = 1000; /* who makes more names than that is not heard */

bool is_looked_for(const Root &root) { return root.waits && !root.pattern; }

// Null: it is what it was. A path that leads elsewhere by now is one that was moved.
const char *why_ended(const Root &root, const Resolved &now)
{
    const char *const reason = end_reason(root.watched, root.identity);
    const bool gone = now.identity.error == ENOENT || now.identity.error == ENOTDIR || !now.foreign_link.empty();
    const bool elsewhere = gone || (now.identity.error == 0 && now.path != root.watched);
    return !reason && elsewhere ? "moved" : reason;
}

bool is_kind(const Identity &identity) { return identity.is_dir() || identity.is_file(); }

}  // namespace

bool Waiting::any() const
{
    return std::any_of(plan_.roots.begin(), plan_.roots.end(), [](const Root &root) { return root.waits; });
}

void Waiting::start()
{
    look();
    started_ = true;
}

void Waiting::event(std::string_view path, uint32_t mask)
{
    if (!(mask & (FMON_DELETE_SELF | FMON_MOVE_SELF)))
        return;
    for (Root &root : plan_.roots)
        if (is_looked_for(root) && root.watched == path)
            end(root, mask & FMON_DELETE_SELF ? "deleted" : "moved");
}

void Waiting::look()
{
    add_matches();
    for (size_t i = 0; i < plan_.roots.size(); i++)
        if (is_looked_for(plan_.roots[i]))
            look_at(i);
    drop_gone_matches();
}

void Waiting::add_matches()
{
    std::set<std::string> known, patterns;
    for (const Root &root : plan_.roots)
        (root.pattern ? patterns : known).insert(root.path);
    for (const std::string &pattern : patterns) {
        for (std::string &path : matches_of(pattern)) {
            if (!known.insert(path).second)
                continue;
            Root root;
            root.path = std::move(path);
            root.waits = root.placed = root.match = true;
            plan_.roots.push_back(std::move(root));
        }
    }
}

void Waiting::drop_gone_matches()
{
    const auto gone = [](const Root &root) {
        return root.match && root.watched.empty() && root.identity.error == ENOENT;
    };
    plan_.roots.erase(std::remove_if(plan_.roots.begin(), plan_.roots.end(), gone), plan_.roots.end());
}

void Waiting::look_at(size_t index)
{
    Root &root = plan_.roots[index];
    Resolved now;
    if (container_)
        now.identity = identify(now.path = root.path);
    else
        now = resolve_carefully(root.path);
    if (!now.foreign_link.empty())
        refuse(root.path, root.path + " is not watched: the link " + now.foreign_link + " on the way belongs to user " +
                              std::to_string(now.owner) + ", who could so choose what is watched");
    if (!root.watched.empty()) {
        const char *const reason = why_ended(root, now);
        // Only what is seen twice counts: an event that says more may be on its way.
        if (!reason || !std::exchange(root.suspected, true)) {
            root.suspected = reason;
            return;
        }
        end(root, reason);
    }
    root.identity = now.identity;
    if (is_kind(now.identity))
        take_up(index, now.path);
}

void Waiting::take_up(size_t index, const std::string &path)
{
    const int code = placer_.take_up(index, path);
    const std::string &name = plan_.roots[index].path;
    if (code != 0) {
        // It is gone again, or another path leads there, too.
        if (code != FMON_ENOENT && code != FMON_EEXIST && told_.count(name) == 0)
            refuse(name, placer_.why());
        return;
    }
    Root &root = plan_.roots[index];
    root.suspected = false;
    told_.erase(root.path);
    reports_.watched(path);
    if (started_)
        reports_.appeared(root.path);
}

void Waiting::end(Root &root, const char *reason)
{
    placer_.give_up(root);
    root.suspected = false;
    reports_.ended(root.path, reason);
}

void Waiting::refuse(const std::string &path, const std::string &line)
{
    if (told_.size() < kMostTold && told_.insert(path).second)
        reports_.refused(line);
}

}  // namespace agent
