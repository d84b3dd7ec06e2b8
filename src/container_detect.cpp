#include "fmon_shell.h"

#include <cerrno>

#include "dll.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "container_tool_utils";
constexpr char kLibrary[] = "@/../lib/libhulbase.so";
constexpr int kTypeSize = 20;
constexpr int kHost = -1; /* GetAgentType's answer, and what is taken when it cannot be asked */

using agent_type_fn = int (*)(char *buf, int size);

/* Kept once found. */
void *library;
agent_type_fn get_agent_type;

bool open_library()
{
    if (library)
        return true;
    library = dll_open(kLibrary);
    if (!library)
        FMON_LOG(1, kFile, "load hul base module failed, errno: %d\n", errno);
    return library != nullptr;
}

bool find_entry()
{
    if (get_agent_type)
        return true;
    if (!open_library())
        return false;
    get_agent_type = reinterpret_cast<agent_type_fn>(dlsym(library, "GetAgentType"));
    if (get_agent_type)
        return true;
    FMON_LOG(1, kFile, "load hulbase symbol: GetAgentType failed, errno: %d\n", errno);
    orx_dll_close(library);
    library = nullptr;
    return false;
}

}  // namespace

int container_detect(void)
{
    char type[kTypeSize] = "";
    const int answer = find_entry() ? get_agent_type(type, kTypeSize) : kHost;
    if (answer == kHost) {
        FMON_LOG(3, kFile, "current env is host!");
        return 0;
    }
    FMON_LOG(3, kFile, "current env is container!");
    return 1;
}
