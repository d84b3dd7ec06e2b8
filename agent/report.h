/*
 * report.h: where what a session finds out goes. The layer above implements it: see output/reporter.h.
 */
#ifndef AGENT_REPORT_H
#define AGENT_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "plan.h"
#include "queue.h"

namespace agent
{

/* What stands when watching begins. */
struct Established {
    std::vector<std::string> paths;   /* watched */
    std::vector<std::string> missing; /* waited for */
    uint64_t directories = 0;         /* that have marks of their own */
    /* Where events come from: "marks" on directories, mounts and files, marks of whole file systems ("filesystem"),
     * "both", or kernel "probes". */
    std::string source = "marks";
    uint64_t left_out = 0; /* mounted file systems that nothing watches, though they were meant */
};

/* One thread's. What is reported may gather until flush(). */
class Report
{
public:
    virtual ~Report() = default;

    /* In this order, before everything else. */
    virtual void hide(const std::vector<std::string> &paths) = 0; /* their events are not shown */
    virtual void set_plan(const Plan &plan) = 0;
    /* Opens what the records go to. False: `error` is one line. */
    virtual bool begin(std::string &error) = 0;

    /* One more path from which depths are counted. */
    virtual void add_root(const std::string &path) = 0;

    virtual void event(const Event &event) = 0;
    virtual void established(const Established &all) = 0;
    virtual void loss(const std::string &source, uint64_t count, const std::string &path) = 0; /* path: may be empty */
    /* What is watched at these paths is whole again; `directories` of it were not watched. */
    virtual void resynced(const std::vector<std::string> &paths, uint64_t directories) = 0;
    virtual void appeared(const std::string &path) = 0;
    virtual void ended(const std::string &path, const char *reason) = 0;
    virtual void note(const std::string &text) = 0;    /* for a person, who may have asked for quiet */
    virtual void warning(const std::string &text) = 0; /* for a person, quiet or not */
    virtual void flush() = 0;
    virtual void report_dropped() = 0; /* at the end: what was not shown because the command was told to end */

    virtual bool finished() const = 0;    /* nothing more is to be shown */
    virtual int status() const = 0;       /* to end with, when finished */
    virtual uint64_t shown() const = 0;   /* events */
    virtual int output_fd() const = 0;    /* what the records go to, once begun */
    virtual bool has_records() const = 0; /* beside events: notes need not say the same */
    /* How long events may gather before they are reported, beside those of a stream: 0 where each is awaited. */
    virtual uint64_t gather_ms() const { return 0; }
};

}  // namespace agent

#endif
