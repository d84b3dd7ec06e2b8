/*
 * fanout.h: an instance's events on their way: filtered, paced, and for each output put into its form and handed over.
 *
 * What an output does not take is kept, and whoever brings events waits: an instance is as slow as its slowest output,
 * and its events then gather, and merge, in the monitor. Other instances do not notice.
 */
#ifndef OUTPUT_FANOUT_H
#define OUTPUT_FANOUT_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/containers.h"
#include "agent/report.h"
#include "common/mutex.h"
#include "event_filter.h"
#include "format.h"
#include "given_paths.h"
#include "latencies.h"
#include "outlet.h"
#include "pacing.h"
#include "sink.h"

namespace output
{

struct FanoutFigures {
    uint64_t events_in = 0; /* from the monitor */
    uint64_t filtered = 0;  /* not shown: by the filters, or files of the service itself */
    uint64_t limited = 0, sampled = 0, summarised = 0;
    uint64_t events = 0; /* handed to the outputs */
    Latencies latencies; /* from the moment the event was taken from the monitor to the outputs' taking it */
};

/* What is to be known of an event beside itself. */
struct Presentation {
    uint32_t happened = 0;             /* all its kinds, shown or not */
    const GivenPaths *given = nullptr; /* null: paths are shown as they are */
};

/* May be called by any thread. */
class Fanout
{
public:
    explicit Fanout(const Origin &origin);
    Fanout(const Fanout &) = delete;
    Fanout &operator=(const Fanout &) = delete;

    /* What holds from now on; `hidden`: paths, and what begins with them and "." or "-", whose events are not shown.
     * The options have been found right. */
    void set_filter(const FilterOptions &options, const std::vector<std::string> &hidden);
    void set_pacing(const PacingOptions &options);

    /* Asks for a container's name, for filters and forms: to be called from within this object's functions. */
    EventFilter::NameOf container_name();

    /* An output that was opened; its `key` names it for replace_outlets(). */
    void add_outlet(std::unique_ptr<Outlet> outlet);
    /* Those whose key is not among `kept` go, and are drained, and the fresh ones, which were opened, come: each record
     * has the one or the other. Returns what was not delivered in time. */
    Leftover replace_outlets(const std::vector<std::string> &kept, std::vector<std::unique_ptr<Outlet>> fresh,
                             uint64_t timeout_ms);

    /* Filters see the paths as they are. */
    void event(const agent::Event &event, const Presentation &how);
    /* A record of another kind, made by the given function with each output's form. */
    void record(const char *type, const std::function<void(Formatter &, uint64_t time_ns, std::string &)> &make);
    void flush();

    /* From now on nobody waits longer than until then, by agent::steady_ms(), for an output that takes nothing: what it
     * does not take is given up, and counted as not delivered. */
    void set_deadline(uint64_t deadline_ms) { deadline_ms_ = deadline_ms; }

    /* At the end: until all is safe, or the deadline. */
    Leftover drain();

    bool is_waiting() const { return waiting_; } /* somebody waits for an output */
    FanoutFigures figures() const;
    std::vector<OutletFigures> outlet_figures() const;
    uint64_t number() const; /* of the last record */
    /* What outputs have to say to a person, since the last call. */
    std::vector<std::string> news();

private:
    void pass_on(agent::Event event, const Presentation &how) REQUIRES(lock_);
    void take_paced(bool end) REQUIRES(lock_);
    void deliver() REQUIRES(lock_);
    bool offer() REQUIRES(lock_);
    void measure() REQUIRES(lock_);
    void add(const char *type, const std::function<void(Formatter &, uint64_t, std::string &)> &make) REQUIRES(lock_);
    uint64_t next_number() REQUIRES(lock_);
    void enter(std::unique_ptr<Outlet> outlet) REQUIRES(lock_);

    const Origin origin_;
    mutable common::Mutex lock_;
    std::unique_ptr<EventFilter> filter_ GUARDED_BY(lock_);
    Pacing pacing_ GUARDED_BY(lock_){PacingOptions{}};
    std::vector<std::string> hidden_ GUARDED_BY(lock_);
    std::vector<std::unique_ptr<Outlet>> outlets_ GUARDED_BY(lock_);
    agent::ContainerNames container_names_ GUARDED_BY(lock_);
    std::vector<uint64_t> times_ GUARDED_BY(lock_); /* of the events that gather */
    uint64_t number_ GUARDED_BY(lock_);             /* of the last record */
    uint64_t given_up_ GUARDED_BY(lock_) = 0;       /* records */
    mutable common::Mutex figures_lock_;            /* taken last */
    FanoutFigures figures_ GUARDED_BY(figures_lock_);
    std::atomic<uint64_t> deadline_ms_ = UINT64_MAX;
    std::atomic<bool> waiting_ = false;
};

}  // namespace output

#endif
