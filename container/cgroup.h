/*
 * cgroup.h: the containers that a process is in, as the names of its control groups tell.
 */
#ifndef CONTAINER_CGROUP_H
#define CONTAINER_CGROUP_H

#include <string>
#include <string_view>
#include <vector>

namespace container
{

/* Ids of containers in each other, the outermost first; empty: none. */
using Chain = std::vector<std::string>;

/* 64 hexadecimal digits: what every engine gives, and a name that is safe in a path. */
bool is_id(std::string_view text);

/* The id that one name in a control group's path stands for, empty if none. */
std::string_view id_of_name(std::string_view name);

/* The containers that a control group's path leads through. Only the outermost is the host's word: whoever may make
 * groups inside a container chooses the names there. */
Chain chain_of_path(std::string_view path);

/* The same of /proc/PID/cgroup: that of the first hierarchy that names a container. */
Chain parse_cgroup(std::string_view text);

}  // namespace container

#endif
