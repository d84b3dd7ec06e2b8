/* `fmon dump`: asks a running watch for its state and prints the answer. */

#include "agent/message.h"
#include "dump_client.h"
#include "dump_options.h"
#include "output/print.h"

namespace cli
{

namespace
{

std::string none_text(size_t others)
{
    if (others == 0)
        return "no fmon watch is running that could be asked";
    return (others == 1 ? "one fmon watch is running, and it belongs" : "all running fmon watches belong") +
           std::string(" to another user: only root may ask ") + (others == 1 ? "it" : "them");
}

void list(const std::vector<pid_t> &pids)
{
    agent::complain("more than one fmon watch is running: name its process, as in fmon dump " +
                    std::to_string(pids[0]));
    std::string text;
    for (const pid_t pid : pids) {
        std::string line = "  " + std::to_string(pid);
        line.resize(line.size() < 11 ? 11 : line.size() + 1, ' ');
        text += line + command_line(pid) + "\n";
    }
    agent::say(text);
}

// The only watch that may be asked; 0 when there is not exactly one, which is said.
pid_t find_only()
{
    const std::vector<Listener> all = listeners();
    const std::vector<pid_t> pids = running_watches(all);
    if (pids.size() == 1)
        return pids[0];
    if (pids.empty())
        agent::complain(none_text(all.size()));
    else
        list(pids);
    return 0;
}

}  // namespace

int run_dump(const DumpOptions &options)
{
    const pid_t pid = options.pid ? options.pid : find_only();
    if (pid == 0)
        return agent::kError;
    agent::DumpAnswer answer;
    std::string error;
    if (!ask_watch(pid, options.request, answer, error)) {
        agent::complain(error);
        return agent::kError;
    }
    if (answer.text.empty())
        agent::complain(std::string("the monitor of process ") + std::to_string(pid) + " has nothing to tell about " +
                        agent::kDumpTypeTable[options.request.type].name);
    if (answer.cut)
        agent::complain("the dump is longer than 64 MB and was cut there: ask for a part with --type");
    return output::print_out(answer.text);
}

}  // namespace cli
