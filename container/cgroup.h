/*
 * cgroup.h: the containers that a process is in, as the names of its control groups say.
 */
#ifndef CONTAINER_CGROUP_H
#define CONTAINER_CGROUP_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace container
{

/* Ids of containers in each other, the outermost first; empty: none. */
using Chain = std::vector<std::string>;

/* 64 hexadecimal digits: what every engine gives, and a name that is safe in a path. */
bool is_id(std::string_view text);

/* As a container is reported: its id, and where a user other than root may have made its group "ID@UID". */
std::string label_of(std::string_view id, uint32_t owner);
bool is_label(std::string_view text);
constexpr size_t kMaxLabel = 64 + 1 + 10; /* bytes */

/* The id that one name in a control group's path stands for, empty if none. */
std::string_view id_of_name(std::string_view name);

/* The containers that a control group's path leads through. Only the outermost is the host's word: whoever may make
 * groups inside a container chooses the names there. */
Chain chain_of_path(std::string_view path);

/* A process's control group in the first hierarchy that names a container; empty: in none. */
struct Group {
    std::string hierarchy; /* the controllers, as its directory is called; empty: version 2 */
    std::string path;
    Chain chain;
    std::vector<size_t> ends; /* where in `path` the name of each of `chain` ends */

    /* The group that is called like the container: two containers are the same where these are. */
    std::string place(size_t i) const { return path.substr(0, ends[i]); }
};

/* A text of /proc/PID/cgroup. */
Group parse_cgroup(std::string_view text);

/* The user who may have made the outermost container's group, whatever its name claims: who runs the manager
 * ("user@1000.service") that it lies below, or the first owner other than root of the groups on the way to it. 0: root
 * did. `files` is the directory of the host's files. A group that is not in sight counts as root's. */
uint32_t maker_of(const Group &group, const std::string &files);

}  // namespace container

#endif
