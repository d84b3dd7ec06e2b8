/*
 * The walk on disk. It keeps one open stream per level, each at its read position, so that a tree is read in one pass
 * and costs a descriptor and a small block per level. The path of a directory is built anew when it is opened: the
 * tree may have moved meanwhile, and then the open fails, or gives another directory than the entry that was read, and
 * the subtree is skipped.
 */
#include "linux/dcache_iterate.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/dcache_iterate.c";

/* A level above the current one; its stream stays open at its read position. */
struct saved_frame {
    list_head link;
    struct dcache_iterate_frame frame;
};

/* Whether the stream that `path` gave is that of the pending entry. A link, or another directory that has the name or
 * is on the way by now, would lead the walk out of the tree. The entry is looked up where it was read, below a
 * directory that was looked at in the same way; the start by its path, unless that is the host's, seen from a
 * container. */
bool is_pending_entry(const struct dcache_iterate *it, const char *path, DIR *dir)
{
    const bool start = !it->cur.dir;
    if (start && g_container_flag)
        return true;
    struct stat entry, opened;
    const int parent = start ? AT_FDCWD : dirfd(it->cur.dir);
    const char *name = start ? path : dentry_name(it->pending.d);
    return fstat(dirfd(dir), &opened) == 0 && fstatat(parent, name, &entry, AT_SYMLINK_NOFOLLOW) == 0 &&
           entry.st_dev == opened.st_dev && entry.st_ino == opened.st_ino;
}

/* Makes the pending directory the current one. On failure the current one stays, and the pending one is as it was. */
int open_level(struct dcache_iterate *it)
{
    const char *path = dentry_path_null(it->pending.d);
    if (!path) {
        FMON_LOG(1, kFile, "path is NULL\n");
        account_refused(FMON_LEFT_TOO_LONG, FMON_STEP_READ, FMON_LINUX_EPATH, 0, nullptr);
        return -1;
    }
    DIR *dir = opendir(path);
    if (!dir) {
        const int error = errno; /* before the log can change it */
        FMON_LOG(1, kFile, "open dir %s failed: %s\n", path, strerror(error));
        account_system_refused(FMON_STEP_READ, FMON_ENOENT, error, path);
        return -1;
    }
    if (!is_pending_entry(it, path, dir)) {
        FMON_LOG(2, kFile, "%s is another directory now, skipped\n", path);
        account_refused(FMON_LEFT_GONE, FMON_STEP_READ, FMON_ENOENT, 0, path);
        closedir(dir);
        return -1;
    }
    it->cur = it->pending; /* dentry, depth and block */
    it->cur.dir = dir;
    it->pending.d = nullptr;
    return 0;
}

/* Enters the pending directory. Where that fails its subtree is skipped, and not tried again. */
void descend(struct dcache_iterate *it)
{
    struct saved_frame *saved = static_cast<struct saved_frame *>(malloc(sizeof(struct saved_frame)));
    if (!saved) {
        FMON_LOG(1, kFile, "malloc iterate failed: %s\n", strerror(errno));
        account_refused(FMON_LEFT_OTHER, FMON_STEP_MEMORY, FMON_ENOMEM, ENOMEM, dentry_path_null(it->pending.d));
        it->pending.d = nullptr;
        return;
    }
    saved->frame = it->cur;
    if (open_level(it) < 0) {
        free(saved);
        it->pending.d = nullptr;
        return;
    }
    list_add(&saved->link, &it->stack);
}

/* Closes the current level and goes on in the one above. False: there is none. */
bool pop(struct dcache_iterate *it)
{
    closedir(it->cur.dir);
    it->cur.dir = nullptr;
    if (list_empty(&it->stack))
        return false;
    struct saved_frame *saved = FMON_RECORD(it->stack.next, struct saved_frame, link);
    it->cur = saved->frame;
    list_unlink(&saved->link);
    free(saved);
    return true;
}

/* For file systems whose streams do not hold types. Links are not followed, as a type would say "link". */
bool is_directory_on_disk(struct dentry *parent, const char *name)
{
    const char *path = _dentry_path(parent, name);
    struct stat st;
    return path && lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_subdirectory(struct dentry *parent, const struct dirent *entry)
{
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
        return false;
    if (entry->d_type == DT_UNKNOWN)
        return is_directory_on_disk(parent, entry->d_name);
    return entry->d_type == DT_DIR;
}

/* Caches the entry and makes it pending. Null: not a directory, or no room for it. */
struct dentry *take_entry(struct dcache_iterate *it, const struct dirent *entry)
{
    if (!is_subdirectory(it->cur.d, entry))
        return nullptr;
    struct dentry *d = dcache_add_sub(it->cache, it->cur.d, entry->d_name);
    if (!d) {
        FMON_LOG(1, kFile, "iterate add dentry failed\n");
        account_attempt();
        account_refused(FMON_LEFT_CACHE_FULL, FMON_STEP_CACHE, FMON_ENOMEM, 0, _dentry_path(it->cur.d, entry->d_name));
        return nullptr;
    }
    it->pending = {}; /* its block is zero until the caller writes it */
    it->pending.d = d;
    it->pending.depth = checked_add(it->cur.depth, 1);
    return d;
}

}  // namespace

int dcache_iterate_start(struct dcache *cache, struct dentry *start, struct dcache_iterate *it, int32_t max_depth,
                         int32_t max_subdirs, const void *data)
{
    *it = {};
    list_init(&it->stack);
    it->cache = cache;
    it->max_depth = max_depth;
    it->max_subdirs = max_subdirs;
    it->pending.d = start;
    if (open_level(it) < 0)
        return -1;
    memcpy(it->cur.data, data, sizeof(it->cur.data));
    return 0;
}

struct dentry *dcache_iterate_next(struct dcache_iterate *it)
{
    /* The count stays 0, so this ends a walk only where max_subdirs is negative; clients rely on no other limit. */
    if (it->max_subdirs != 0 && it->subdir_count >= it->max_subdirs)
        return nullptr;
    if (!it->cur.dir) /* over */
        return nullptr;
    /* Before the next sibling is read: whatever is below the directory returned last comes first. */
    if (it->pending.d && (it->max_depth == 0 || it->pending.depth < it->max_depth))
        descend(it);
    do {
        while (const struct dirent *entry = readdir(it->cur.dir))
            if (struct dentry *d = take_entry(it, entry))
                return d;
    } while (pop(it));
    return nullptr;
}

void dcache_iterate_stop(struct dcache_iterate *it)
{
    while (it->cur.dir && pop(it))
        ;
}
