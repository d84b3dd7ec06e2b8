#include "tree_walk.h"

#include "paths.h"

namespace agent
{

bool TreeWalk::has_room()
{
    const std::string path = placement_.without_room();
    if (path.empty())
        return true;
    const int code = resync(path, FMON_RESYNC_MARK);
    const uint32_t reason = placement_.take_own_refusal();
    if (code >= 0 || code == FMON_ENOENT || !is_want_of_room(reason))
        return true;
    placement_.told_before(reason);
    return false;
}

void TreeWalk::start(const std::vector<std::string> &roots, uint32_t max_depth)
{
    open_.clear();
    for (const std::string &root : roots)
        open_.emplace_back(root, 0);
    max_depth_ = max_depth;
    known_no_room_ = !placement_.without_room().empty();
    met_no_room_ = false;
    placement_.take_own_refusal();
}

bool TreeWalk::step()
{
    for (size_t n = 0; n < kSlice && !open_.empty(); n++) {
        const auto [path, depth] = std::move(open_.back());
        open_.pop_back();
        look_at(path, depth);
    }
    if (open_.empty() && !met_no_room_)
        placement_.found_room();
    return !open_.empty();
}

// Nothing is below what is not there, or not marked. Where there is no room for one directory that is known to be left
// out, there is none for the next: only what is gone is still looked for, which may make room.
void TreeWalk::look_at(const std::string &path, uint32_t depth)
{
    const bool full = met_no_room_ && known_no_room_;
    const int code = resync(path, full ? FMON_RESYNC_FORGET : FMON_RESYNC_MARK | FMON_RESYNC_FORGET);
    const uint32_t reason = placement_.take_own_refusal();
    if (is_want_of_room(reason)) {
        met_no_room_ = true;
        if (known_no_room_)
            placement_.told_before(reason);
    }
    if (code == FMON_ENOENT || (max_depth_ && depth >= max_depth_))
        return;
    for_each_entry(path, [&](const char *name, bool is_directory) {
        if (is_directory)
            open_.emplace_back((path == "/" ? "" : path) + "/" + name, depth + 1);
    });
}

int TreeWalk::resync(const std::string &path, uint32_t what)
{
    const int code = module_.resync(path.c_str(), what);
    new_ += code == 1;
    return code;
}

uint64_t TreeWalk::take_new() { return std::exchange(new_, 0); }

}  // namespace agent
