#include "descriptors.h"

#include <sys/resource.h>

namespace cli
{

namespace
{

rlim_t g_usual; /* before the limit was raised; 0: it was not */

}  // namespace

uint64_t most_descriptors()
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_max;
}

void raise_descriptor_limit()
{
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
        return;
    const rlim_t usual = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0)
        g_usual = usual;
}

std::string usual_descriptors() { return g_usual ? "ulimit -S -n " + std::to_string(uint64_t{g_usual}) + "\n" : ""; }

}  // namespace cli
