#include "service.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>

#include "agent/losses.h"
#include "agent/message.h"
#include "agent/time_format.h"
#include "agent/unread.h"
#include "config_file.h"
#include "config_read.h"
#include "output/stats_text.h"

namespace cli
{

namespace
{

constexpr uint64_t kLookMs = 2000;     /* between two looks at outputs and watches */
constexpr uint64_t kPlacingMs = 500;   /* the same, while something is being placed */
constexpr uint64_t kKeepMs = 30'000;   /* between two notes that the service still watches */
constexpr uint64_t kExtendMs = 30'000; /* what the manager is asked for meanwhile */
constexpr uint64_t kSettleMs = 5000;   /* for the monitor to hand on what it has, at the end */

std::string host_name()
{
    struct utsname name;
    return uname(&name) == 0 ? name.nodename : "";
}

std::string boot_id()
{
    std::string id;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
    return id;
}

// All threads that are started later inherit this.
common::Fd take_over_signals()
{
    sigset_t wanted;
    sigemptyset(&wanted);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&wanted, number);
    pthread_sigmask(SIG_BLOCK, &wanted, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
    return common::Fd(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool wants_ancestors(const Config &config)
{
    for (const InstanceConfig &instance : config.instances)
        for (const OutputConfig &output : instance.outputs)
            if (output.ancestors)
                return true;
    return false;
}

}  // namespace

std::vector<std::string> own_files(const Config &config)
{
    std::vector<std::string> files = {config.service.state_directory, config.service.socket};
    for (const InstanceConfig &instance : config.instances)
        for (const OutputConfig &output : instance.outputs)
            files.push_back(output.settings.text("path"));
    std::erase_if(files, [](const std::string &path) { return path.empty(); });
    return files;
}

Service::Service(const std::string &file, const Config &config)
    : file_(file), config_(config), around_{monitor_,  numbers_, host_name(),
                                            boot_id(), {},       [this] { eventfd_write(fds_.changed.get(), 1); }}
{
    state_.start_ns = agent::wall_clock_ns();
}

int Service::run()
{
    std::string error;
    if (!start(error)) {
        agent::complain(error);
        return agent::kError;
    }
    loop();
    return end();
}

bool Service::start(std::string &error)
{
    fds_.signals = take_over_signals();
    fds_.changed.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!fds_.signals || !fds_.changed) {
        error = "no descriptor is left: see ulimit -n";
        return false;
    }
    last_.open(config_.service.state_directory, file_, around_.boot);
    return listen(error) && monitor_.start(config_.service.monitor, wants_ancestors(config_), error) &&
           apply(config_, error);
}

bool Service::listen(std::string &error)
{
    const ServiceConfig &service = config_.service;
    return (service.socket.empty() || status_.start(service.socket, error)) &&
           (service.prometheus.empty() || prometheus_.start(service.prometheus, error));
}

void Service::answer(bool stats_asked, bool prometheus_asked)
{
    if (stats_asked)
        status_.serve([this](const std::string &request) {
            return request == "stats" ? stats_json(stats(), agent::steady_ms()) : "{\"error\":\"unknown request\"}";
        });
    if (prometheus_asked)
        prometheus_.serve_http([this] {
            std::string text;
            output::prometheus_text(stats_json(stats(), agent::steady_ms()), text);
            return text;
        });
}

Instance *Service::find(const std::string &name)
{
    const auto found = std::find_if(instances_.begin(), instances_.end(),
                                    [&](const std::unique_ptr<Instance> &each) { return each->name() == name; });
    return found == instances_.end() ? nullptr : found->get();
}

// Instances that are new or changed first, so that what moves from one to another is watched all the time.
bool Service::apply(const Config &config, std::string &error)
{
    around_.hidden = own_files(config);
    for (const InstanceConfig &wanted : config.instances) {
        Instance *instance = find(wanted.name);
        if (!instance) {
            instances_.push_back(std::make_unique<Instance>(wanted.name, around_));
            instance = instances_.back().get();
        }
        if (!instance->apply(wanted, config.service.drain_ms, state_.left, error))
            return false;
    }
    std::erase_if(instances_, [&](std::unique_ptr<Instance> &instance) {
        const auto same = [&](const InstanceConfig &wanted) { return wanted.name == instance->name(); };
        if (std::any_of(config.instances.begin(), config.instances.end(), same))
            return false;
        instance->end(agent::steady_ms() + config.service.drain_ms);
        state_.left.add(instance->drain());
        return true;
    });
    return true;
}

void Service::loop()
{
    while (!state_.told) {
        const bool placing = std::any_of(instances_.begin(), instances_.end(), [](auto &i) { return i->is_placing(); });
        struct pollfd fds[] = {{fds_.signals.get(), POLLIN, 0},
                               {fds_.changed.get(), POLLIN, 0},
                               {status_.fd(), POLLIN, 0},
                               {prometheus_.fd(), POLLIN, 0}};
        poll(fds, 4, static_cast<int>(pause_ms(placing)));
        if (fds[0].revents)
            take_signals();
        eventfd_t count;
        if (fds[1].revents)
            eventfd_read(fds_.changed.get(), &count);
        answer(fds[2].revents, fds[3].revents);
        if (std::exchange(state_.again, false))
            reload();
        look(agent::steady_ms());
    }
}

// The watchdog is fed four times within its limit.
uint64_t Service::pause_ms(bool placing) const
{
    const uint64_t most = placing ? kPlacingMs : kLookMs, limit = notify_.watchdog_ms();
    return limit ? std::min(most, limit / 4) : most;
}

void Service::take_signals()
{
    struct signalfd_siginfo info;
    while (read(fds_.signals.get(), &info, sizeof info) == sizeof info) {
        state_.again |= info.ssi_signo == SIGHUP;
        state_.told |= info.ssi_signo != SIGHUP;
    }
}

void Service::look(uint64_t now)
{
    notify_.retry();
    complain_news();
    const auto any = [&](auto is) { return std::any_of(instances_.begin(), instances_.end(), is); };
    if (any([](auto &instance) { return instance->is_broken(); })) {
        state_.told = true;
        state_.status = agent::kError;
    }
    if (any([](auto &instance) { return instance->is_placing(); }))
        return notify_.extend(kExtendMs);
    if (!state_.ready)
        tell_placed();
    notify_.status(summary());
    tend(now);
    if (!state_.told && (state_.kept_ms == 0 || now >= state_.kept_ms + kKeepMs)) {
        state_.kept_ms = now;
        keep_time(agent::wall_clock_ns(), false);
    }
}

// The monitor's own thread is asked, too: a status that it does not give holds the service up, and the watchdog sees
// it.
void Service::tend(uint64_t now)
{
    const uint64_t limit = notify_.watchdog_ms();
    if (limit == 0 || now < state_.fed_ms + limit / 4)
        return;
    struct fmon_status status;
    const bool alive = std::all_of(instances_.begin(), instances_.end(),
                                   [&](auto &instance) { return instance->is_alive(now, limit); });
    if (alive && monitor_.module().read_status(status)) {
        state_.fed_ms = now;
        notify_.watchdog();
    }
}

void Service::tell_placed()
{
    state_.ready = true;
    notify_.ready();
    if (state_.kept_ms == 0)
        tell_gap();
    const bool any = std::any_of(instances_.begin(), instances_.end(), [](auto &i) { return i->is_watching(); });
    if (any || state_.reloads)
        return agent::complain(summary());
    agent::complain("nothing of what the configuration names can be watched");
    state_.told = true;
    state_.status = agent::kError;
}

void Service::tell_gap()
{
    for (const std::unique_ptr<Instance> &instance : instances_) {
        const std::optional<output::Unwatched> gap = last_.gap(instance->name(), agent::wall_clock_ns());
        if (!gap)
            continue;
        instance->fanout().record("unwatched", [&](output::Formatter &form, uint64_t time, std::string &out) {
            form.unwatched(time, *gap, out);
        });
        instance->fanout().flush();
    }
}

// What cannot be written down is said once.
void Service::keep_time(uint64_t ns, bool ended)
{
    std::vector<std::string> names;
    names.reserve(instances_.size());
    for (const std::unique_ptr<Instance> &instance : instances_)
        names.push_back(instance->name());
    std::string error;
    const bool kept = last_.keep(ns, names, ended, error);
    if (!kept && state_.kept)
        agent::complain(error);
    state_.kept = kept;
}

std::string Service::summary() const
{
    const auto count = static_cast<uint64_t>(
        std::count_if(instances_.begin(), instances_.end(), [](auto &instance) { return instance->is_watching(); }));
    std::string text = "watching: " + agent::counted(count, "instance");
    if (count < instances_.size())
        text += " of " + agent::with_commas(instances_.size()) + " (see the messages above)";
    for (const std::unique_ptr<Instance> &instance : instances_)
        for (const output::OutletFigures &output : instance->fanout().outlet_figures())
            if (output.condition.stuck)
                text += "; " + instance->name() + ": output " + output.type + " is stuck";
    return text;
}

void Service::complain_news()
{
    for (const std::unique_ptr<Instance> &instance : instances_)
        for (const std::string &line : instance->fanout().news())
            agent::complain(instance->name() + ": " + line);
}

// What is wrong with the new configuration leaves the old one as it is.
void Service::reload()
{
    notify_.reloading();
    Config config;
    const std::vector<std::string> faults = load_config(file_, config);
    std::string error = faults.empty() ? "" : faults[0];
    for (const std::string &line : faults)
        agent::complain(line);
    if (faults.empty()) {
        if (!(config.service == config_.service))
            agent::complain(file_ + ": what is new in [service] and [fmon] holds from the next start on");
        config.service = config_.service;
        if (apply(config, error))
            config_ = config;
        else
            restore(error);
    }
    if (!error.empty())
        agent::complain("the configuration was not taken over: what was watched before still is");
    state_.reloads += error.empty();
    state_.reload_error = error;
    state_.ready = false;
}

// Of the new configuration a part may be in force already.
void Service::restore(const std::string &reason)
{
    agent::complain(reason);
    std::string error;
    if (!apply(config_, error))
        agent::complain(error);
}

/* ---- the end ---- */

// What the kernel holds, then what the monitor does, is handed on first: a status is given between two rounds of the
// monitor's threads, so that what was read waits for the table, is in it, or gone from it, by then.
void Service::settle(uint64_t deadline_ms)
{
    struct fmon_status status;
    while (agent::steady_ms() < deadline_ms && (agent::has_unread_records() || (monitor_.module().read_status(status) &&
                                                                                (status.records || status.fs.memory))))
        poll(nullptr, 0, 20);
}

namespace
{

std::string text_of(const output::Leftover &left)
{
    if (!left.lost && !left.kept)
        return "all is delivered";
    std::string text = left.lost ? agent::counted(left.lost, "record") + " not delivered" : "";
    if (left.kept)
        text +=
            (text.empty() ? "" : ", ") + agent::counted(left.kept, "record") + " kept in a spool for the next start";
    return text;
}

}  // namespace

int Service::end()
{
    notify_.stopping();
    const uint64_t told_ns = agent::wall_clock_ns();
    const uint64_t now = agent::steady_ms(), deadline = now + config_.service.drain_ms;
    notify_.extend(config_.service.drain_ms + kExtendMs);
    status_.stop();
    prometheus_.stop();
    settle(std::min(deadline, now + kSettleMs));
    for (const std::unique_ptr<Instance> &instance : instances_)
        instance->end(deadline);
    for (const std::unique_ptr<Instance> &instance : instances_) {
        const output::Leftover left = instance->drain();
        complain_news();
        if (left.lost || left.kept)
            agent::complain(instance->name() + ": " + text_of(left) + ", since the time to end ('drain') is over");
        state_.left.add(left);
    }
    if (state_.kept_ms)
        keep_time(told_ns, true);
    monitor_.stop();
    agent::complain("ended: " + text_of(state_.left));
    return state_.status;
}

/* ---- figures ---- */

const char *Service::phase() const
{
    if (state_.told)
        return "ending";
    return state_.ready ? "watching" : state_.reloads ? "reloading" : "placing";
}

namespace
{

const char *state_text(agent::WatchRun::State state)
{
    constexpr const char *kTexts[] = {"placing", "watching", "failed", "ended", "failed"};
    return kTexts[static_cast<size_t>(state)];
}

InstanceStats stats_of(const Instance &instance)
{
    InstanceStats stats = {instance.name(), instance.fanout().figures(), {}, instance.fanout().outlet_figures()};
    for (const auto &watch : instance.watches()) {
        const agent::Established now = watch->report->established_now();
        stats.watches.push_back({watch->request.paths, state_text(watch->run->state()), now.source, now.directories,
                                 watch->run->queued(), now.missing.size()});
    }
    return stats;
}

}  // namespace

ServiceStats Service::stats() const
{
    ServiceStats stats;
    stats.host = around_.host;
    stats.boot = around_.boot;
    stats.config = file_;
    stats.state = phase();
    stats.reload_error = state_.reload_error;
    stats.start_ns = state_.start_ns;
    stats.uptime_ms = (agent::wall_clock_ns() - state_.start_ns) / 1'000'000;
    stats.reloads = state_.reloads;
    if (monitor_.module().read_status(stats.monitor))
        for (const agent::Loss &loss : agent::Losses().since_last(stats.monitor))
            stats.losses[loss.source] += loss.count;
    for (const std::unique_ptr<Instance> &instance : instances_)
        stats.instances.push_back(stats_of(*instance));
    return stats;
}

}  // namespace cli
