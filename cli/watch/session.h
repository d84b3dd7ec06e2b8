/*
 * session.h: one run of `fmon watch`: start, placing, the loop, the end.
 */
#ifndef CLI_SESSION_H
#define CLI_SESSION_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/dump_server.h"
#include "agent/intake.h"
#include "agent/losses.h"
#include "agent/module.h"
#include "agent/mount_guard.h"
#include "agent/placement.h"
#include "agent/placer.h"
#include "agent/plan.h"
#include "agent/queue.h"
#include "agent/roots.h"
#include "agent/system_watch.h"
#include "agent/tree_keeper.h"
#include "agent/unreadable.h"
#include "agent/waiting.h"
#include "options.h"
#include "output/reporter.h"

namespace cli
{

class Session
{
public:
    explicit Session(const WatchOptions &options);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    /* Returns the exit status. The monitor's thread goes on: the caller ends the process at once. */
    int run();

private:
    bool fail(const std::string &line);
    bool prepare();
    bool start();
    bool make_plan();
    bool begin();
    bool place();
    bool place_system();
    void establish();
    bool keep_tree();
    void note_container(const std::vector<std::string> &paths);
    void note_start(const agent::Established &all);
    bool tell_start();
    void wait_for_paths();
    void follow_root(const std::string &path);
    void report_appearance(const std::string &path);
    void report_absence(const std::string &path, const char *reason);
    void report_end(agent::Root &root, const char *reason);
    void look_at_paths();
    void look_at_mounts();
    void look_at_unreadable();
    uint64_t tell_left_out(uint64_t count, std::string &first);
    void report_mount(const std::string &point);

    void loop();
    void handle_batch();
    void pause_if_busy();
    void wait();
    void tick(uint64_t now);
    uint64_t wait_limit(uint64_t now) const;
    void check_findings();
    void check_losses();
    void check_end(const struct fmon_source &monitor);
    void check_timeout(uint64_t now);
    void end_with(int status);
    void end_hold();
    void close();
    void last_words() const;

    const WatchOptions &options_;
    agent::EventQueue queue_;
    agent::Intake intake_;
    agent::Placement placement_;
    output::Reporter reporter_;
    agent::Module module_ = {};
    agent::Plan plan_;
    std::unique_ptr<agent::Placer> placer_;          /* null: nothing is placed yet, or the whole system is watched */
    std::unique_ptr<agent::Waiting> waiting_;        /* as placer_ */
    std::unique_ptr<agent::TreeKeeper> keeper_;      /* null: nothing is watched recursively */
    std::unique_ptr<agent::SystemWatch> system_;     /* null: paths are watched */
    std::unique_ptr<agent::DumpServer> dump_server_; /* null: not started yet */
    agent::RootGuard guard_;
    agent::MountGuard mounts_;
    agent::Unreadable unreadable_;
    agent::Batch batch_;
    std::atomic<uint64_t> in_hand_ = 0; /* events of the batch that may not have been written yet */
    agent::Losses losses_;
    int mount_table_ = -1; /* readable, in poll's sense, when mounts have changed */

    int status_ = -1;        /* -1: going on */
    uint64_t woken_ms_ = 0;  /* when the last wait ended */
    uint64_t waited_ms_ = 0; /* how long it took */
    uint64_t next_tick_ = 0;
    uint64_t last_shown_ = 0, shown_ = 0; /* for --timeout */
};

}  // namespace cli

#endif
