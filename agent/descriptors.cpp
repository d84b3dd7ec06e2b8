#include "descriptors.h"

#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "common/fd.h"
#include "message.h"

namespace agent
{

namespace
{

rlim_t g_given; /* before the limit was raised; 0: it was not */

}  // namespace

uint64_t most_descriptors()
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_max;
}

// Where even the list of them cannot be opened none is left.
uint64_t descriptors_left()
{
    struct rlimit limit = {};
    const common::Dir list(opendir("/proc/self/fd"));
    if (!list || getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 0;
    uint64_t used = 0;
    while (const struct dirent *entry = readdir(list.get()))
        used += entry->d_name[0] != '.';
    return limit.rlim_cur > used ? limit.rlim_cur - used : 0;
}

// The soft limit is raised already.
std::string reason_text(int error_number)
{
    if (error_number == ENFILE)
        return "the system has no file descriptor left: raise it with sysctl fs.file-max, or see what has so many "
               "files open";
    if (error_number == EMFILE)
        return "no file descriptor is left (" + with_commas(most_descriptors()) +
               " at most): raise the hard limit (ulimit -H -n, or LimitNOFILE=)";
    return strerror(error_number);
}

void raise_descriptor_limit()
{
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
        return;
    const rlim_t given = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0)
        g_given = given;
}

std::string default_descriptors() { return g_given ? "ulimit -S -n " + std::to_string(uint64_t{g_given}) + "\n" : ""; }

}  // namespace agent
