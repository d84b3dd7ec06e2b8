/*
 * session_run.h: a session from the start of the monitor to the end, on the calling thread.
 */
#ifndef AGENT_SESSION_RUN_H
#define AGENT_SESSION_RUN_H

#include <memory>
#include <string>

#include "intake.h"
#include "plan.h"
#include "queue.h"
#include "report.h"
#include "request.h"
#include "running_monitor.h"
#include "session.h"
#include "waiter.h"
#include "watched.h"

namespace agent
{

class SessionRun
{
public:
    SessionRun(const Request &request, Report &report);
    SessionRun(const SessionRun &) = delete;
    SessionRun &operator=(const SessionRun &) = delete;

    /* Returns the exit status. The monitor's thread goes on: the caller ends the process at once. */
    int run();

private:
    bool fail(const std::string &line);
    bool start();
    void start_processes();
    bool plan();
    bool plan_paths();
    bool begin();
    void loop(const Waiter &waiter);
    void last_words() const;

    const Request &request_;
    Report &report_;
    EventQueue queue_;
    Intake intake_;
    RunningMonitor monitor_;
    Session session_;
    Plan plan_;
    std::unique_ptr<Watched> watched_; /* null: nothing is planned yet */
};

}  // namespace agent

#endif
