/*
 * watch_run.h: a watch of a service: a session on a thread of its own, beside others in the same process.
 */
#ifndef AGENT_WATCH_RUN_H
#define AGENT_WATCH_RUN_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "intake.h"
#include "placement.h"
#include "plan.h"
#include "queue.h"
#include "report.h"
#include "request.h"
#include "service_monitor.h"
#include "session.h"
#include "waiter.h"
#include "watched.h"

namespace agent
{

class WatchRun
{
public:
    enum class State {
        kPlacing,
        kWatching,
        kFailed, /* nothing of it could be watched; why was reported */
        kEnded,  /* told to end, or nothing of it is left */
        kBroken, /* the monitor has stopped */
    };

    /* `name` stands before its messages; `number`, below 100, belongs to no other that lives. `changed` is called, on
     * its thread, when the state is another. */
    WatchRun(const std::string &name, unsigned number, const Request &request, ServiceMonitor &monitor, Report &report,
             std::function<void()> changed);
    ~WatchRun(); /* tells it to end, and waits for that */
    WatchRun(const WatchRun &) = delete;
    WatchRun &operator=(const WatchRun &) = delete;

    /* False: no thread, or no descriptor, was left. */
    bool start();
    /* Tells it to end: what has come until now is still shown. */
    void end();
    void join();

    State state() const { return state_.load(std::memory_order_acquire); }
    unsigned number() const { return number_; }
    const Request &request() const { return request_; }
    size_t queued() const { return queue_.size(); } /* events that wait */
    /* Since when it has been at one step, by steady_ms(); 0: it waits for events. */
    uint64_t busy_since() const { return busy_since_.load(std::memory_order_relaxed); }

private:
    /* The monitor as this session sees it. */
    class View : public Monitor
    {
    public:
        explicit View(WatchRun &run) : run_(run) {}
        bool read_status(struct fmon_status &out) const override { return run_.monitor_.module().read_status(out); }
        uint64_t process_losses() const override { return run_.monitor_.processes().losses(); }
        bool has_findings() const override { return run_.placement_.any(); }
        Findings take_findings() override { return run_.placement_.take(); }
        bool end_hold() override { return false; }
        uint64_t release() override { return 0; }

    private:
        WatchRun &run_;
    };

    void run();
    bool place();
    void plan();
    void loop(const Waiter &waiter);
    void set_state(State state);

    const std::string name_;
    const unsigned number_;
    const Request request_;
    ServiceMonitor &monitor_;
    Report &report_;
    const std::function<void()> changed_;
    EventQueue queue_;
    struct Parts {
        Parts(WatchRun &run, EventQueue &queue, Processes &processes);
        View view;
        Intake intake;
        Plan plan;
        std::unique_ptr<Watched> watched; /* null: nothing is planned yet */
    };
    Placement placement_;
    Parts parts_;
    Session session_;
    std::atomic<State> state_ = State::kPlacing;
    std::atomic<bool> ending_ = false;
    std::atomic<uint64_t> busy_since_ = 0;
    std::thread thread_;
};

}  // namespace agent

#endif
