/*
 * session.h: one run of a verb that monitors, as a state machine: from the moment at which all is placed to the end.
 *
 * A step is given the time and what has happened, does what is due, and says how long, and for what, is to be waited
 * until the next. Nothing in it sleeps or asks for the time: session_run.h has the loop, waiter.h the waiting. The
 * states: watching; releasing (the end is settled, and events that a dump held back are still on their way); over.
 */
#ifndef AGENT_SESSION_H
#define AGENT_SESSION_H

#include <atomic>
#include <cstdint>

#include "losses.h"
#include "orx_fmon.h"
#include "pace.h"
#include "placement.h"
#include "queue.h"
#include "recovery.h"
#include "rename_pairs.h"
#include "report.h"
#include "request.h"
#include "watched.h"

namespace agent
{

/* What has happened since the step before. */
struct Inputs {
    int patience_ms = -1;         /* told to end: what is left of the time for that; -1: not told */
    bool mounts_changed = false;  /* the mount table is another */
    bool new_directories = false; /* there are some to be marked */
    bool reader_gone = false;     /* nobody reads the output any more */
};

/* What is to be waited for until the next step, and for how long at most. */
struct Pause {
    enum class For { kTime, kNewDirectories, kEverything };
    uint64_t ms = 0;
    For what = For::kTime; /* kTime: for nothing but the time, and for being told to end, as always */
};

/* The monitor as a session sees it: see running_monitor.h. */
class Monitor
{
public:
    virtual ~Monitor() = default;

    virtual bool read_status(struct fmon_status &out) const = 0; /* false: it does not run; out.monitor says why */
    virtual uint64_t process_losses() const = 0; /* overflows of the kernel's queue of processes, since the start */
    virtual bool has_findings() const = 0;
    virtual Findings take_findings() = 0; /* since the last time */
    virtual bool end_hold() = 0;          /* true: until now events were held back, for a dump */
    virtual uint64_t release() = 0;       /* has it deliver what was held back; how many records still wait */
};

class Session
{
public:
    static constexpr uint64_t kReleaseMs = 20; /* between two looks at what was held back */
    static constexpr uint64_t kTurnMs = 1100;  /* the monitor looks at paused clients once a second */

    Session(const Request &request, Monitor &monitor, EventSource &events, Report &report)
        : request_(request), monitor_(monitor), events_(events), report_(report), limit_(request.timeout_ms)
    {
    }

    /* What was lost until now is no loss of this session: the monitor ran before. To be called before anything is
     * placed, or not at all. */
    void start_counting();
    /* All is placed. To be called once, before the first step. */
    void start(Watched &watched, uint64_t now);
    /* `now`: milliseconds of a clock that does not run backwards. To be called until it is over. */
    Pause step(uint64_t now, const Inputs &inputs);

    bool over() const { return end_.over; }
    int status() const { return end_.status; } /* to end with: kDone, kNothing, kError, kGone; -1: going on */

    uint64_t in_hand() const { return in_hand_; } /* events that may not have been written yet; any thread */

private:
    Pause watch(uint64_t now, const Inputs &inputs);
    void take_inputs(uint64_t now, const Inputs &inputs);
    void check_time(uint64_t now);
    void look(uint64_t now);
    bool take_batch(uint64_t now, bool last = false);
    void show_batch(uint64_t now);
    void show(Event event);
    Pause sleep(uint64_t now);
    void recover(uint64_t now);
    void check_losses();
    void check_processes();
    void check_end(const struct fmon_source &monitor);
    void check_findings();
    bool is_released(uint64_t now, int patience_ms);
    void close();
    void end_with(int status);

    const Request &request_;
    Monitor &monitor_;
    EventSource &events_;
    Report &report_;
    Watched *watched_ = nullptr; /* from start() on */
    Pace pace_;
    TimeLimit limit_;
    Losses losses_;
    uint64_t process_losses_ = 0; /* reported */
    Recovery recovery_;
    Batch batch_;
    RenamePairs pairs_; /* empty, where renames are shown as their halves */
    std::atomic<uint64_t> in_hand_ = 0;
    struct {
        int status = -1;
        uint64_t release_end = 0; /* 0: nothing is released */
        bool over = false;
    } end_;
};

}  // namespace agent

#endif
