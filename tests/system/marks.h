/*
 * marks.h: the kernel's marks of a process, as /proc shows them, and those that it should have.
 */
#ifndef SYSTEM_MARKS_H
#define SYSTEM_MARKS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace systest
{

using Inode = std::pair<uint64_t, uint64_t>; /* device, number */

/* Kinds that an inode is marked for by either source. */
struct Kinds {
    uint32_t fanotify = 0, inotify = 0;
    bool inotify_optional = false; /* an inotify watch may be there or not */
    std::string path;              /* where known */
};

using Marks = std::map<Inode, Kinds>;

/* One watch as it was asked for. */
struct Asked {
    std::string path;
    uint32_t mask, flags;
};

Marks actual_marks(pid_t process);

/* What these watches need on the disk as it is: directories whose path the monitor can build. */
Marks expected_marks(const std::vector<Asked> &watches);

/* What is wrong, a line each: kinds that are missing, and marks on what is not watched, by their paths if these lie
 * below `root`. */
std::vector<std::string> compare_marks(const Marks &expected, const Marks &actual, const std::string &root);

size_t count_marks(const Marks &marks); /* an inode that both sources mark counts twice */

/* The directory and all below it, links not followed. */
std::vector<std::string> directories(const std::string &top);

}  // namespace systest

#endif
