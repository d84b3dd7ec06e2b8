/*
 * placer.h: puts the planned watches in place and reports what could not be watched.
 */
#ifndef AGENT_PLACER_H
#define AGENT_PLACER_H

#include <cstdint>
#include <string>
#include <vector>

#include "diagnose.h"
#include "intake.h"
#include "module.h"
#include "placement.h"
#include "plan.h"
#include "request.h"

namespace agent
{

class Placer
{
public:
    Placer(const Request &options, const Module &module, Placement &placement, Plan &plan)
        : options_(options), module_(module), placement_(placement), plan_(plan)
    {
    }

    /* Creates the instances, with callbacks of `intake`, and adds the watches; says on stderr why one was refused. */
    void run(Intake &intake);

    /* For a path that has appeared: all its watches, on `path`, which no link may take elsewhere. 0, or the monitor's
     * code, and then none of them stands; why() has the reason. */
    int take_up(size_t index, const std::string &path);
    std::string why() const;
    void give_up(Root &root);
    void leave(); /* gives the instances up, with all their watches */

    /* Why marks are on the directories of trees, where a mark of their file system was to serve: a line for each, in
     * the order of the plan. */
    std::vector<std::string> fallback_lines() const { return fallbacks_; }

    bool refused() const { return refused_; }       /* a watch, or a part of one because of a limit */
    bool any_placed() const { return any_placed_; } /* there is something to watch */
    uint64_t left_out() const { return left_out_; } /* directories */
    uint64_t directories() const;                   /* that have marks of their own now */
    const char *source() const;                     /* of what is watched now: see Established::source */

private:
    struct Answer {
        int code = 0;
        bool served = false;                /* by a mark of the whole file system */
        struct fmon_fallback fallback = {}; /* why not; reason 0: it is, or that was not asked for */
    };

    bool create_instances(Intake &intake);
    struct fmon_fs_status file_systems() const;
    Answer request(const PlannedWatch &watch) const;
    Answer request_all(const PlannedWatch &watch) const;
    void add(const PlannedWatch &watch);
    void refuse(const PlannedWatch &watch, const Answer &answer, const Findings &findings);
    void note_fallback(const PlannedWatch &watch, const Answer &answer);
    void take_back(const PlannedWatch &watch) const;
    static Refusal refusal_of(const PlannedWatch &watch, const Answer &answer, const Findings &findings);
    void report_left_out(const PlannedWatch &watch, const Findings &findings);
    uint64_t count_left_out(const Findings &findings) const;
    uint64_t inotify_watches() const;
    uint64_t all_inotify_watches() const;
    void check_mounts();
    Facts facts() const;

    const Request &options_;
    const Module &module_;
    Placement &placement_;
    Plan &plan_;
    std::vector<int> instances_; /* ids */
    Refusal failure_;            /* of the last take_up() that failed */
    std::vector<std::string> fallbacks_;
    mutable uint64_t own_marks_ = 0; /* inotify watches that came with watches of ours */
    bool refused_ = false, any_placed_ = false;
    uint64_t left_out_ = 0;
};

/* Shows on stderr, while it lives and if that is a terminal, how many directories are being watched. */
class Progress
{
public:
    Progress(bool wanted, const Placement &placement);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

private:
    struct State;
    State *state_ = nullptr; /* null: nothing is shown */
};

}  // namespace agent

#endif
