#include "ends.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "process_directory.h"

namespace container
{

namespace
{

size_t max_ends()
{
    constexpr rlim_t kMost = 4096, kShare = 4;
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<size_t>(std::min(kMost, limit.rlim_cur / kShare));
}

}  // namespace

// A number that is another process's by now is that of one that ended.
std::vector<End> watch_ends(const std::vector<Found> &containers)
{
    std::vector<End> ends;
    const Fd proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const size_t count = std::min(max_ends(), containers.size());
    for (size_t i = 0; proc && i < count; i++) {
        const Found &found = containers[i];
        Fd process(static_cast<int>(syscall(SYS_pidfd_open, found.pid, 0)));
        if (!process && errno != ESRCH)
            break;
        if (process && start_time(proc.get(), found.pid) != found.start)
            process.reset();
        ends.push_back({std::move(process), found.id, found.pid});
    }
    return ends;
}

}  // namespace container
