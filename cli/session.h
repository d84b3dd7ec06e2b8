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

#include "dump_server.h"
#include "intake.h"
#include "log_watch.h"
#include "losses.h"
#include "module.h"
#include "mount_guard.h"
#include "options.h"
#include "placer.h"
#include "plan.h"
#include "queue.h"
#include "reporter.h"
#include "roots.h"
#include "system_watch.h"
#include "tree_keeper.h"
#include "unreadable.h"
#include "waiting.h"

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
    void note_container(const std::vector<std::string> &paths) const;
    void note_start(const Established &all) const;
    bool tell_start();
    void wait_for_paths();
    void follow_root(const std::string &path);
    void report_appearance(const std::string &path);
    void report_absence(const std::string &path, const char *reason);
    void report_end(Root &root, const char *reason);
    void look_at_paths();
    void look_at_mounts();
    void look_at_unreadable();
    uint64_t tell_left_out(uint64_t count, std::string &first);
    void report_mount(const std::string &point);

    void loop();
    void follow_new_directories();
    void handle_batch();
    void pause_if_busy();
    void wait();
    void tick(uint64_t now);
    uint64_t wait_limit(uint64_t now) const;
    void check_findings();
    void check_losses();
    void check_timeout(uint64_t now);
    void end_with(int status);
    void end_hold();
    void close();
    void last_words() const;

    const WatchOptions &options_;
    EventQueue queue_;
    Intake intake_;
    LogWatch log_;
    Reporter reporter_;
    Module module_ = {};
    Plan plan_;
    std::unique_ptr<Placer> placer_;          /* null: nothing is placed yet, or the whole system is watched */
    std::unique_ptr<Waiting> waiting_;        /* as placer_ */
    std::unique_ptr<TreeKeeper> keeper_;      /* null: nothing is watched recursively */
    std::unique_ptr<SystemWatch> system_;     /* null: paths are watched */
    std::unique_ptr<DumpServer> dump_server_; /* null: not started yet */
    RootGuard guard_;
    MountGuard mounts_;
    Unreadable unreadable_;
    Batch batch_;
    std::atomic<uint64_t> in_hand_ = 0; /* events of the batch that may not have been written yet */
    Losses losses_;
    int mount_table_ = -1; /* readable, in poll's sense, when mounts have changed */

    int status_ = -1;        /* -1: going on */
    uint64_t woken_ms_ = 0;  /* when the last wait ended */
    uint64_t waited_ms_ = 0; /* how long it took */
    uint64_t next_tick_ = 0;
    uint64_t last_shown_ = 0, shown_ = 0; /* for --timeout */
};

}  // namespace cli

#endif
