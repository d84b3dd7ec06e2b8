/*
 * bus_sender.h: the thread that takes records from a spool to a message bus until they are acknowledged.
 *
 * Records go in the order of the spool. What the bus did not confirm is sent again, after a pause that grows as long as
 * nothing gets through. So is a bus that cannot be opened.
 */
#ifndef OUTPUT_SINKS_BUS_SENDER_H
#define OUTPUT_SINKS_BUS_SENDER_H

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bus_text.h"
#include "bus_window.h"
#include "common/mutex.h"
#include "fmon_bus.h"
#include "output/sink.h"
#include "output/spool/spool.h"

namespace output
{

struct BusOptions {
    const struct fmon_bus_plugin *plugin = nullptr;
    Origin origin;
    SubjectTemplate subject;
    bool key_is_host = false;
    size_t in_flight = 8192; /* records that are sent and not acknowledged, at most */
    /* What the plug-in is told; asked for at each attempt to open the bus. False, with one line in `error`. */
    std::function<bool(std::vector<std::pair<std::string, std::string>> &, std::string &error)> settings;
};

struct SenderFigures {
    uint64_t acknowledged = 0; /* records */
    uint64_t refused = 0;      /* that the bus will never take */
    uint64_t retries = 0;
    uint64_t safe = 0; /* the last number of this boot that was acknowledged with all before */
};

class BusSender
{
public:
    /* `tick`: called by the thread, about every second and after each turn. */
    BusSender(const BusOptions &options, Spool &spool, std::function<void(uint64_t now)> tick);
    ~BusSender(); /* ends the thread */
    BusSender(const BusSender &) = delete;
    BusSender &operator=(const BusSender &) = delete;

    /* False: the system gives no thread. */
    bool start();

    /* There is something in the spool. */
    void wake() EXCLUDES(lock_);
    /* Until all in the spool is acknowledged; whether it is. */
    bool wait_until_empty(uint64_t timeout_ms) EXCLUDES(lock_);

    SenderFigures figures() const EXCLUDES(lock_);
    Condition condition() const EXCLUDES(lock_);

private:
    struct Shared {
        bool ending = false, awake = false;
        SenderFigures figures;
        Condition condition;
    };
    /* The thread's own. */
    struct Pace {
        uint64_t pause = 0;   /* milliseconds after the next failure */
        uint64_t until = 0;   /* nothing is sent before */
        bool failed = false;  /* in this turn */
        bool works = true;    /* what was said last */
        uint64_t refused = 0; /* in this turn */
        std::string why_refused;
    };

    void run();
    bool ending() const EXCLUDES(lock_);
    bool open_bus();
    void turn(uint64_t now);
    void fill();
    bool send(uint64_t now);
    size_t send_some();
    void collect(uint64_t now);
    void pause(uint64_t now, uint64_t longest);
    void note_pop(const BusRecord &record, SenderFigures &news) const;
    void sleep(uint64_t ms) EXCLUDES(lock_);
    void say(bool works, const std::string &why) EXCLUDES(lock_);
    static void on_outcome(void *self, uint64_t number, enum fmon_bus_outcome outcome, const char *why);
    static void on_condition(void *self, int works, const char *why);

    const BusOptions options_;
    const std::string current_; /* boot:instance */
    Spool &spool_;
    const std::function<void(uint64_t now)> tick_;
    const struct fmon_bus_listener listener_;
    struct fmon_bus *bus_ = nullptr;
    BusWindow window_;
    Pace pace_;
    std::thread thread_;
    mutable common::Mutex lock_;
    common::Condition changed_;
    Shared shared_ GUARDED_BY(lock_);
};

}  // namespace output

#endif
