/*
 * census.h: which mount is in which container, as one pass over /proc finds it.
 */
#ifndef CONTAINER_CENSUS_H
#define CONTAINER_CENSUS_H

#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace container
{

struct Found {
    std::string id;      /* with "@UID" where a user other than root may have made it */
    int pid = 0;         /* the first process of its first namespace */
    uint64_t start = 0;  /* when that one started */
    bool nested = false; /* inside another container, or a user's own: the host's engines do not know it */
};

struct Census {
    static constexpr uint32_t kHost = UINT32_MAX;

    std::vector<Found> containers;                 /* one row a control group that is called like a container */
    std::unordered_map<uint64_t, uint32_t> mounts; /* mount id -> row of `containers`, or kHost */

    uint32_t processes = 0, namespaces = 0;
    uint32_t hidden = 0; /* processes whose namespace may not be seen */
    uint32_t cut = 0;    /* namespaces with more mounts than are read */
    int error = 0;       /* errno: there is no /proc */
};

/* `proc`: the directory; `files`: that of the host's files, where its control groups are. Ends early, with part of the
 * result, when `stop` becomes true. */
Census take_census(const std::string &proc, const std::string &files, const std::atomic<bool> &stop);

}  // namespace container

#endif
