/*
 * tree.h: temporary directory trees and the machine's abilities.
 */
#ifndef TESTLIB_TREE_H
#define TESTLIB_TREE_H

#include <string>
#include <vector>

namespace testlib
{

/* A fresh directory, its real path without links, removed with everything in it at the end. */
class TempTree
{
public:
    TempTree();
    ~TempTree();
    TempTree(const TempTree &) = delete;
    TempTree &operator=(const TempTree &) = delete;
    const std::string &root() const { return root_; }
    std::string path(const std::string &below) const; /* root/below */
    std::string dir(const std::string &below);        /* mkdir -p; returns the path */
    std::string file(const std::string &below, const std::string &content = "");
    std::string link(const std::string &below, const std::string &target); /* symbolic */
    void remove(const std::string &below);                                 /* rm -rf */

private:
    std::string root_;
};

int open_fds(); /* descriptors open in this process */
std::vector<int> open_fd_list();

/* Skips the test with the reason when the ability is missing, and then CTest shows its program as skipped (see
 * main.cpp); in CI (environment CI set) fails instead. Use as: NEED(can_fanotify(), "fanotify needs root"). */
bool is_root();
bool can_fanotify();
bool can_mount(); /* in a mount namespace of its own */
#define NEED(condition, reason)                             \
    do {                                                    \
        if (!(condition)) {                                 \
            if (getenv("CI"))                               \
                FAIL() << "cannot run in CI: " << (reason); \
            GTEST_SKIP() << (reason);                       \
        }                                                   \
    } while (0)

}  // namespace testlib

#endif
