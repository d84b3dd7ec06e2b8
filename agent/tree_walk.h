/*
 * tree_walk.h: brings the monitor's view of watched trees in line with the disk, a few directories at a time.
 *
 * The monitor is asked for each directory by itself, a directory before those that are in it, so that its lock is held
 * for moments only and what is made meanwhile is reported by the kernel.
 */
#ifndef AGENT_TREE_WALK_H
#define AGENT_TREE_WALK_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "module.h"
#include "placement.h"

namespace agent
{

/* Not for more than one thread at a time, which is the one that listens to the placement. */
class TreeWalk
{
public:
    static constexpr size_t kSlice = 256; /* directories of one step() */

    TreeWalk(const Module &module, Placement &placement) : module_(module), placement_(placement) {}

    /* Whether a directory that found no room finds it by now. */
    bool has_room();

    /* Begins anew: `roots` without those that are not walked; `max_depth` as for the watches, 0 for no limit. */
    void start(const std::vector<std::string> &roots, uint32_t max_depth);
    /* Goes on; true: there is more. */
    bool step();

    bool met_no_room() const { return met_no_room_; } /* since start() */
    uint64_t take_new();                              /* directories that were marked since the last call */

private:
    void look_at(const std::string &path, uint32_t depth);
    int resync(const std::string &path, uint32_t what);

    const Module &module_;
    Placement &placement_;
    std::vector<std::pair<std::string, uint32_t>> open_; /* with their depth */
    uint32_t max_depth_ = 0;
    bool met_no_room_ = false;
    bool known_no_room_ = false; /* when it began */
    uint64_t new_ = 0;
};

}  // namespace agent

#endif
