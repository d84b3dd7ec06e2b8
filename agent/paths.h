/*
 * paths.h: paths as people type them, made into paths as the monitor takes them.
 */
#ifndef AGENT_PATHS_H
#define AGENT_PATHS_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "common/fd.h"

namespace agent
{

/* What a path names right now. */
struct Identity {
    int error = 0; /* errno of the look-up, 0: the rest holds */
    mode_t mode = 0;
    dev_t dev = 0;
    ino_t ino = 0;
    gid_t gid = 0;         /* its group */
    uint64_t mount_id = 0; /* 0 where the kernel does not say */
    bool is_dir() const;
    bool is_file() const;
};

Identity identify(const std::string &path); /* links are not followed */
Identity identify_open(int fd);

/* The absolute path without "//", "/./" and a trailing "/", with the links of all leading parts that exist resolved,
 * so that it is the path under which events arrive. What does not exist is kept as it was written; a part with a "*"
 * and all behind it are never looked up. `given` is not empty. */
std::string absolute_path(const std::string &given);

/* The same without looking anything up: for a monitor that takes paths as they are, since it sees other file systems
 * through links, such as /proc/PID/root. */
std::string literal_path(const std::string &given);

/* A directory, open for reading, by an absolute path of which no part is a link. Empty, and errno: see open_beneath().
 */
common::Fd open_directory(const std::string &path);

/* The deepest leading part of a path that has no "*", which the monitor takes for a pattern: all that matches lies at
 * or below it. */
std::string without_star(const std::string &path);

/* Of an absolute path; "/" is its own. */
std::string parent_of(const std::string &path);

/* "a socket", "a device" ... for what is neither a directory nor a regular file. */
const char *kind_name(mode_t mode);

/* Directories below `path`, not counting itself, down to `max_depth` levels (0: all); links below it are not followed
 * and what cannot be read is not entered. Stops at `limit`. */
uint64_t count_directories(const std::string &path, unsigned max_depth, uint64_t limit);

/* Calls fn for each entry of a directory that can be read; no link of the path is followed. */
void for_each_entry(const std::string &path, const std::function<void(const char *name, bool is_directory)> &fn);

/* Whether a directory has a directory in it; no link of the path is followed. */
bool has_subdirectory(const std::string &path);

}  // namespace agent

#endif
