/*
 * instance.h: a running instance of the service: its watches, its outputs, and what becomes of both at a reload.
 */
#ifndef CLI_RUN_INSTANCE_H
#define CLI_RUN_INSTANCE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/service_monitor.h"
#include "agent/watch_run.h"
#include "config.h"
#include "output/fanout.h"
#include "output/instance_report.h"

namespace cli
{

/* Numbers of watches, which the monitor's instances are named after: each belongs to one that lives. */
class Numbers
{
public:
    unsigned take();
    void give_back(unsigned number) { taken_[number] = false; }

private:
    std::vector<bool> taken_ = std::vector<bool>(100);
};

/* What all instances of a service have in common. */
struct Surroundings {
    agent::ServiceMonitor &monitor;
    Numbers &numbers;
    std::string host, boot;
    std::vector<std::string> hidden; /* files of the service itself: see Fanout::set_filter() */
    std::function<void()> changed;   /* the state of a watch; any thread */
};

/* Its functions are called by the service's thread. */
class Instance
{
public:
    Instance(const std::string &name, const Surroundings &around);
    ~Instance();

    const std::string &name() const { return name_; }

    /* Makes it what the configuration says. What is the same as before stays as it is: watches stay placed, outputs
     * open. New watches are begun before old ones end. False: an output cannot be had, or no thread: `error` is one
     * line, and all is as before. What an output that goes did not deliver is added to `left`. */
    bool apply(const InstanceConfig &config, uint64_t drain_ms, output::Leftover &left, std::string &error);

    /* Ends all watches: what has come until now goes to the outputs. */
    void end(uint64_t deadline_ms);
    /* After end(): waits for the watches, then for the outputs. */
    output::Leftover drain();

    bool is_placing() const;
    bool is_broken() const;   /* the monitor has stopped */
    bool is_watching() const; /* at least one of its watches is placed */
    /* No watch has been at one step, without waiting for an output, for longer than that. */
    bool is_alive(uint64_t now, uint64_t limit_ms) const;

    struct Watch {
        agent::Request request;
        std::unique_ptr<output::InstanceReport> report;
        std::unique_ptr<agent::WatchRun> run;
    };
    using Watches = std::vector<std::unique_ptr<Watch>>;
    const Watches &watches() const { return watches_; }
    output::Fanout &fanout() { return fanout_; }
    const output::Fanout &fanout() const { return fanout_; }

private:
    using Outlets = std::vector<std::unique_ptr<output::Outlet>>;
    struct Output {
        OutputConfig config;
        std::string key; /* of the outlet: no other ever has the same */
    };

    static bool is_among(const std::vector<Output> &outputs, const std::string &key);
    static std::vector<std::string> keys_of(const std::vector<Output> &outputs);
    std::unique_ptr<output::Outlet> open_outlet(const Output &output, std::string &error);
    bool apply_watches(const InstanceConfig &config, std::string &error);
    bool keep_watch(const agent::Request &request, std::vector<bool> &stays) const;
    bool start_watch(const agent::Request &request, Watches &fresh, std::string &error);
    void end_watches(Watches watches);
    bool any_is(agent::WatchRun::State state) const;

    const std::string name_;
    const Surroundings &around_;
    output::Fanout fanout_;
    std::vector<Output> outputs_; /* that are open */
    uint64_t last_output_ = 0;
    Watches watches_;
};

}  // namespace cli

#endif
