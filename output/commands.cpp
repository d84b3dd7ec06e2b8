#include "commands.h"

#include "agent/message.h"
#include "agent/signals.h"
#include "agent/time_format.h"

namespace output
{

namespace
{

constexpr uint64_t kFailurePauseMs = 1000;

}  // namespace

Commands::Commands(const std::string &command) : executor_(command.empty() ? nullptr : new Executor(command)) {}

bool Commands::run(const agent::Event &event)
{
    std::string trouble;
    const bool started = executor_->run(
        event, [] { return agent::patience_ms(); }, trouble);
    if (!started)
        agent::complain(trouble);
    else if (!trouble.empty())
        report(trouble);
    return started;
}

// One line a second: a command that always fails runs as often as there are events.
void Commands::report(const std::string &trouble)
{
    const uint64_t now = agent::steady_ms();
    failures_++;
    if (reported_ms_ != 0 && now < reported_ms_ + kFailurePauseMs && !agent::stop_requested())
        return;
    agent::complain(failures_ == 1 ? trouble
                                   : trouble + "; " + agent::with_commas(failures_ - 1) + " before that failed, too");
    failures_ = 0;
    reported_ms_ = now;
}

void Commands::report_failures() const
{
    if (failures_)
        agent::complain("the command of --exec failed " + agent::counted(failures_, "more time"));
}

}  // namespace output
