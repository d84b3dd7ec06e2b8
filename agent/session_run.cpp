#include "session_run.h"

#include <unistd.h>

#include <cerrno>

#include "descriptors.h"
#include "message.h"
#include "signals.h"
#include "time_format.h"
#include "watched_paths.h"
#include "watched_system.h"

namespace agent
{

namespace
{

constexpr size_t kQueueEvents = 65536, kQueueBytes = 16 << 20;

}  // namespace

SessionRun::SessionRun(const Request &request, Report &report)
    : request_(request),
      report_(report),
      queue_(kQueueEvents, kQueueBytes),
      intake_(queue_),
      monitor_(intake_, queue_),
      session_(request, monitor_, queue_, report)
{
}

bool SessionRun::fail(const std::string &line)
{
    report_.warning(line);
    return false;
}

int SessionRun::run()
{
    if (!start())
        return kError;
    Waiter waiter(queue_); /* notices mounts that come after the first look at them */
    if (!plan() || !watched_->place(intake_) || !begin())
        return kError;
    watched_->report_start();
    waiter.listen(watched_->new_directories_fd(), report_.output_fd());
    loop(waiter);
    monitor_.stop();
    intake_.processes().stop();
    return session_.status();
}

bool SessionRun::start()
{
    if (queue_.wake_fd() < 0)
        return fail(reason_text(EMFILE));
    if (!catch_signals(queue_.wake_fd(), [this] { last_words(); }))
        return fail("no thread could be made: see ulimit -u");
    const StopAtOnce at_once;
    std::string error;
    OwnLog own;
    if (!monitor_.start(request_, own, error))
        return fail(error);
    intake_.ask(monitor_.module().event_details);
    report_.hide(own.files);
    if (!own.note.empty())
        report_.note(own.note);
    start_processes();
    return true;
}

// Without root no event names a process.
void SessionRun::start_processes()
{
    std::string error;
    if (geteuid() == 0)
        intake_.processes().start(request_.ancestors, error); /* fmon doctor says why not */
}

// What a path stands for depends on where the monitor found itself.
bool SessionRun::plan()
{
    if (request_.system)
        plan_ = system_plan(request_);
    else if (!plan_paths())
        return false;
    report_.set_plan(plan_);
    if (request_.system)
        watched_ = std::make_unique<WatchedSystem>(request_, monitor_.module(), plan_, report_);
    else
        watched_ = std::make_unique<WatchedPaths>(request_, monitor_.module(), monitor_.placement(), plan_, report_);
    return true;
}

bool SessionRun::plan_paths()
{
    plan_ = make_plan(request_, monitor_.module().is_container());
    for (const std::string &line : plan_.refusals)
        report_.warning(line);
    return !plan_.roots.empty() && (plan_.refusals.empty() || request_.keep_going);
}

// A pipe's other end may come late, or never.
bool SessionRun::begin()
{
    const StopAtOnce at_once;
    std::string error;
    return report_.begin(error) || fail(error);
}

// Watching for the end begins once all is placed.
void SessionRun::loop(const Waiter &waiter)
{
    session_.start(*watched_, steady_ms());
    Inputs inputs;
    inputs.patience_ms = patience_ms();
    for (;;) {
        const Pause pause = session_.step(steady_ms(), inputs);
        if (session_.over())
            return;
        inputs = waiter.wait(pause);
    }
}

// The main thread does not come to its end: it waits for the monitor, or for one of its own long walks.
void SessionRun::last_words() const
{
    const uint64_t events = session_.in_hand() + queue_.size();
    if (events && stderr_is_read())
        complain("told to end while the monitor is held up: up to " + counted(events, "event") + " dropped");
}

}  // namespace agent
