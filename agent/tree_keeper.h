/*
 * tree_keeper.h: completes new directories below a recursive watch.
 *
 * When a directory is made, the monitor marks it but does not look into it, so directories that were made in it before
 * the mark (mkdir -p, tar, git checkout) would never be watched. The keeper looks into each new directory, and where
 * it finds directories, it adds a watch of its own on the new one and takes it back at once: adding walks and marks the
 * tree below, and taking back leaves the marks, since the recursive watch above needs them.
 *
 * Which directories are new it learns from the watches that the monitor places: asking the kernel what each new path
 * is would cost as much as showing the event. All but that works on the main thread, never from a callback.
 */
#ifndef AGENT_TREE_KEEPER_H
#define AGENT_TREE_KEEPER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/fd.h"
#include "common/mutex.h"
#include "module.h"

namespace agent
{

class TreeKeeper
{
public:
    /* `roots`: the recursively watched directories; `max_depth` as for the watches, 0 for no limit; `spared`: what the
     * watches spare. */
    TreeKeeper(const Module &module, std::vector<std::string> roots, uint32_t max_depth,
               std::vector<std::string> spared = {});

    /* Makes the instance that the short-lived watches belong to, unless all sessions share one, which is made when
     * it is needed. Its result code, or -1 when no descriptor is left. */
    int start();

    /* That directory is new in the tree: to be looked at by the next run(). From any thread. */
    void made(std::string_view path);

    void add_root(const std::string &path);

    /* What stands at that path is another directory than before, or was not marked: the next run() marks it and all
     * below it as the watches above want. From the thread of run(). */
    void again(const std::string &path);

    /* Looks at what was made since the last run. */
    void run();

    /* Whether run() walks below what was made: what is marked then was made, too. */
    bool walks_made() const { return walks_made_; }

    /* A walk has marked a directory. From the thread of run(). */
    void walk_marked() { marked_++; }
    /* What was walked because of again(), since the last call: those paths, and how many directories were marked. */
    struct Again {
        std::vector<std::string> paths;
        uint64_t directories = 0;
    };
    Again take_again() { return std::exchange(walked_again_, {}); }

    /* Readable while there is something to look at. */
    int wake_fd() const { return wake_.get(); }

private:
    void walk_again(const std::string &path);
    void complete(const std::string &path);
    int instance();
    void walk(int owner, const std::string &start, uint32_t depth) const;

    const Module &module_;
    std::vector<std::string> roots_;
    const uint32_t max_depth_;
    const std::vector<std::string> spared_;
    int instance_ = -1;
    std::vector<std::string> again_; /* directories to be walked whatever they hold */
    bool walks_made_ = false;
    uint64_t marked_ = 0; /* by walks */
    Again walked_again_;
    common::Fd wake_;
    common::Mutex lock_;
    std::vector<std::string> made_ GUARDED_BY(lock_);
};

/* Sorts paths so that each stands right before all that lies below it. */
void sort_as_tree(std::vector<std::string> &paths);

}  // namespace agent

#endif
