/* The doctor's section on watches that run and what they missed; doctor.h. */

#include "cli/dump/dump_client.h"
#include "doctor.h"

namespace cli
{

namespace
{

constexpr char kWatches[] = "watches";

Check judge_watch(const WatchFacts &watch)
{
    Check check = {kWatches, "process " + std::to_string(watch.pid), State::kOk, watch.command + ": ", "", true};
    if (!watch.error.empty()) {
        check.state = State::kWarn;
        check.text += watch.error;
    } else if (watch.losses.empty()) {
        check.text += "nothing was missed";
    } else {
        check.state = State::kWarn;
        std::string separator;
        for (const std::string &loss : watch.losses) {
            check.text += separator + loss;
            separator = "; ";
        }
    }
    return check;
}

// The lines of an answer.
std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

}  // namespace

std::vector<WatchFacts> gather_watches()
{
    std::vector<WatchFacts> watches;
    for (const pid_t pid : running_watches()) {
        WatchFacts watch = {pid, command_line(pid), {}, ""};
        agent::DumpAnswer answer;
        if (ask_watch(pid, {agent::kDumpLosses, 0}, answer, watch.error))
            watch.losses = lines_of(answer.text);
        watches.push_back(std::move(watch));
    }
    return watches;
}

Checks judge_watches(const std::vector<WatchFacts> &watches)
{
    Checks checks;
    for (const WatchFacts &watch : watches)
        checks.push_back(judge_watch(watch));
    return checks;
}

}  // namespace cli
