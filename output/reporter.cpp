#include "reporter.h"

#include <unistd.h>

#include "agent/message.h"
#include "agent/signals.h"
#include "agent/time_format.h"
#include "formats.h"
#include "look.h"
#include "print.h"

namespace output
{

bool Reporter::prepare(std::string &error)
{
    const FormatRow *const form = find_format(options_.format);
    has_records_ = form && form->has_records;
    return selection_.set_filter(options_, error) && make_formatter(options_.format, style_, error) &&
           Output::check(options_.output, error);
}

void Reporter::hide(const std::vector<std::string> &paths)
{
    for (const std::string &path : paths)
        selection_.hide(path);
}

void Reporter::set_plan(const agent::Plan &plan)
{
    style_.container_name = [this](std::string_view id) { return container_names_.find(id, agent::steady_ms()); };
    for (const agent::PlannedInstance &instance : plan.instances)
        style_.sources.push_back(instance.name);
    selection_.set_plan(plan);
    for (const agent::Root &root : plan.roots)
        given_.add(root);
}

// A file that grows has its heading already.
bool Reporter::begin(std::string &error)
{
    if (!output_.open(options_.output, options_.append, error))
        return false;
    const std::string own = output_.file_path();
    if (!own.empty())
        selection_.hide(own);
    style_.end = options_.null_end ? '\0' : '\n';
    style_.terminal = output_.is_terminal();
    style_.ancestors = request_.ancestors;
    style_.stat = options_.stat;
    style_.pairs = request_.pair_renames;
    style_.time_format = options_.time_format;
    style_.colours = style_.terminal && wants_colours();
    output_.set_end(style_.end);
    if (selection_.wants_known_process() && geteuid() != 0)
        note("--process, --process-id and --user: the kernel names processes to root only, so nothing may be shown");
    formatter_ = make_formatter(options_.format, style_, error);
    if (own.empty() || output_.is_empty())
        formatter_->begin(output_.buffer());
    return true;
}

void Reporter::event(const agent::Event &event)
{
    std::string path;
    agent::Event visible = event;
    if (finished_ || !selection_.narrow(visible, path))
        return;
    if (gives_up()) {
        dropped_++;
        return;
    }
    agent::Identity there;
    look_at_path(visible, event.mask, look_of(*formatter_), there);
    std::string given, given_from;
    visible.path = shown_path(visible.path, given);
    visible.from = shown_path(visible.from, given_from);
    formatter_->event(visible, output_.buffer());
    shown_++;
    if (commands_)
        execute(visible);
    else
        check_output(output_.flush_if_large(agent::patience_ms));
    if (shown_ == options_.count)
        finish(agent::kDone);
}

std::string_view Reporter::shown_path(std::string_view path, std::string &storage) const
{
    return request_.as_given ? given_.of(path, storage) : path;
}

bool Reporter::gives_up() const
{
    return output_.gave_up() || (agent::stop_requested() && (commands_ || agent::patience_ms(true) == 0));
}

// The record is out before its command runs, so that both appear in order on one terminal.
void Reporter::execute(const agent::Event &event)
{
    flush();
    if (!finished_ && !commands_.run(event))
        finish(agent::kError);
}

void Reporter::established(const agent::Established &all)
{
    formatter_->established(agent::wall_clock_ns(), all, output_.buffer());
    flush();
}

void Reporter::loss(const std::string &source, uint64_t count, const std::string &path)
{
    formatter_->loss(agent::wall_clock_ns(), source, count, path, output_.buffer());
}

void Reporter::resynced(const std::vector<std::string> &paths, uint64_t directories)
{
    formatter_->resynced(agent::wall_clock_ns(), paths, directories, output_.buffer());
}

void Reporter::appeared(const std::string &path)
{
    std::string given;
    formatter_->appeared(agent::wall_clock_ns(), shown_path(path, given), output_.buffer());
}

void Reporter::ended(const std::string &path, const char *reason)
{
    std::string given;
    formatter_->ended(agent::wall_clock_ns(), shown_path(path, given), reason, output_.buffer());
}

void Reporter::note(const std::string &text)
{
    if (!request_.quiet)
        agent::complain(text);
}

void Reporter::warning(const std::string &text) { agent::complain(text); }

void Reporter::flush() { check_output(output_.flush(agent::patience_ms)); }

void Reporter::report_dropped()
{
    commands_.report_failures();
    const uint64_t records = dropped_ + output_.given_up();
    if (records && commands_)
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
