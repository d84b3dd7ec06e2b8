#include "linux/fs/fs_group.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>

#include "linux/descriptor.h"
#include "linux/fmon_linux.h"

namespace
{

/* Newer than some systems' headers. */
constexpr unsigned kReportDirName = 0xc00, kReportTarget = 0x1200;
constexpr uint64_t kRename = 0x10000000;
constexpr unsigned kIgnoreSurviving = 0x440, kEvictable = 0x200;

/* A kind that is never asked for: only whether its removal is accepted counts. */
constexpr uint64_t kNeverAsked = 0x1000; /* FAN_OPEN_EXEC */

constexpr uint32_t kMoves = FMON_MOVED_FROM | FMON_MOVED_TO;
constexpr uint32_t kEntries = FMON_CREATE | FMON_DELETE | kMoves;
constexpr uint32_t kContents =
    FMON_ACCESS | FMON_MODIFY | FMON_ATTRIB | FMON_CLOSE_WRITE | FMON_CLOSE_NOWRITE | FMON_OPEN;

constexpr uint64_t kOfFiles = kContents | FMON_CREATE | FMON_DELETE | FAN_EVENT_ON_CHILD;

static_assert(FAN_MODIFY == FMON_MODIFY && FAN_ATTRIB == FMON_ATTRIB && FAN_OPEN == FMON_OPEN &&
                  FAN_CREATE == FMON_CREATE && FAN_DELETE == FMON_DELETE && FAN_MOVED_TO == FMON_MOVED_TO &&
                  FAN_DELETE_SELF == FMON_DELETE_SELF && FAN_MOVE_SELF == FMON_MOVE_SELF,
              "the kinds are the kernel's bits");

/* The bits of kinds, both halves of a rename asked for as the kernel knows them. */
uint64_t bits_of(const struct fs_group *group, uint32_t kinds)
{
    if (!group->rename || !(kinds & kMoves))
        return kinds;
    return (kinds & ~kMoves) | kRename;
}

int open_group(unsigned flags)
{
    constexpr unsigned kBase = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK;
    const int fd = fanotify_call_init(kBase | flags | kReportTarget, O_RDONLY);
    return fd >= 0 || errno != EINVAL ? fd : fanotify_call_init(kBase | flags, O_RDONLY);
}

}  // namespace

int fs_group_open(struct fs_group *group, bool limited)
{
    group->rename = true;
    group->fd = descriptor_settle(open_group(kReportDirName | (limited ? 0 : unsigned{FAN_UNLIMITED_QUEUE})));
    return group->fd < 0 ? -1 : 0;
}

void fs_group_close(struct fs_group *group)
{
    if (group->fd >= 0)
        close(group->fd);
    group->fd = -1;
}

uint64_t fs_group_system_bits(const struct fs_group *group, uint32_t kinds)
{
    return bits_of(group, (kinds & kContents) | kEntries) | FAN_ONDIR;
}

uint64_t fs_group_directory_bits(const struct fs_group *group, uint32_t kinds, bool children)
{
    const uint32_t own = kinds & (children ? uint32_t{FMON_ALL_EVENTS} : FMON_DELETE_SELF | FMON_MOVE_SELF);
    if (own == 0)
        return 0;
    return bits_of(group, own) | FAN_ONDIR | (children ? uint64_t{FAN_EVENT_ON_CHILD} : 0);
}

int fs_group_mark(struct fs_group *group, int fd, bool system, uint64_t bits)
{
    const unsigned type = system ? unsigned{FAN_MARK_FILESYSTEM} : unsigned{FAN_MARK_ONLYDIR};
    if (fanotify_call_mark(group->fd, FAN_MARK_ADD | type, bits, fd) == 0)
        return 0;
    if (errno != EINVAL || !group->rename || !(bits & kRename))
        return -1;
    group->rename = false;
    return -EAGAIN;
}

int fs_group_unmark(const struct fs_group *group, int fd, bool system, uint64_t bits)
{
    const unsigned type = system ? unsigned{FAN_MARK_FILESYSTEM} : unsigned{FAN_MARK_ONLYDIR};
    return fanotify_call_mark(group->fd, FAN_MARK_REMOVE | type, bits, fd);
}

/* Renames are not among what is ignored: they tell that a directory's file, or the directory itself, went elsewhere. */
int fs_group_ignore(const struct fs_group *group, int fd)
{
    if (!group->rename) {
        errno = EINVAL;
        return -1;
    }
    return fanotify_call_mark(group->fd, FAN_MARK_ADD | FAN_MARK_ONLYDIR | kIgnoreSurviving | kEvictable, kOfFiles, fd);
}

int fs_group_heed(const struct fs_group *group, int fd)
{
    const int result =
        fanotify_call_mark(group->fd, FAN_MARK_REMOVE | FAN_MARK_ONLYDIR | kIgnoreSurviving, kOfFiles, fd);
    return result == 0 || errno == ENOENT ? 0 : -1;
}

bool fs_group_is_marked(const struct fs_group *group, int fd)
{
    return fs_group_unmark(group, fd, true, kNeverAsked) == 0 || errno != ENOENT;
}

/* A read that leaves room for any record found the queue empty at its end. To ask for EAGAIN would be a further call,
 * and has no end where somebody writes for each call of ours (a tracer, a log). */
size_t fs_group_read(const struct fs_group *group, char *buffer, size_t size, bool *drained, int *error)
{
    size_t used = 0;
    *drained = false;
    *error = 0;
    while (!*drained && size - used >= FS_GROUP_ROOM) {
        const ssize_t got = read(group->fd, buffer + used, size - used);
        if (got < 0 && errno == EINTR)
            continue;
        used += got > 0 ? static_cast<size_t>(got) : 0;
        *drained = got <= 0 || size - used >= FS_GROUP_ROOM;
        *error = got < 0 && errno != EAGAIN ? errno : 0;
    }
    return used;
}
