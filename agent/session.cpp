#include "session.h"

#include <algorithm>

#include "diagnose.h"
#include "message.h"
#include "monitor.h"

namespace agent
{

void Session::start(Watched &watched, uint64_t now)
{
    watched_ = &watched;
    pace_.start(now);
    limit_.start(now);
}

void Session::start_counting()
{
    struct fmon_status status;
    if (monitor_.read_status(status))
        losses_.since_last(status);
    process_losses_ = monitor_.process_losses();
}

Pause Session::step(uint64_t now, const Inputs &inputs)
{
    if (end_.status < 0) {
        const Pause pause = watch(now, inputs);
        if (end_.status < 0)
            return pause;
    }
    if (!is_released(now, inputs.patience_ms))
        return {kReleaseMs, Pause::For::kTime};
    close();
    end_.over = true;
    return {};
}

// What is shown may take long, so the time is looked at before, with that of this step, and after, with that of the
// next.
Pause Session::watch(uint64_t now, const Inputs &inputs)
{
    take_inputs(now, inputs);
    check_time(now);
    if (inputs.patience_ms >= 0)
        end_with(kDone);
    if (end_.status >= 0)
        return {};
    recover(now);
    if (!take_batch(now))
        return sleep(now);
    show_batch(now);
    return {std::max(pace_.gather_ms(), report_.gather_ms()), Pause::For::kNewDirectories};
}

void Session::take_inputs(uint64_t now, const Inputs &inputs)
{
    pace_.wakes(now);
    if (inputs.new_directories)
        watched_->complete_trees();
    if (inputs.mounts_changed) {
        watched_->mounts_changed();
        pace_.look_soon(now);
    }
    if (inputs.reader_gone)
        end_with(kDone);
}

void Session::check_time(uint64_t now)
{
    if (monitor_.has_findings())  // what comes within a second is reported together
        pace_.look_soon(now);
    if (pace_.look_is_due(now))
        look(now);
    limit_.see(now, report_.shown());
    if (now < limit_.end() || end_.status >= 0)
        return;
    report_.note("nothing happened within the time that -t gives");
    end_with(kNothing);
}

void Session::look(uint64_t now)
{
    check_losses();
    check_findings();
    if (watched_->lacks_room())
        recovery_.found_no_room(now);
    watched_->look();
    report_.flush();
    pace_.looked(now, watched_->is_expecting());
    if (watched_->all_ended())
        end_with(kGone);
}

// False: there is nothing to be shown yet.
bool Session::take_batch(uint64_t now, bool last)
{
    events_.take(batch_);
    if (request_.pair_renames) {
        pairs_.gather(batch_, now, last);
        pairs_.begin(batch_);
    }
    return !batch_.empty();
}

void Session::show_batch(uint64_t now)
{
    in_hand_ = batch_.size();
    watched_->before(batch_);
    for (size_t i = 0; i < batch_.size() && !report_.finished(); i++) {
        const Event event = batch_.event(i);
        show(event);
        watched_->shown(event);
    }
    watched_->after();
    report_.flush();
    in_hand_ = 0;
    pace_.look_soon(now);
    if (report_.finished())
        end_with(report_.status());
    else if (watched_->all_ended())
        end_with(kGone);
}

void Session::show(Event event)
{
    event.mask = watched_->news(event);
    pairs_.join(event);
    if (event.mask)
        report_.event(event);
}

Pause Session::sleep(uint64_t now)
{
    if (!events_.prepare_to_sleep())
        return {};
    pace_.sleeps(now);
    const uint64_t until = std::min({pace_.next_look(), limit_.end(), recovery_.next(now), pairs_.due()});
    return {until > now ? until - now : 0, Pause::For::kEverything};
}

// What was lost during a walk is reported before what the walk found.
void Session::recover(uint64_t now)
{
    if (recovery_.trial_is_due(now))
        recovery_.tried(now, watched_->has_room());
    if (recovery_.walk_is_due(now)) {
        recovery_.started(now);
        watched_->start_walk();
    }
    if (!recovery_.is_walking() || watched_->walk())
        return;
    check_losses();
    check_findings();
    if (recovery_.ended(now, watched_->lacks_room()))
        watched_->report_resynced();
    report_.flush();
}

// What each counter grew by since the last look is one record.
void Session::check_losses()
{
    struct fmon_status status;
    if (!monitor_.read_status(status))
        return check_end(status.monitor);
    check_processes();
    for (const Loss &loss : losses_.since_last(status)) {
        report_.loss(loss.source, loss.count, loss.path);
        report_.warning(loss.text);
        if (loss.blinds)
            recovery_.lost();
    }
}

void Session::check_processes()
{
    const uint64_t lost = monitor_.process_losses(), count = lost - process_losses_;
    if (count == 0)
        return;
    process_losses_ = lost;
    report_.loss("processes", count, "");
    report_.warning("the kernel's queue of processes overflowed " + counted(count, "time") +
                    ": events of processes that were short-lived then may lack a program, or a process");
}

void Session::check_end(const struct fmon_source &monitor)
{
    if (monitor.state != FMON_SOURCE_REFUSED || end_.status >= 0)
        return;
    report_.warning("the monitor has stopped: " + trouble_text(monitor));
    end_with(kError);
}

// Many refusals within a look become one line: a tree that runs into a limit has one a directory.
void Session::check_findings()
{
    if (!monitor_.has_findings())
        return;
    Findings findings = monitor_.take_findings();
    const Watched::LeftOut left_out = watched_->report_left_out(findings.left_out());
    if (left_out.reported == 0)
        return;
    if (findings.first_denied.empty())
        findings.first_denied = left_out.latest;
    Facts facts = gather_facts();
    facts.max_dentries = max_dentries(request_);
    report_.warning(explain_left_out("", findings, left_out.reported, facts));
}

// Events that were held back for a dump are still delivered, as far as the time goes.
bool Session::is_released(uint64_t now, int patience_ms)
{
    uint64_t waiting = 1;
    if (end_.release_end != 0) {
        waiting = monitor_.release();
    } else {
        if (!monitor_.end_hold() || report_.finished())
            return true;
        end_.release_end = now + kTurnMs;
    }
    if (waiting && now < end_.release_end && patience_ms != 0)
        return false;
    if (waiting && patience_ms >= 0)
        report_.warning("told to end: up to " + counted(waiting, "event") + " dropped, which a dump held back");
    return true;
}

// What has come until now is still shown, before anything is asked of the monitor, which may be held up.
void Session::close()
{
    if (!report_.finished() && take_batch(0, true)) {
        in_hand_ = batch_.size();
        for (size_t i = 0; i < batch_.size(); i++)
            show(batch_.event(i));
    }
    report_.flush();
    in_hand_ = 0;
    report_.report_dropped();
    check_losses();
    check_findings();
    report_.flush();
}

void Session::end_with(int status)
{
    if (end_.status < 0)
        end_.status = status;
}

}  // namespace agent
