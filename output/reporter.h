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
#include "agent/plan.h"
#include "agent/queue.h"
#include "agent/request.h"
#include "commands.h"
#include "format.h"
#include "output.h"
#include "output_options.h"
#include "selection.h"

namespace output
{

class Reporter
{
public:
    Reporter(const agent::Request &request, const OutputOptions &options)
        : request_(request), options_(options), selection_(request.max_depth), commands_(options.exec)
    {
    }

    /* Reads the filters, and looks whether the output can be had; nothing is opened. False: `error` is one line. */
    bool prepare(std::string &error);
    void hide(const std::vector<std::string> &paths);
    void set_plan(const agent::Plan &plan);
    /* Opens the output, when all that is to be reported can be had, and writes the heading. */
    bool begin(std::string &error);
    void add_root(const std::string &path) { selection_.add_root(path); }

    /* While the command ends, events are counted instead of shown when their commands would have to be run, and when
     * the output's reader does not read. */
    void event(const agent::Event &event);
    void established(const Established &all);
    void loss(const std::string &source, uint64_t count, const std::string &path = "");
    void appeared(const std::string &path);
    void ended(const std::string &path, const char *reason);
    void note(const std::string &text) const;
    void flush();
    void tell_dropped() const;

    bool finished() const { return finished_; }
    int status() const { return status_; }
    uint64_t shown() const { return shown_; }
    int output_fd() const { return output_.fd(); }
    bool has_records() const { return has_records_; }

private:
    bool gives_up() const;
    void execute(const agent::Event &event);
    void check_output(bool written);
    void finish(int status);

    const agent::Request &request_;
    const OutputOptions &options_;
    Output output_;
    Selection selection_;
    std::unique_ptr<Formatter> formatter_;
    Commands commands_;
    agent::ContainerNames container_names_;
    FormatStyle style_;
    bool has_records_ = false;
    uint64_t shown_ = 0, dropped_ = 0;
    bool finished_ = false;
    int status_ = 0;
};

}  // namespace output

#endif
