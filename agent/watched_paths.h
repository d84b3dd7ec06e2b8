/*
 * watched_paths.h: the paths of a request: placing, waiting, new directories, mounts, and how they end.
 */
#ifndef AGENT_WATCHED_PATHS_H
#define AGENT_WATCHED_PATHS_H

#include <memory>
#include <string>
#include <vector>

#include "found.h"
#include "module.h"
#include "mount_guard.h"
#include "placement.h"
#include "placer.h"
#include "plan.h"
#include "report.h"
#include "request.h"
#include "roots.h"
#include "tree_keeper.h"
#include "tree_walk.h"
#include "unreadable.h"
#include "waiting.h"
#include "watched.h"

namespace agent
{

class WatchedPaths : public Watched
{
public:
    /* From now on changes of mounts are noticed. `placement` listens to this until it is stopped. */
    WatchedPaths(const Request &request, const Module &module, Placement &placement, Plan &plan, Report &report);
    WatchedPaths(const WatchedPaths &) = delete;
    WatchedPaths &operator=(const WatchedPaths &) = delete;

    bool place(Intake &intake) override;
    void report_start() override;
    void before(const Batch &batch) override;
    uint32_t news(const Event &event) override { return found_ ? found_->news(event) : event.mask; }
    void shown(const Event &event) override;
    void after() override;
    void look() override;
    void mounts_changed() override;
    void complete_trees() override;
    int new_directories_fd() const override { return keeper_ ? keeper_->wake_fd() : -1; }
    LeftOut report_left_out(uint64_t count) override;
    void leave() override { placer_.leave(); }
    bool lacks_room() const override { return !placement_.without_room().empty(); }
    bool has_room() override { return walk_.has_room(); }
    void start_walk() override;
    bool walk() override { return walk_.step(); }
    void report_resynced() override;
    bool is_expecting() const override;
    bool all_ended() const override { return guard_.all_ended(); }

private:
    bool keep_trees();
    void wait_for_paths();
    void follow_root(const std::string &path);
    void report_appearance(const std::string &path);
    void report_absence(const std::string &path, const char *reason);
    void report_end(Root &root, const char *reason);
    void report_mount(const std::string &point);
    bool has_marks_above(const std::string &point) const;
    void look_at_paths();
    void report_left_out_at_start();
    void look_at_unreadable();
    void walk_again();
    void report_whole(const std::vector<std::string> &paths, uint64_t directories);
    void report_found(const Event &event);
    bool is_given(const std::string &path) const;
    Established established() const;
    std::string how_watched(const Established &all) const;
    void note_start(const Established &all) const;
    void note_container(const std::vector<std::string> &paths) const;

    const Request &request_;
    const Module &module_;
    Placement &placement_;
    Plan &plan_;
    Report &report_;
    Placer placer_;
    std::unique_ptr<Waiting> waiting_;   /* null: nothing is placed yet */
    std::unique_ptr<TreeKeeper> keeper_; /* null: nothing is watched recursively */
    std::unique_ptr<Found> found_;       /* null: what is found is not reported */
    RootGuard guard_;
    MountGuard mounts_;
    TreeWalk walk_;
    Unreadable unreadable_;
    uint64_t ahead_ = 0;    /* directories that were named, and are counted from the next look on */
    bool readable_ = false; /* a path of the batch that could not be read may be readable by now */
};

}  // namespace agent

#endif
