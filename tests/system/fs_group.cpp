#include "fs_group.h"

#include <sched.h>
#include <sys/fanotify.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace systest
{

namespace
{

constexpr unsigned kInit = FAN_CLASS_NOTIF | 0x200 /* FID */ | 0x400 /* DIR_FID */ | 0x800 /* NAME */ |
                           0x1000 /* TARGET_FID */ | FAN_NONBLOCK | FAN_CLOEXEC | FAN_UNLIMITED_QUEUE;

constexpr unsigned kMarkFileSystem = FAN_MARK_ADD | 0x100;

bool shell(const std::string &command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }

bool mount_own(const std::string &type, const std::string &below)
{
    static const bool own =
        unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!own)
        return false;
    if (type == "tmpfs")
        return mount("none", below.c_str(), "tmpfs", 0, nullptr) == 0;
    const std::string image = below + ".img";
    return shell("truncate -s 64M " + image + " && mkfs." + type + " -q " + image + " && mount -o loop " + image + " " +
                 below);
}

}  // namespace

struct FsGroupWorld {
    static FsGroup &of(void *arg) { return *static_cast<FsGroup *>(arg); }

    static int open_mount(void *arg, const int32_t *, unsigned n)
    {
        FsGroup &group = of(arg);
        if (n >= group.mounts.size())
            return -1;
        const int opened = open(group.mounts[n].c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (opened >= 0)
            group.open_mounts_.push_back(opened);
        return opened;
    }

    static bool read_more(void *arg, struct fs_chunk *out)
    {
        std::string bytes;
        char part[65536];
        ssize_t got;
        while ((got = read(of(arg).fd, part, sizeof(part))) > 0)
            bytes.append(part, static_cast<size_t>(got));
        char *copy = static_cast<char *>(malloc(bytes.size() + 1));
        memcpy(copy, bytes.data(), bytes.size());
        *out = {copy, bytes.size(), true};
        if (bytes.empty())
            free(copy);
        return true;
    }

    static void done(void *, const struct fs_chunk *chunk) { free(const_cast<char *>(chunk->bytes)); }

    static void deliver(void *arg, const struct fs_event *event)
    {
        of(arg).told.push_back({event->kinds, event->path, event->pid, event->delete_first});
    }

    static void lost(void *arg, enum fs_loss kind, uint64_t count) { of(arg).lost[kind] += count; }

    static void displaced(void *arg, uint64_t id) { of(arg).displaced.push_back(id); }
};

bool can_hear_file_systems()
{
    const int fd = fanotify_init(kInit, O_RDONLY);
    if (fd >= 0)
        close(fd);
    return fd >= 0;
}

OwnFileSystem::OwnFileSystem(const std::string &type) : mounted_(mount_own(type, tree_.dir("m"))) {}

OwnFileSystem::~OwnFileSystem()
{
    if (mounted_)
        umount2(path().c_str(), MNT_DETACH);
}

std::string OwnFileSystem::path(const std::string &below) const
{
    return tree_.path("m") + (below.empty() ? "" : "/" + below);
}

FsGroup::FsGroup(const std::string &mount, uint64_t mask, uint32_t limit, int own_pid)
    : fd(fanotify_init(kInit, O_RDONLY)), mounts{mount}, buffer_(1 << 20)
{
    fanotify_mark(fd, kMarkFileSystem, mask, AT_FDCWD, mount.c_str());
    const struct fs_world world = {this,
                                   FsGroupWorld::open_mount,
                                   FsGroupWorld::read_more,
                                   FsGroupWorld::done,
                                   FsGroupWorld::deliver,
                                   FsGroupWorld::lost,
                                   FsGroupWorld::displaced,
                                   nullptr,
                                   nullptr,
                                   0,
                                   nullptr,
                                   true};
    engine = fs_engine_new(limit, own_pid, &world);
}

FsGroup::~FsGroup()
{
    fs_engine_free(engine);
    close(fd);
}

int FsGroup::anchor(const std::string &path, uint64_t id, bool recursive)
{
    const int opened = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct fs_stored_key key;
    int code = -1;
    if (opened >= 0 && fs_ask_key(opened, &key, nullptr, nullptr) == 0) {
        const struct fs_anchor anchor = {key.key, path.c_str(), id, opened, recursive};
        code = fs_engine_add(engine, &anchor);
    }
    close(opened);
    return code;
}

bool FsGroup::take_some(size_t most)
{
    const ssize_t got = read(fd, buffer_.data(), most);
    bool more = fs_engine_take(engine, buffer_.data(), got > 0 ? static_cast<size_t>(got) : 0, got <= 0);
    while (more)
        more = fs_engine_take(engine, nullptr, 0, false);
    for (const int opened : open_mounts_)
        close(opened);
    open_mounts_.clear();
    return got > 0;
}

void FsGroup::take()
{
    while (take_some(buffer_.size()))
        ;
}

struct fs_counts FsGroup::counts() const
{
    struct fs_counts counts;
    fs_engine_counts(engine, &counts);
    return counts;
}

}  // namespace systest
