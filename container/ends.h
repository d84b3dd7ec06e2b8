/*
 * ends.h: notices the ends of containers' first processes.
 */
#ifndef CONTAINER_ENDS_H
#define CONTAINER_ENDS_H

#include <string>
#include <vector>

#include "census.h"
#include "common/fd.h"

namespace container
{

using common::Fd;

struct End {
    Fd process; /* readable when it has ended; none: it ended before */
    std::string id;
    int pid;
};

/* One row for each container, or for the first few: descriptors belong to the agent, and a quarter of them is taken at
 * most. None where the kernel has no such descriptors (before 5.3). */
std::vector<End> watch_ends(const std::vector<Found> &containers);

}  // namespace container

#endif
