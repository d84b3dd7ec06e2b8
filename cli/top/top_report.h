/*
 * top_report.h: what a session reports, onto the board.
 */
#ifndef CLI_TOP_REPORT_H
#define CLI_TOP_REPORT_H

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "agent/containers.h"
#include "agent/report.h"
#include "board.h"
#include "output/selection.h"
#include "top_options.h"

namespace cli
{

class TopReport : public agent::Report
{
public:
    /* `show` is called once, when all is in place: it opens the display. False: the reason was said. */
    TopReport(const TopOptions &options, Board &board, std::function<bool()> show)
        : options_(options), board_(board), show_(std::move(show)), selection_(options.max_depth)
    {
    }

    bool prepare(std::string &error) { return selection_.set_filter(options_, error); }

    void hide(const std::vector<std::string> &paths) override;
    void set_plan(const agent::Plan &plan) override { selection_.set_plan(plan); }
    bool begin(std::string &) override { return true; }
    void add_root(const std::string &path) override { selection_.add_root(path); }
    void event(const agent::Event &event) override;
    void established(const agent::Established &all) override;
    void loss(const std::string &source, uint64_t count, const std::string &path) override;
    void resynced(const std::vector<std::string> &paths, uint64_t directories) override;
    void appeared(const std::string &path) override { board_.say("watched from now on: " + path); }
    void ended(const std::string &path, const char *reason) override;
    void note(const std::string &text) override;
    void warning(const std::string &text) override;
    void flush() override {}
    void report_dropped() override {}

    bool finished() const override { return status_ != agent::kDone; }
    int status() const override { return status_; }
    uint64_t shown() const override { return shown_; }
    int output_fd() const override;
    bool has_records() const override { return true; }
    /* The display looks once in an interval: twice as often there is something new. */
    uint64_t gather_ms() const override { return std::min<uint64_t>(options_.interval_ms / 2, kMostGatherMs); }

    /* On stderr, once the display is closed: what was to be said while it was open. */
    void say_warnings() const;

private:
    static constexpr uint64_t kMostGatherMs = 100; /* the queue holds what comes meanwhile */

    std::string container_text(std::string_view id);

    const TopOptions &options_;
    Board &board_;
    const std::function<bool()> show_;
    output::Selection selection_;
    agent::ContainerNames container_names_;
    bool is_shown_ = false;
    int status_ = 0;
    uint64_t shown_ = 0;
    std::vector<std::string> warnings_; /* the latest */
};

}  // namespace cli

#endif
