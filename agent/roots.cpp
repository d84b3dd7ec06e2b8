#include "roots.h"

#include <algorithm>
#include <cerrno>

#include "below.h"
#include "mounts.h"
#include "orx_fmon.h"

namespace agent
{

namespace
{

bool is_watched(const Root &root) { return root.placed && !root.ended && !root.waits; }

bool is_mounted(uint64_t id, const std::vector<Mount> &mounts)
{
    return std::any_of(mounts.begin(), mounts.end(), [&](const Mount &mount) { return mount.id == id; });
}

// Whether something that came after a mount hides what the path was there. The table is in the order of mounting.
bool covers(const std::vector<Mount> &mounts, const std::string &path, uint64_t id)
{
    bool later = false;
    for (const Mount &mount : mounts) {
        if (later && is_below(mount.point, path))
            return true;
        later |= mount.id == id;
    }
    return false;
}

}  // namespace

// A rename of the path itself would have made an event, so a missing path whose directory is there was removed while it
// was still open, and one without directory was moved with it.
const char *end_reason(const std::string &path, const Identity &then)
{
    const Identity now = identify(path);
    const bool gone = now.error == ENOENT || now.error == ENOTDIR;
    if (!gone && (now.error || (now.dev == then.dev && now.ino == then.ino)))
        return nullptr;
    const std::vector<Mount> mounts = then.mount_id ? read_mounts() : std::vector<Mount>();
    if (then.mount_id && !is_mounted(then.mount_id, mounts))
        return "unmounted";
    if (covers(mounts, path, then.mount_id))
        return "covered";
    if (gone)
        return identify(parent_of(path)).is_dir() ? "deleted" : "moved";
    return "deleted";
}

void RootGuard::event(std::string_view path, uint32_t mask)
{
    if (!(mask & (FMON_DELETE_SELF | FMON_MOVE_SELF)))
        return;
    for (Root &root : roots_)
        if (is_watched(root) && root.path == path)
            end(root, mask & FMON_DELETE_SELF ? "deleted" : "moved");
}

void RootGuard::look()
{
    for (Root &root : roots_) {
        if (!is_watched(root))
            continue;
        const char *const reason = end_reason(root.path, root.identity);
        // Only what is seen twice counts: an event that says more may be on its way.
        if (reason && root.suspected)
            end(root, reason);
        root.suspected = reason != nullptr;
    }
}

bool RootGuard::all_ended() const
{
    return std::none_of(roots_.begin(), roots_.end(), [](const Root &root) { return root.placed && !root.ended; });
}

void RootGuard::end(Root &root, const char *reason)
{
    root.ended = true;
    ended_(root, reason);
}

}  // namespace agent
