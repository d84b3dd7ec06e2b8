#include "linux/event_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "event.h"
#include "linux/inode_index.h"
#include "linux/probe/clt_file.h"

namespace
{

/* A file may be renamed between the reading of its path and the look at what is there. */
enum { ATTEMPTS = 3 };

constexpr int kPathMax = DCACHE_PATH_MAX - 1;

bool has_links(int fd, struct stat *st) { return fstat(fd, st) == 0 && st->st_nlink != 0; }

/* Whether the kernel's mark for a removed name ends the path; it also ends the name of a file that is called so. */
bool looks_removed(const char *path)
{
    constexpr char kMark[] = " (deleted)";
    constexpr size_t kLength = sizeof(kMark) - 1;
    const size_t length = strlen(path);
    return length >= kLength && memcmp(path + length - kLength, kMark, kLength) == 0;
}

uint32_t latest_dir = FMON_DIR_UNKNOWN;

/* What the kernel says. */
enum event_path read_path(int fd, struct stat *st, char *path)
{
    char link[sizeof("/proc/self/fd/-2147483648")];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    if (fd < 0 || !has_links(fd, st))
        return EVENT_PATH_NONE;
    latest_dir = S_ISDIR(st->st_mode) ? FMON_DIR_YES : FMON_DIR_NO;
    const ssize_t length = readlink(link, path, kPathMax);
    if (length < 0)
        return EVENT_PATH_NONE;
    path[length] = '\0';
    if (length == kPathMax)
        return EVENT_PATH_CUT;
    /* The last link may have gone since it was looked for. */
    return looks_removed(path) && !has_links(fd, st) ? EVENT_PATH_NONE : EVENT_PATH_WHOLE;
}

bool is_at(const char *path, const struct stat &file)
{
    struct stat found;
    return lstat(path, &found) == 0 && found.st_dev == file.st_dev && found.st_ino == file.st_ino;
}

/* ---- other names ---- */

/* The file's path as one of the dentries that stand for an inode, or as the entry `name` of it, has it. */
bool name_by_inode(const struct stat &inode, const char *name, const struct stat &file, char *path)
{
    struct dentry *found = inode_index_find(inode.st_dev, inode.st_ino);
    if (!found)
        return false;
    for (struct dentry *d = inode_index_first(found); d; d = inode_index_next(d)) {
        const char *candidate = _dentry_path(d, name);
        if (!candidate || !is_at(candidate, file))
            continue;
        memmove(path, candidate, strlen(candidate) + 1);
        return true;
    }
    return false;
}

/* The same by the directory that the path names below `root`. */
bool name_by_parent(const char *root, const struct stat &file, char *path)
{
    const char *slash = strrchr(path, '/');
    if (!slash)
        return false;
    char directory[sizeof("/proc/-2147483648/root/") + DCACHE_PATH_MAX];
    snprintf(directory, sizeof(directory), "%s%.*s/", root, static_cast<int>(slash - path), path);
    struct stat parent;
    return stat(directory, &parent) == 0 && name_by_inode(parent, slash + 1, file, path);
}

/* The file's path in the namespace of the process that caused the event, where that still runs. */
bool name_by_process(uint32_t pid, const struct stat &file, char *path)
{
    char root[sizeof("/proc/-2147483648/root")];
    snprintf(root, sizeof(root), "/proc/%d/root", static_cast<int>(pid));
    return pid != 0 && name_by_parent(root, file, path);
}

/* Whether the name that was removed was one of this namespace: its directory is on the event's mount. */
bool removed_here(int fd, const char *path)
{
    const char *slash = strrchr(path, '/');
    if (!slash || !looks_removed(path))
        return false;
    char directory[DCACHE_PATH_MAX + 1];
    snprintf(directory, sizeof(directory), "%.*s/", static_cast<int>(slash - path), path);
    const int parent = open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (parent < 0)
        return false;
    char here[16] = {}, there[16] = {};
    event_mount_id(parent, here);
    event_mount_id(fd, there);
    close(parent);
    return here[0] != '\0' && strcmp(here, there) == 0;
}

}  // namespace

uint32_t event_path_dir(void) { return latest_dir; }

enum event_path event_path_find(int fd, uint32_t pid, bool marked, char *path)
{
    struct stat file = {};
    for (int attempt = 0; attempt < ATTEMPTS; attempt++) {
        const enum event_path found = read_path(fd, &file, path);
        /* Inside a container the path is that of the event's mount, and translated by it. */
        if (found != EVENT_PATH_WHOLE || !fmon.hardened || g_container_flag)
            return found;
        if (!is_at(path, file))
            continue;
        /* Another name of something that is watched: a hard link, or a mount elsewhere. */
        if (marked && !event_path_is_watched(&fmon, path) && !name_by_inode(file, nullptr, file, path))
            name_by_parent("", file, path);
        return EVENT_PATH_WHOLE;
    }
    if (name_by_inode(file, nullptr, file, path) || name_by_process(pid, file, path) || removed_here(fd, path))
        return EVENT_PATH_WHOLE;
    return EVENT_PATH_OTHER;
}
