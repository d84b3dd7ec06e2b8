/*
 * Fanotify marks that stayed behind: on directories that left the watched tree, whose path is not known any more. Each
 * pins an inode and counts against the user's limit.
 *
 * A hardened monitor finds them by what the kernel lists of its descriptor: a mark on an inode that no dentry stands
 * for is nobody's, and the file handle that is listed with it opens the directory wherever it is. Where handles cannot
 * be had (a file system without them, no right to use them) the marks stay until the limit is reached; then all are
 * flushed and those that should be are placed anew. Evictable marks would go by themselves, but also from a live
 * directory that only fanotify watches, when memory is short.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "linux/fmon_linux.h"
#include "linux/inode_index.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

enum { MAX_ROOTS = 16, LINES_PER_MS = 20, MIN_WAIT_MS = 1000 };

/* One directory of each file system that a watch lies on: handles are opened with respect to it. */
struct roots {
    int fd[MAX_ROOTS];
    dev_t dev[MAX_ROOTS];
    int count;
};

/* A line of the kernel's list. */
struct listed_mark {
    uint64_t dev, ino;
    union {
        struct file_handle handle;
        char room[sizeof(struct file_handle) + MAX_HANDLE_SZ];
    };
};

bool has_root(const struct roots *roots, dev_t dev)
{
    for (int i = 0; i < roots->count; i++)
        if (roots->dev[i] == dev)
            return true;
    return false;
}

/* Not O_PATH: the kernel takes no such descriptor for this. */
void add_root(struct roots *roots, const struct watch *w)
{
    char dir[DCACHE_PATH_MAX];
    int length = snprintf(dir, sizeof(dir), "%s", w->path);
    if (roots->count == MAX_ROOTS || length >= DCACHE_PATH_MAX)
        return;
    char *slash = strrchr(dir, '/');
    if ((w->flags & FMON_FILE) && slash)
        slash[slash == dir ? 1 : 0] = '\0';
    struct stat st;
    if (lstat(dir, &st) != 0 || has_root(roots, st.st_dev))
        return;
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return;
    roots->fd[roots->count] = fd;
    roots->dev[roots->count++] = st.st_dev;
}

void open_roots(struct roots *roots)
{
    roots->count = 0;
    for (int id = 0; id < FMON_MAX_INSTANCES; id++) {
        if (!(fmon.inst_mask & instance_bit(id)))
            continue;
        FMON_LIST_EACH (node, &fmon.instances[id].watches) {
            const struct watch *w = FMON_RECORD(node, struct watch, inst_link);
            if (w->dentry && !(w->flags & FMON_MOUNT))
                add_root(roots, w);
        }
    }
}

void close_roots(struct roots *roots)
{
    for (int i = 0; i < roots->count; i++)
        close(roots->fd[i]);
}

bool parse_handle(const char *hex, struct listed_mark *mark)
{
    char *bytes = mark->room + offsetof(struct file_handle, f_handle);
    for (unsigned i = 0; i < mark->handle.handle_bytes; i++) {
        unsigned byte;
        if (sscanf(hex + size_t{2} * i, "%2x", &byte) != 1)
            return false;
        bytes[i] = static_cast<char>(byte);
    }
    return true;
}

/* False: a line of another kind, or without a handle. */
bool parse_mark(const char *line, struct listed_mark *mark)
{
    unsigned long long ino;
    unsigned dev, bytes, type;
    int at = 0;
    if (sscanf(line,
               "fanotify ino:%llx sdev:%x mflags:%*x mask:%*x ignored_mask:%*x fhandle-bytes:%x fhandle-type:%x "
               "f_handle:%n",
               &ino, &dev, &bytes, &type, &at) != 4 ||
        at == 0 || bytes > MAX_HANDLE_SZ)
        return false;
    mark->dev = gnu_dev_makedev(dev >> 20, dev & 0xfffffu); /* the kernel's form */
    mark->ino = ino;
    mark->handle.handle_bytes = bytes;
    mark->handle.handle_type = static_cast<int>(type);
    return parse_handle(line + at, mark);
}

