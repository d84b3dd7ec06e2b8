/*
 * reporter.h: everything that leaves the command: records to the output, commands of --exec, notes on stderr.
 */
#ifndef OUTPUT_REPORTER_H
#define OUTPUT_REPORTER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/containers.h"
#include "agent/filter.h"
#include "agent/plan.h"
#include "agent/request.h"
#include "exec.h"
#include "format.h"
#include "output.h"
#include "output_options.h"

namespace output
{

class Reporter
{
public:
    Reporter(const agent::Request &request, const OutputOptions &options) : request_(request), options_(options) {}

    /* Reads the filters, and looks whether the output can be had; nothing is opened. False: `error` is one line. */
    bool prepare(std::string &error);
    void set_plan(const agent::Plan &plan);
    /* One more path from which depths are counted. */
    void add_root(const std::string &path);
    /* Paths whose events are not shown. */
    void hide(const std::vector<std::string> &paths);
    /* Opens the output, when all that is to be reported can be had, and writes the heading. Before everything else.
     * False: `error` is one line. */
    bool begin(std::string &error);

    /* While the command ends, events are counted instead of shown when their commands would have to be run, and when
     * the output's reader does not read. */
    void event(const agent::Event &event);
    void established(const Established &all);
    void loss(const std::string &source, uint64_t count, const std::string &path = "");
    void appeared(const std::string &path);
    void ended(const std::string &path, const char *reason);
    void note(const std::string &text) const; /* on stderr, unless quiet */
    void flush();
    /* At the end, on stderr: what was not shown, or not run, because a signal ended the command. */
    void tell_dropped() const;

    /* Nothing more is to be shown; the status to end with. */
    bool finished() const { return finished_; }
    int status() const { return status_; }
    uint64_t shown() const { return shown_; } /* events */
    int output_fd() const { return output_.fd(); }
    bool has_records() const { return has_records_; } /* beside events */

private:
    bool wants(const agent::Event &event) const;
    bool is_within_depth(std::string_view path) const;
    bool gives_up() const;
    void execute(const agent::Event &event);
    void tell_failure(const std::string &line);
    void check_output(bool written);
    void finish(int status);

    const agent::Request &request_;
    const OutputOptions &options_;
    Output output_;
    agent::PathFilter filter_;
    std::unique_ptr<Formatter> formatter_;
    std::unique_ptr<Executor> executor_;
    agent::ContainerNames container_names_;
    FormatStyle style_;
    std::vector<uint32_t> shown_kinds_; /* by instance */
    std::vector<std::string> roots_;
    uint64_t shown_ = 0, dropped_ = 0;
    struct {
        uint64_t count = 0, reported_ms = 0; /* since a report, and when that was */
    } failures_;                             /* of commands */
    bool has_records_ = false;
    bool finished_ = false;
    int status_ = 0;
};

}  // namespace output

#endif
