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
#include "agent/report.h"
#include "agent/request.h"
#include "commands.h"
#include "format.h"
#include "given_paths.h"
#include "output.h"
#include "output_options.h"
#include "selection.h"

namespace output
{

class Reporter : public agent::Report
{
public:
    Reporter(const agent::Request &request, const OutputOptions &options)
        : request_(request), options_(options), selection_(request.max_depth), commands_(options.exec)
    {
    }

    /* Reads the filters, and looks whether the output can be had; nothing is opened. False: `error` is one line. */
    bool prepare(std::string &error);
    void hide(const std::vector<std::string> &paths) override;
    void set_plan(const agent::Plan &plan) override;
    /* Opens the output, when all that is to be reported can be had, and writes the heading. */
    bool begin(std::string &error) override;
    void add_root(const std::string &path) override { selection_.add_root(path); }

    /* While the command ends, events are counted instead of shown when their commands would have to be run, and when
     * the output's reader does not read. */
    void event(const agent::Event &event) override;
    void established(const agent::Established &all) override;
    void loss(const std::string &source, uint64_t count, const std::string &path) override;
    void resynced(const std::vector<std::string> &paths, uint64_t directories) override;
    void appeared(const std::string &path) override;
    void ended(const std::string &path, const char *reason) override;
    void note(const std::string &text) override;
    void warning(const std::string &text) override;
    void flush() override;
    void report_dropped() override;

    bool finished() const override { return finished_; }
    int status() const override { return status_; }
    uint64_t shown() const override { return shown_; }
    int output_fd() const override { return output_.fd(); }
    bool has_records() const override { return has_records_; }

private:
    bool gives_up() const;
    std::string_view shown_path(std::string_view path, std::string &storage) const;
    void execute(const agent::Event &event);
    void check_output(bool written);
    void finish(int status);

    const agent::Request &request_;
    const OutputOptions &options_;
    Output output_;
    Selection selection_;
    std::unique_ptr<Formatter> formatter_;
    GivenPaths given_;
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
