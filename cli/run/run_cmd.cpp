/* `fmon run`: configuration, service. */
#include <malloc.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "agent/message.h"
#include "config_read.h"
#include "run_options.h"
#include "service.h"

namespace cli
{

namespace
{

constexpr int kArenas = 2; /* pools of memory: each thread that has its own keeps what it once needed */

void complain(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines)
        agent::complain(line);
}

}  // namespace

int run_service(const RunOptions &options)
{
    Config config;
    const std::vector<std::string> faults = load_config(options.config, config);
    complain(faults);
    if (!faults.empty())
        return agent::kError;
    complain(config_warnings(config));
    if (options.check) {
        complain(config_awaited(config));
        agent::complain(options.config + " is right: " + agent::counted(config.instances.size(), "instance"));
        return agent::kDone;
    }
    mallopt(M_ARENA_MAX, kArenas);
    // The monitor's thread cannot be stopped, and must not see the service go: the process ends with both.
    Service service(options.config, config);
    _exit(service.run());
}

}  // namespace cli
