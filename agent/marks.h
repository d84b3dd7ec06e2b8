/*
 * marks.h: how many kernel watches exist, as /proc shows them.
 */
#ifndef AGENT_MARKS_H
#define AGENT_MARKS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace agent
{

struct Marks {
    uint64_t inotify_instances = 0;
    uint64_t inotify_watches = 0;
    uint64_t fanotify_instances = 0;
    std::vector<uint64_t> fanotify_mounts; /* ids of the mounts that are marked as a whole */
    std::set<uint32_t> fanotify_devices;   /* of files, directories and file systems that are marked */

    Marks &operator+=(const Marks &other);
};

/* Of one process ("self" or a number), below `proc` ("/proc"). What may not be read counts as nothing. */
Marks process_marks(const std::string &process, const char *proc = "/proc");

/* Of all processes of a user that may be looked at: the limits of inotify are each user's. */
Marks user_marks(uid_t uid, const char *proc = "/proc");

/* Of all processes that may be looked at, by user. */
std::map<uid_t, Marks> marks_by_user(const char *proc = "/proc");

/* A number in a file such as /proc/sys/fs/inotify/max_user_watches; 0 when it cannot be read. */
uint64_t read_number(const char *path);

}  // namespace agent

#endif
