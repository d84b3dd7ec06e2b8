/* The fanotify calls, found at run time: the system the module was built on need not be the one it runs on. */
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/fanotify.h>

#include <cerrno>

#include "linux/descriptor.h"
#include "linux/fmon_linux.h"

namespace
{

int (*fanotify_init_ptr)(unsigned, unsigned);
int (*fanotify_mark_ptr)(int, unsigned, uint64_t, int, const char *);

constexpr uint64_t kDirBits = FAN_ONDIR | FAN_EVENT_ON_CHILD;

unsigned place_flags(uint32_t watch_flags)
{
    unsigned follow = (watch_flags & FMON_LINUX_OPENED) ? 0 : FAN_MARK_DONT_FOLLOW;
    if (watch_flags & FMON_DIR)
        return follow | FAN_MARK_ONLYDIR;
    if (watch_flags & FMON_MOUNT)
        return follow | FAN_MARK_MOUNT;
    return follow;
}

int mark(int fd, unsigned operation, uint64_t mask, int dirfd, const char *path)
{
    if (!fanotify_mark_ptr) {
        errno = ENOSYS;
        return -1;
    }
    return fanotify_mark_ptr(fd, operation, mask, dirfd, path);
}

/* The kernel opens each event's file for the monitor while the monitor reads. Without O_NONBLOCK a reader waits until
 * the file's owner gives up a lease on it, or until somebody writes into a FIFO. */
unsigned event_descriptor_flags()
{
    /* NOLINTNEXTLINE(misc-redundant-expression): O_LARGEFILE is 0 where files are always large, as O_RDONLY is */
    return fmon.hardened ? unsigned{O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_LARGEFILE} : 0;
}

}  // namespace

int init_fanotify(void)
{
    fanotify_init_ptr = reinterpret_cast<int (*)(unsigned, unsigned)>(dlsym(RTLD_DEFAULT, "fanotify_init"));
    fanotify_mark_ptr =
        reinterpret_cast<int (*)(int, unsigned, uint64_t, int, const char *)>(dlsym(RTLD_DEFAULT, "fanotify_mark"));
    if (!fanotify_init_ptr || !fanotify_mark_ptr)
        return FMON_LINUX_ENOFAN;

    /* Notification class, read-only event descriptors. */
    int fd = descriptor_settle(fanotify_init_ptr(0, event_descriptor_flags()));
    /* The kernel says nothing of a record whose file has gone stale on its server: after the last one a reader would
     * wait for the next event, with the monitor lock held. */
    if (fmon.hardened && fd >= 0)
        fcntl(fd, F_SETFL, O_NONBLOCK);
    return fd < 0 ? FMON_LINUX_EFANINIT : fd;
}

int fanotify_call_init(unsigned flags, unsigned event_flags)
{
    if (!fanotify_init_ptr) {
        errno = ENOSYS;
        return -1;
    }
    return fanotify_init_ptr(flags, event_flags);
}

int fanotify_call_mark(int fd, unsigned operation, uint64_t mask, int dirfd)
{
    return mark(fd, operation, mask, dirfd, nullptr);
}

int fanotify_add(int fd, const char *path, uint32_t mask, uint32_t flags)
{
    uint64_t bits = mask;
    if (flags & FMON_DIR)
        bits |= kDirBits;
    return mark(fd, FAN_MARK_ADD | place_flags(flags), bits, AT_FDCWD, path);
}

int fanotify_del(int fd, const char *path, uint32_t mask, uint32_t flags)
{
    /* The two directory bits serve every kind of the mark: they go with the last one only. */
    uint64_t bits = mask;
    if ((flags & FMON_DIR) && (flags & FMON_LINUX_LAST_MARK))
        bits |= kDirBits;
    return mark(fd, FAN_MARK_REMOVE | place_flags(flags), bits, AT_FDCWD, path);
}

/* Kernels before 3.18 look the path up first. */
int fanotify_flush(int fd) { return mark(fd, FAN_MARK_FLUSH, 0, AT_FDCWD, "/"); }

int fanotify_ignore(int fd, int dirfd, uint32_t mask, int add)
{
    constexpr unsigned kAdd =
        FAN_MARK_ADD | FAN_MARK_DONT_FOLLOW | FAN_MARK_IGNORED_MASK | FAN_MARK_IGNORED_SURV_MODIFY;
    static_assert(kAdd == 0x65 && FAN_MARK_REMOVE == 0x2, "the kernel's mark operations");
    return mark(fd, add ? kAdd : FAN_MARK_REMOVE, mask, dirfd, nullptr) < 0 ? -1 : 0;
}
