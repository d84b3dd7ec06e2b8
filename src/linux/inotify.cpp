#include "linux/inotify.h"

#include <sys/inotify.h>
#include <unistd.h>

#include "linux/descriptor.h"
#include "linux/probe/clt_inotify.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/inotify.c";

struct {
    int fd;
} inotify_ctx = {-1};

}  // namespace

int init_inotify(int32_t *fds)
{
    int fd = descriptor_settle(inotify_init());
    if (fd < 0)
        return -1;
    inotify_ctx.fd = fd;

    int sources = kp_inotify_init(fds);
    if (sources >= 0)
        return sources;
    FMON_LOG(2, kFile, "now we don't use kprobe!");
    fds[0] = fd;
    return 1;
}

int inotify_set(const char *path, uint32_t mask)
{
    return inotify_add_watch(inotify_ctx.fd, path, mask | IN_DONT_FOLLOW);
}

int inotify_set_opened(const char *link, uint32_t mask) { return inotify_add_watch(inotify_ctx.fd, link, mask); }

int inotify_del(int wd) { return inotify_rm_watch(inotify_ctx.fd, wd); }

void inotify_free(void)
{
    if (inotify_ctx.fd == -1)
        return;
    close(inotify_ctx.fd);
    inotify_ctx.fd = -1;
}

int inotify_descriptor(void) { return inotify_ctx.fd; }
