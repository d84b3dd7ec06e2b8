/*
 * container_world.h: a made-up /proc, and the files that engines leave on a disk, for tests and benchmarks of the
 * container library.
 */
#ifndef TESTLIB_CONTAINER_WORLD_H
#define TESTLIB_CONTAINER_WORLD_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace testlib
{

std::string made_id(unsigned number); /* 64 hexadecimal digits */

/* Files below a directory of the caller's. */
class ContainerWorld
{
public:
    explicit ContainerWorld(std::string root) : root_(std::move(root)) {}

    struct Process {
        int pid;
        uint64_t space;            /* its mount namespace; 0: it may not be seen */
        std::string cgroup;        /* the control group's path, or the whole file where it holds a newline */
        std::vector<int> mounts{}; /* their ids */
        uint64_t start = 0;        /* 0: the process id */
        std::string name = "task";
    };
    void add(const Process &process) const; /* replaces one of the same id */
    void remove(int pid) const;
    void write(const std::string &path, const std::string &text) const; /* below the root, with its directories */

    /* A directory that a user other than root owns; the user. */
    uint32_t make_users_directory(const std::string &path) const;

    std::string proc() const { return root_ + "/proc"; }
    const std::string &root() const { return root_; }

private:
    std::string root_;
};

/* The library's clock goes on by that much. */
void pass_time(std::chrono::milliseconds time);

/* One line as the kernel writes it. */
std::string mount_line(int id, const std::string &place = "/");

}  // namespace testlib

#endif
