#include "reporter.h"

#include <algorithm>

#include "agent/deleted_path.h"
#include "agent/message.h"
#include "agent/signals.h"
#include "agent/time_format.h"
#include "formats.h"
#include "print.h"

namespace output
{

namespace
{

constexpr uint64_t kFailurePauseMs = 1000;

}  // namespace

bool Reporter::prepare(std::string &error)
{
    std::string reason;
    for (const std::string &pattern : options_.include)
        if (!filter_.include(pattern, reason))
            error = "--include '" + pattern + "' is no regular expression: " + reason;
    for (const std::string &pattern : options_.exclude)
        if (!filter_.exclude(pattern, reason))
            error = "--exclude '" + pattern + "' is no regular expression: " + reason;
    if (!error.empty() || !make_formatter(options_.format, style_, error))
        return false;
    const FormatRow *const form = find_format(options_.format);
    has_records_ = form && form->has_records;
    if (!Output::check(options_.output, error))
        return false;
    if (!options_.exec.empty())
        executor_ = std::make_unique<Executor>(options_.exec);
    return true;
}

void Reporter::set_plan(const agent::Plan &plan)
{
    style_.container_name = [this](std::string_view id) { return container_names_.find(id, agent::steady_ms()); };
    for (const agent::PlannedInstance &instance : plan.instances) {
        style_.sources.push_back(instance.name);
        shown_kinds_.push_back(instance.shown);
    }
    for (const agent::Root &root : plan.roots)
        roots_.push_back(root.path);
}

void Reporter::hide(const std::vector<std::string> &paths)
{
    for (const std::string &path : paths)
        filter_.hide(path);
}

// A file that grows has its heading already.
bool Reporter::begin(std::string &error)
{
    if (!output_.open(options_.output, options_.append, error))
        return false;
    const std::string own = output_.file_path();
    if (!own.empty())
        filter_.hide(own);
    style_.end = options_.null_end ? '\0' : '\n';
    style_.terminal = output_.is_terminal();
    style_.colours = style_.terminal && wants_colours();
    output_.set_end(style_.end);
    formatter_ = make_formatter(options_.format, style_, error);
    if (own.empty() || output_.is_empty())
        formatter_->begin(output_.buffer());
    return true;
}

void Reporter::add_root(const std::string &path)
{
    if (std::find(roots_.begin(), roots_.end(), path) == roots_.end())
        roots_.push_back(path);
}

bool Reporter::is_within_depth(std::string_view path) const
{
    if (request_.max_depth == 0)
        return true;
    // New directories are followed however deep they are; the limit is kept here.
    return std::any_of(roots_.begin(), roots_.end(), [&](const std::string &root) {
        const int depth = agent::folder_depth(root, path);
        return depth >= 0 && static_cast<uint32_t>(depth) <= request_.max_depth;
    });
}

bool Reporter::wants(const agent::Event &event) const
{
    return (event.mask & shown_kinds_[event.source]) && is_within_depth(event.path) && filter_.shows(event.path);
}

void Reporter::event(const agent::Event &event)
{
    std::string path;
    agent::Event visible = event;
    take_deleted(visible, path);
    if (finished_ || !wants(visible))
        return;
    if (gives_up()) {
        dropped_++;
        return;
    }
    visible.mask &= shown_kinds_[event.source];
    formatter_->event(visible, output_.buffer());
    shown_++;
    if (executor_)
        execute(visible);
    else
        check_output(output_.flush_if_large(agent::patience_ms));
    if (shown_ == options_.count)
        finish(agent::kDone);
}

bool Reporter::gives_up() const
{
    return output_.gave_up() || (agent::stop_requested() && (executor_ || agent::patience_ms(true) == 0));
}

// The record is out before its command runs, so that both appear in order on one terminal.
void Reporter::execute(const agent::Event &event)
{
    flush();
    std::string trouble;
    if (finished_)
        return;
    const bool started = executor_->run(
        event, [] { return agent::patience_ms(); }, trouble);
    if (!started) {
        agent::complain(trouble);
        finish(agent::kError);
    } else if (!trouble.empty()) {
        tell_failure(trouble);
    }
}

// One line a second: a command that always fails runs as often as there are events.
void Reporter::tell_failure(const std::string &line)
{
    const uint64_t now = agent::steady_ms();
    failures_.count++;
    if (failures_.reported_ms != 0 && now < failures_.reported_ms + kFailurePauseMs && !agent::stop_requested())
        return;
    agent::complain(failures_.count == 1
                        ? line
                        : line + "; " + agent::with_commas(failures_.count - 1) + " before that failed, too");
    failures_.count = 0;
    failures_.reported_ms = now;
}

void Reporter::established(const Established &all)
{
    formatter_->established(agent::wall_clock_ns(), all, output_.buffer());
    flush();
}

void Reporter::loss(const std::string &source, uint64_t count, const std::string &path)
{
    formatter_->loss(agent::wall_clock_ns(), source, count, path, output_.buffer());
}

void Reporter::appeared(const std::string &path)
{
    formatter_->appeared(agent::wall_clock_ns(), path, output_.buffer());
}

void Reporter::ended(const std::string &path, const char *reason)
{
    formatter_->ended(agent::wall_clock_ns(), path, reason, output_.buffer());
}

void Reporter::note(const std::string &text) const
{
    if (!request_.quiet)
        agent::complain(text);
}

void Reporter::flush() { check_output(output_.flush(agent::patience_ms)); }

void Reporter::tell_dropped() const
{
    if (failures_.count)
        agent::complain("the command of --exec failed " + agent::counted(failures_.count, "more time"));
    const uint64_t records = dropped_ + output_.given_up();
    if (records && executor_)
        agent::complain("told to end: " + agent::counted(records, "event") +
                        " dropped, for which the command of --exec was not run");
    else if (records)
        agent::complain("told to end: " + agent::counted(records, "record") +
                        " dropped, since the output's reader did not read");
}

// A reader that has gone has what it wanted (head -1): that is no error.
void Reporter::check_output(bool written)
{
    if (written || finished_)
        return;
    if (!output_.closed())
        agent::complain(output_.error());
    finish(output_.closed() ? agent::kDone : agent::kError);
}

void Reporter::finish(int status)
{
    finished_ = true;
    status_ = status;
}

}  // namespace output
