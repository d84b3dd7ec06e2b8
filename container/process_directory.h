/*
 * process_directory.h: one process as /proc shows it. A process may end at any moment: then all that is asked of it
 * fails.
 */
#ifndef CONTAINER_PROCESS_DIRECTORY_H
#define CONTAINER_PROCESS_DIRECTORY_H

#include <cstdint>
#include <functional>
#include <string_view>

#include "cgroup.h"

namespace container
{

/* 0 where it cannot be found out. `proc` is a descriptor of /proc's directory, here and below. */
uint64_t mount_namespace(int proc, int pid);

/* When it started, in the kernel's ticks since boot; UINT64_MAX where that cannot be found out. */
uint64_t start_time(int proc, int pid);

/* The field of a /proc/PID/stat text. */
uint64_t parse_start_time(std::string_view stat);

/* The containers that it is in. */
Group process_group(int proc, int pid);

enum class ListEnd { kWhole, kCut, kFailed };

/* Calls `take` with the number of each mount that the process sees. Reads `budget` bytes at most, and takes off what it
 * read. kCut: that did not suffice. */
ListEnd list_mounts(int proc, int pid, size_t &budget, const std::function<void(uint64_t)> &take);

/* Mount numbers in a text that comes in pieces. The kernel writes a newline in a name as "\012", so that a line's
 * beginning is the kernel's word. */
class MountNumbers
{
public:
    void feed(std::string_view piece, const std::function<void(uint64_t)> &take);

private:
    enum { kStart, kDigits, kRest } state_ = kStart;
    uint64_t number_ = 0;
};

}  // namespace container

#endif
