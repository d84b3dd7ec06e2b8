#include "watch_run.h"

#include <sys/prctl.h>

#include <system_error>
#include <utility>

#include "message.h"
#include "paths.h"
#include "time_format.h"
#include "watched_paths.h"
#include "watched_system.h"

namespace agent
{

namespace
{

constexpr size_t kQueueEvents = 65536, kQueueBytes = 16 << 20;

std::vector<std::string> fixed_parts(const Plan &plan)
{
    std::vector<std::string> parts;
    for (const Root &root : plan.roots)
        parts.push_back(without_star(root.path));
    return parts;
}

}  // namespace

WatchRun::Parts::Parts(WatchRun &run, EventQueue &queue, Processes &processes) : view(run), intake(queue, processes) {}

WatchRun::WatchRun(const std::string &name, unsigned number, const Request &request, ServiceMonitor &monitor,
                   Report &report, std::function<void()> changed)
    : name_(name),
      number_(number),
      request_(request),
      monitor_(monitor),
      report_(report),
      changed_(std::move(changed)),
      queue_(kQueueEvents, kQueueBytes),
      placement_([this] { queue_.wake(); }),
      parts_(*this, queue_, monitor.processes()),
      session_(request_, parts_.view, queue_, report)
{
}

WatchRun::~WatchRun()
{
    end();
    join();
}

bool WatchRun::start()
{
    if (queue_.wake_fd() < 0)
        return false;
    monitor_.add(parts_.intake);
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error &) {
        monitor_.remove(parts_.intake);
        return false;
    }
    return true;
}

void WatchRun::end()
{
    ending_ = true;
    queue_.wake();
}

void WatchRun::join()
{
    if (thread_.joinable())
        thread_.join();
}

void WatchRun::set_state(State state)
{
    state_.store(state, std::memory_order_release);
    changed_();
}

// The intake outlives the instances, which call it.
void WatchRun::run()
{
    prctl(PR_SET_NAME, "fmon-watch");
    set_complainer(name_);
    Waiter waiter(queue_); /* notices mounts that come after the first look at them */
    session_.start_counting();
    State last = State::kFailed;
    if (place()) {
        set_state(State::kWatching);
        waiter.listen(parts_.watched->new_directories_fd(), -1);
        loop(waiter);
        last = session_.status() == kError ? State::kBroken : State::kEnded;
    }
    placement_.stop();
    if (parts_.watched)
        parts_.watched->leave();
    monitor_.remove(parts_.intake);
    set_state(last);
}

bool WatchRun::place()
{
    plan();
    for (const std::string &line : parts_.plan.refusals)
        report_.warning(line);
    if (!request_.system && parts_.plan.roots.empty())
        return false;
    report_.set_plan(parts_.plan);
    placement_.limit_to(fixed_parts(parts_.plan));
    placement_.start(monitor_.module());
    const Module &module = monitor_.module();
    parts_.intake.ask(module.event_details);
    if (request_.system)
        parts_.watched = std::make_unique<WatchedSystem>(request_, module, parts_.plan, report_);
    else
        parts_.watched = std::make_unique<WatchedPaths>(request_, module, placement_, parts_.plan, report_);
    std::string error;
    if (!parts_.watched->place(parts_.intake) || !report_.begin(error))
        return false;
    parts_.watched->report_start();
    return true;
}

// The monitor tells instances apart by their names.
void WatchRun::plan()
{
    Plan &plan = parts_.plan;
    plan = request_.system ? system_plan(request_) : make_plan(request_, monitor_.module().is_container());
    for (PlannedInstance &instance : plan.instances)
        instance.name += "." + std::to_string(number_);
}

void WatchRun::loop(const Waiter &waiter)
{
    session_.start(*parts_.watched, steady_ms());
    Inputs inputs;
    for (;;) {
        if (ending_)
            inputs.patience_ms = 0;
        busy_since_ = steady_ms();
        const Pause pause = session_.step(steady_ms(), inputs);
        if (session_.over())
            break;
        busy_since_ = 0;
        inputs = waiter.wait(pause);
    }
    busy_since_ = 0;
}

}  // namespace agent
