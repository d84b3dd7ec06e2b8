#include "marks.h"

#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstring>

#include "groups.h"
#include "log.h"

namespace kprobe
{

namespace
{

// The control files of probes are nobody's business, see fanotify_marks.h.
bool is_tracefs(const char *path)
{
    struct statfs fs;
    return statfs(path, &fs) == 0 && (fs.f_type == TRACEFS_MAGIC || fs.f_type == DEBUGFS_MAGIC);
}

// Whether a path is on that device, and not hidden below another mount.
bool is_on(const char *path, uint32_t device)
{
    struct stat st;
    return lstat(path, &st) == 0 && (major(st.st_dev) << 20 | minor(st.st_dev)) == device;
}

}  // namespace

void Marks::remove()
{
    show_inotify(inotify_.get());
    inotify_.reset();
}

void Marks::place(const std::set<uint32_t> &devices, const MountMap &mounts)
{
    if (!inotify_) {
        inotify_.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        hide_inotify(inotify_.get());
    }
    for (const uint32_t device : devices) {
        const char *point = mounts.point_of(device);
        if (!point || is_tracefs(point))
            continue;
        // st_dev of some file systems differs from their device: then only the watch itself can be tried.
        if (!is_on(point, device))
            KP_LOG(3, "mount %s is hidden or has devices of its own", point);
        if (inotify_add_watch(inotify_.get(), point, IN_MOVE_SELF | IN_DONT_FOLLOW | IN_ONLYDIR) < 0)
            KP_LOG(2, "closes on mount %s cannot be seen: %s", point, strerror(errno));
    }
}

}  // namespace kprobe
