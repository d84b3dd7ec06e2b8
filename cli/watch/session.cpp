#include "session.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "agent/descriptors.h"
#include "agent/diagnose.h"
#include "agent/event_names.h"
#include "agent/message.h"
#include "agent/monitor.h"
#include "agent/signals.h"
#include "agent/time_format.h"

namespace cli
{

namespace
{

constexpr size_t kQueueEvents = 65536, kQueueBytes = 16 << 20;
constexpr uint64_t kBusyTickMs = 1000, kIdleTickMs = 4000;
constexpr uint64_t kBusyWaitMs = 20; /* a wait that was shorter means a stream of events */
constexpr int kTurnMs = 1100;        /* the monitor looks at paused clients once a second */
constexpr int kGatherMs = 5;         /* how long a stream's events gather before they are shown together */

}  // namespace

Session::Session(const WatchOptions &options)
    : options_(options),
      queue_(kQueueEvents, kQueueBytes),
      intake_(queue_),
      placement_([this] { queue_.wake(); }),
      reporter_(options, options),
      guard_(plan_.roots, [this](agent::Root &root, const char *reason) { report_end(root, reason); }),
      mounts_([this](const std::string &point) { report_mount(point); })
{
}

Session::~Session()
{
    if (mount_table_ >= 0)
        ::close(mount_table_);
}

bool Session::fail(const std::string &line)
{
    agent::complain(line);
    return false;
}

int Session::run()
{
    if (!prepare() || !start() || !make_plan() || !(options_.system ? place_system() : place()))
        return agent::kError;
    establish();
    loop();
    close();
    return status_;
}

bool Session::prepare()
{
    std::string error;
    if (queue_.wake_fd() < 0)
        return fail(agent::reason_text(EMFILE));
    return reporter_.prepare(error) || fail(error);
}

bool Session::start()
{
    if (!agent::catch_signals(queue_.wake_fd(), [this] { last_words(); }))
        return fail("no thread could be made: see ulimit -u");
    const agent::StopAtOnce at_once;
    std::string error;
    agent::OwnLog own;
    if (!start_monitor(options_, placement_, module_, own, error))
        return fail(error);
    reporter_.hide(own.files);
    if (!own.note.empty())
        reporter_.note(own.note);
    dump_server_ = std::make_unique<agent::DumpServer>(
        module_.dump, [this](bool on) { intake_.hold(on); },
        [this] {
            struct fmon_status now;
            return module_.read_status(now) ? agent::loss_lines(now) : std::vector<std::string>();
        });
    dump_server_->start();
    return true;
}

// What a path stands for depends on where the monitor found itself.
bool Session::make_plan()
{
    if (options_.system) {
        plan_.instances.push_back(
            {"system", options_.events ? options_.events & agent::kSystemEvents : agent::kSystemEvents});
    } else {
        plan_ = agent::make_plan(options_, module_.is_container());
        for (const std::string &line : plan_.refusals)
            agent::complain(line);
        if (plan_.roots.empty() || (!plan_.refusals.empty() && !options_.keep_going))
            return false;
    }
    reporter_.set_plan(plan_);
    // What changes from now on is noticed. Without the mount table the regular looks must do.
    mount_table_ = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    mounts_.look(agent::read_mounts(), plan_.roots);
    return true;
}

// A pipe's other end may come late, or never.
bool Session::begin()
{
    const agent::StopAtOnce at_once;
    std::string error;
    return reporter_.begin(error) || fail(error);
}

bool Session::place_system()
{
    const uint32_t kinds = plan_.instances[0].shown;
    std::string error;
    system_ = std::make_unique<agent::SystemWatch>(module_);
    if (!system_->place(kinds, intake_.add_source(kinds), error))
        return fail(error);
    if (!begin())
        return false;
    reporter_.established({});
    reporter_.flush();
    if (!reporter_.has_records())
        reporter_.note("watching the whole system for " + agent::events_text(kinds));
    return true;
}

// Watching for the end begins once all is placed.
void Session::establish()
{
    const uint64_t now = agent::steady_ms();
    if (system_)
        system_->follow_mounts();
    next_tick_ = now + kBusyTickMs;
    last_shown_ = now;
}

void Session::loop()
{
    while (status_ < 0) {
        if (queue_.take(batch_)) {
            handle_batch();
            pause_if_busy();
        } else if (queue_.prepare_to_sleep()) {
            wait();
        }
        const uint64_t now = agent::steady_ms();
        if (placement_.any())  // what comes within a second is told together
            next_tick_ = std::min(next_tick_, now + kBusyTickMs);
        if (now >= next_tick_)
            tick(now);
        check_timeout(now);
        if (agent::stop_requested())
            end_with(agent::kDone);
    }
}

void Session::handle_batch()
{
    in_hand_ = batch_.size();
    // Trees first: what happens in a new directory is seen only once it is marked.
    if (keeper_)
        keeper_->run();
    bool readable = false;
    for (size_t i = 0; i < batch_.size() && !reporter_.finished(); i++) {
        const agent::Event event = batch_.event(i);
        reporter_.event(event);
        guard_.event(event.path, event.mask);
        if (waiting_)
            waiting_->event(event.path, event.mask);
        readable |= (event.mask & FMON_ATTRIB) && unreadable_.knows(event.path);
    }
    if (readable)
        look_at_unreadable();
    reporter_.flush();
    in_hand_ = 0;
    next_tick_ = std::min(next_tick_, agent::steady_ms() + kBusyTickMs);
    if (reporter_.finished())
        end_with(reporter_.status());
    else if (!options_.system && guard_.all_ended())
        end_with(agent::kGone);
}

// In a stream of events, waking for each costs more than showing it; some milliseconds of them are shown together.
// The first event after a silence is shown at once, and a new directory is looked into at once.
void Session::pause_if_busy()
{
    if (status_ >= 0 || waited_ms_ > kBusyWaitMs)
        return;
    struct pollfd fd = {keeper_ ? keeper_->wake_fd() : -1, POLLIN, 0};
    if (poll(&fd, 1, kGatherMs) > 0)
        keeper_->run();
}

uint64_t Session::wait_limit(uint64_t now) const
{
    uint64_t until = next_tick_;
    if (options_.timeout_ms)
        until = std::min(until, last_shown_ + options_.timeout_ms);
    return until > now ? until - now : 0;
}

void Session::wait()
{
    const uint64_t now = agent::steady_ms();
    struct pollfd fds[] = {{queue_.wake_fd(), POLLIN, 0}, {mount_table_, POLLPRI, 0}, {reporter_.output_fd(), 0, 0}};
    // One more: the clock is coarse, and waking just before the time would mean waking twice.
    poll(fds, 3, static_cast<int>(std::min<uint64_t>(wait_limit(now), 60000)) + 1);
    woken_ms_ = agent::steady_ms();
    waited_ms_ = woken_ms_ - now;
    if (fds[0].revents)
        queue_.clear_wake();
    if (fds[1].revents) {
        look_at_mounts();
        look_at_paths();
        if (system_)
            system_->follow_mounts();
        next_tick_ = std::min(next_tick_, woken_ms_ + kBusyTickMs);
    }
    if (fds[2].revents & (POLLERR | POLLHUP | POLLNVAL))  // the reader has gone
        end_with(agent::kDone);
}

// Losses and vanished paths make no event, so they are looked for: each second while events come, else more rarely,
// to leave an idle machine asleep.
void Session::tick(uint64_t now)
{
    check_losses();
    check_findings();
    look_at_paths();
    look_at_unreadable();
    reporter_.flush();
    const bool busy = now - woken_ms_ < kBusyTickMs && waited_ms_ < kBusyTickMs;
    const bool looks = (waiting_ && waiting_->any()) || unreadable_.any();
    next_tick_ = now + (busy || looks ? kBusyTickMs : kIdleTickMs);
    if (!options_.system && guard_.all_ended())
        end_with(agent::kGone);
}

// What each counter grew by since the last look is one record.
void Session::check_losses()
{
    struct fmon_status now;
    if (!module_.read_status(now))
        return check_end(now.monitor);
    for (const agent::Loss &loss : losses_.since_last(now)) {
        reporter_.loss(loss.source, loss.count, loss.path);
        agent::complain(loss.text);
    }
}

void Session::check_end(const struct fmon_source &monitor)
{
    if (monitor.state != FMON_SOURCE_REFUSED || status_ >= 0)
        return;
    agent::complain("the monitor has stopped: " + agent::trouble_text(monitor));
    end_with(agent::kError);
}

// Many refusals within a tick become one line: a tree that runs into a limit has one a directory.
void Session::check_findings()
{
    if (!placement_.any())
        return;
    agent::Findings findings = placement_.take();
    std::string first;
    const uint64_t left_out = tell_left_out(findings.left_out(), first);
    if (left_out == 0)
        return;
    if (findings.first_denied.empty())
        findings.first_denied = first;
    agent::Facts facts = agent::gather_facts();
    facts.max_dentries = max_dentries(options_);
    agent::complain(explain_left_out("", findings, left_out, facts));
}

// The time begins anew with each event that is shown, not with those that a filter hides.
void Session::check_timeout(uint64_t now)
{
    if (shown_ != reporter_.shown()) {
        shown_ = reporter_.shown();
        last_shown_ = now;
    }
    if (options_.timeout_ms == 0 || now < last_shown_ + options_.timeout_ms || status_ >= 0)
        return;
    reporter_.note("nothing happened within the time that -t gives");
    end_with(agent::kNothing);
}

void Session::end_with(int status)
{
    if (status_ < 0)
        status_ = status;
}

// Events that were held back for a dump are still delivered, as far as the time goes.
void Session::end_hold()
{
    if (!dump_server_ || !dump_server_->stop() || reporter_.finished())
        return;
    uint64_t waiting = 1;
    for (const uint64_t until = agent::steady_ms() + kTurnMs;
         waiting && agent::steady_ms() < until && agent::patience_ms() != 0;) {
        poll(nullptr, 0, agent::Intake::kPauseMs);
        wake_monitor(module_);
        waiting = dump_server_->waiting_records();
    }
    if (waiting && agent::stop_requested())
        agent::complain("told to end: up to " + agent::counted(waiting, "event") + " dropped, which a dump held back");
}

// What has come until now is still shown, before anything is asked of the monitor, which may be held up.
void Session::close()
{
    end_hold();
    if (!reporter_.finished() && queue_.take(batch_)) {
        in_hand_ = batch_.size();
        for (size_t i = 0; i < batch_.size(); i++)
            reporter_.event(batch_.event(i));
    }
    reporter_.flush();
    in_hand_ = 0;
    reporter_.report_dropped();
    check_losses();
    check_findings();
    reporter_.flush();
    placement_.stop();
}

// The main thread does not come to its end: it waits for the monitor, or for one of its own long walks.
void Session::last_words() const
{
    const uint64_t events = in_hand_ + queue_.size();
    if (events && agent::stderr_is_read())
        agent::complain("told to end while the monitor is held up: up to " + agent::counted(events, "event") +
                        " dropped");
}

}  // namespace cli
