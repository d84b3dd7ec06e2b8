#include "deleted_path.h"

#include <sys/stat.h>

#include "orx_fmon.h"

namespace agent
{

namespace
{

constexpr std::string_view kSuffix = " (deleted)";

/* Kinds that come with a file instead of a name in a directory, where the process is known. */
constexpr uint32_t kOfFile = FMON_OPEN | FMON_ACCESS | FMON_MODIFY | FMON_CLOSE_WRITE | FMON_CLOSE_NOWRITE;

}  // namespace

void take_deleted(Event &event, std::string &storage)
{
    struct stat st;
    if (!event.path.ends_with(kSuffix) || event.pid == 0 || (event.mask & ~kOfFile) != 0 ||
        lstat(event.path.data(), &st) == 0)
        return;
    storage = event.path.substr(0, event.path.size() - kSuffix.size());
    event.path = storage;
    event.deleted = true;
}

}  // namespace agent
