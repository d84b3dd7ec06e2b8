/*
 * fs_group.h: a group of its own that hears a whole file system, with the module's engine behind it: what the source
 * does between the two, without its threads, queue and ceilings. And file systems to hear: tmpfs, and ext4 on a loop
 * device, mounted in a mount namespace of the test's own.
 */
#ifndef SYSTEM_FS_GROUP_H
#define SYSTEM_FS_GROUP_H

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "linux/fs/fs_ask.h"
#include "linux/fs/fs_engine.h"
#include "testlib/tree.h"

namespace systest
{

struct Told {
    uint32_t kinds;
    std::string path;
    int pid;
    bool delete_first;
};

/* The kinds of the group's mark that are FAN_* and have no constant in older headers. */
constexpr uint64_t kRename = 0x10000000;
constexpr uint64_t kOnDir = 0x40000000;

/* Whether this kernel has whole renames and the handles of targets. */
bool can_hear_file_systems();

/* A file system of its own, mounted below a temporary directory and unmounted at the end. */
class OwnFileSystem
{
public:
    explicit OwnFileSystem(const std::string &type); /* "tmpfs", "ext4" */
    ~OwnFileSystem();
    OwnFileSystem(const OwnFileSystem &) = delete;
    OwnFileSystem &operator=(const OwnFileSystem &) = delete;
    bool mounted() const { return mounted_; }
    std::string path(const std::string &below = "") const;

private:
    testlib::TempTree tree_;
    bool mounted_;
};

class FsGroup
{
public:
    /* `mount` is a mount point; all kinds of `mask` are heard. */
    FsGroup(const std::string &mount, uint64_t mask, uint32_t limit = 65536, int own_pid = -1);
    ~FsGroup();
    FsGroup(const FsGroup &) = delete;
    FsGroup &operator=(const FsGroup &) = delete;

    int anchor(const std::string &path, uint64_t id = 1, bool recursive = true);
    bool take_some(size_t most); /* one read of at most that many bytes; false: nothing waited */
    void take();                 /* until nothing waits */
    struct fs_counts counts() const;

    int fd;
    struct fs_engine *engine;
    std::vector<Told> told;
    std::vector<uint64_t> displaced;
    std::array<uint64_t, FS_LOSSES> lost{};
    std::vector<std::string> mounts; /* what the engine may look through */

private:
    std::vector<int> open_mounts_;
    std::vector<char> buffer_;
    friend struct FsGroupWorld;
};

}  // namespace systest

#endif