/* The root of the mark's own file system first; one whose devices stat reports otherwise (btrfs) is found by trying. */
int open_mark(const struct roots *roots, struct listed_mark *mark)
{
    for (int exact = 1; exact >= 0; exact--)
        for (int i = 0; i < roots->count; i++) {
            if ((roots->dev[i] == mark->dev) != (exact != 0))
                continue;
            int fd = open_by_handle_at(roots->fd[i], &mark->handle, O_PATH | O_CLOEXEC);
            if (fd >= 0)
                return fd;
        }
    return -1;
}

enum class Swept { kKept, kRemoved, kOutOfReach };

/* What was opened is looked up once more: only stat's own numbers are those of the index. */
Swept sweep_mark(const struct roots *roots, struct listed_mark *mark)
{
    if (inode_index_find(mark->dev, mark->ino))
        return Swept::kKept;
    int fd = open_mark(roots, mark);
    if (fd < 0)
        return Swept::kOutOfReach;
    struct stat st;
    Swept result = Swept::kOutOfReach;
    if (fstatat(fd, "", &st, AT_EMPTY_PATH) == 0) {
        if (inode_index_find(st.st_dev, st.st_ino))
            result = Swept::kKept;
        else if (fmon_linux_take_mark(fd, S_ISDIR(st.st_mode) ? FMON_DIR : FMON_FILE) >= 0)
            result = Swept::kRemoved;
    }
    close(fd);
    return result;
}

/* Removes the marks that are nobody's and within reach; how many. */
uint64_t sweep(void)
{
    char name[sizeof("/proc/self/fdinfo/-2147483648")];
    snprintf(name, sizeof(name), "/proc/self/fdinfo/%d", fmlnx.fan_fd[FAN_FD_FILE]);
    FILE *list = fopen(name, "re");
    if (!list)
        return 0;
    struct roots roots;
    open_roots(&roots);
    char line[DCACHE_PATH_MAX];
    uint64_t lines = 0, removed = 0, left = 0;
    for (struct listed_mark mark; fgets(line, sizeof(line), list); lines++) {
        Swept swept = parse_mark(line, &mark) ? sweep_mark(&roots, &mark) : Swept::kKept;
        removed += swept == Swept::kRemoved;
        left += swept == Swept::kOutOfReach;
    }
    close_roots(&roots);
    fclose(list);
    FMON_LOG(3, kFile, "fanotify marks of directories that left: %llu removed, %llu stay\n",
             static_cast<unsigned long long>(removed), static_cast<unsigned long long>(left));
    fmlnx.stale_marks = fmlnx.marks_out_of_reach = left;
    fmlnx.sweep_wait = MIN_WAIT_MS + static_cast<uint32_t>(lines / LINES_PER_MS);
    return removed;
}

/* Between the two steps events go by unseen. */
void flush_and_place(void)
{
    FMON_LOG(2, kFile, "too many fanotify marks: all are placed anew\n");
    fanotify_flush(fmlnx.fan_fd[FAN_FD_FILE]);
    fmlnx.stale_marks = fmlnx.marks_out_of_reach = 0;
    fmlnx.fan_overflow++;
    fmlnx.read_status |= READ_FANOTIFY_OVERFLOW;
    fmon_linux_place_marks_anew();
}

}  // namespace

void fmon_linux_sweep_marks(uint32_t now_ms)
{
    if (!fmlnx.by_descriptor || fmlnx.stale_marks <= fmlnx.marks_out_of_reach)
        return;
    if (fmlnx.sweep_wait != 0 && now_ms - fmlnx.last_sweep < fmlnx.sweep_wait)
        return;
    sweep();
    fmlnx.last_sweep = now_ms;
}

int fmon_linux_make_room_for_marks(void)
{
    if (!fmlnx.by_descriptor || fmlnx.stale_marks == 0 || fmlnx.making_room)
        return 0;
    fmlnx.making_room = 1;
    if (sweep() == 0 && fmlnx.stale_marks > 0)
        flush_and_place();
    fmlnx.making_room = 0;
    return 1;
}
