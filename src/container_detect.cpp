/* Whether the agent runs on a host or in a container: libhulbase.so is asked; fmon_shell.h. */

#include "agent_library.h"
#include "fmon_shell.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "container_tool_utils";
constexpr int kTypeSize = 20;
constexpr int kHost = -1; /* GetAgentType's answer, and what is taken when it cannot be asked */

using agent_type_fn = int (*)(char *buf, int size);

constinit struct agent_library hulbase = {
    .path = "@/../lib/libhulbase.so",
    .log_file = kFile,
    .module = "hul base module",
    .symbol = "hulbase symbol: GetAgentType",
    .names = {"GetAgentType"},
    .entries = {},
    .handle = {},
};

}  // namespace

int container_detect(void)
{
    char type[kTypeSize] = "";
    const auto get_agent_type = reinterpret_cast<agent_type_fn>(agent_library_entry(&hulbase, 0));
    const int answer = get_agent_type ? get_agent_type(type, kTypeSize) : kHost;
    if (answer == kHost) {
        FMON_LOG(3, kFile, "current env is host!");
        return 0;
    }
    FMON_LOG(3, kFile, "current env is container!");
    return 1;
}
