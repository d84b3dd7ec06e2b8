/*
 * instance_report.h: what a session of a service reports: to its instance's outputs, and messages to stderr.
 */
#ifndef OUTPUT_INSTANCE_REPORT_H
#define OUTPUT_INSTANCE_REPORT_H

#include <string>
#include <vector>

#include "agent/report.h"
#include "agent/request.h"
#include "common/mutex.h"
#include "fanout.h"
#include "selection.h"

namespace output
{

/* One thread's, but for established_now(). */
class InstanceReport : public agent::Report
{
public:
    InstanceReport(const agent::Request &request, Fanout &fanout)
        : as_given_(request.as_given), selection_(request.max_depth), fanout_(fanout)
    {
    }

    void hide(const std::vector<std::string> &paths) override;
    void set_plan(const agent::Plan &plan) override;
    bool begin(std::string &) override { return true; }
    void add_root(const std::string &path) override { selection_.add_root(path); }

    void event(const agent::Event &event) override;
    void established(const agent::Established &all) override;
    void loss(const std::string &source, uint64_t count, const std::string &path) override;
    void resynced(const std::vector<std::string> &paths, uint64_t directories) override;
    void appeared(const std::string &path) override;
    void ended(const std::string &path, const char *reason) override;
    void note(const std::string &text) override;
    void warning(const std::string &text) override;
    void flush() override { fanout_.flush(); }
    void report_dropped() override {} /* the service's, of all sessions */

    bool finished() const override { return false; }
    int status() const override { return 0; }
    uint64_t shown() const override { return shown_; }
    int output_fd() const override { return -1; }
    bool has_records() const override { return false; }

    agent::Established established_now() const; /* any thread; without paths: not yet */

private:
    std::string shown_path(const std::string &path) const;

    const bool as_given_;
    GivenPaths given_; /* empty, where paths are shown as they are */
    Selection selection_;
    Fanout &fanout_;
    uint64_t shown_ = 0;
    mutable common::Mutex lock_;
    agent::Established established_ GUARDED_BY(lock_);
};

}  // namespace output

#endif
