/*
 * beneath.h: opens what lies below a directory, and follows no link on the way, so that it is what the names say and
 * nothing that somebody has put there.
 */
#ifndef COMMON_BENEATH_H
#define COMMON_BENEATH_H

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "common/fd.h"

namespace common
{

/* A descriptor, or -1 and errno: openat2() with these flags of its own. */
inline int open_resolved(int directory, const char *path, int flags, uint64_t resolve)
{
    struct open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.resolve = resolve;
    return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how));
}

/* Kernels before 5.6, and sandboxes that refuse what they do not know. */
inline bool lacks_openat2(int error) { return error == ENOSYS || error == EPERM; }

/* The same for those: one component at a time, none of them a link or "..". */
inline int open_stepwise(int directory, std::string_view path, int flags)
{
    Fd step;
    int at = directory;
    while (true) {
        while (path.starts_with('/'))
            path.remove_prefix(1);
        const size_t slash = path.find('/');
        const std::string name(path.substr(0, slash));
        if (name == "..") {
            errno = EXDEV;
            return -1;
        }
        const bool last = slash == std::string_view::npos;
        const int wanted = last ? flags : O_PATH | O_DIRECTORY;
        Fd next(openat(at, name.empty() ? "." : name.c_str(), wanted | O_NOFOLLOW | O_CLOEXEC));
        if (last || !next)
            return next.release();
        step = std::move(next);
        at = step.get();
        path.remove_prefix(slash);
    }
}

/* `path` is relative and holds no ".."; "." is the directory itself. -1 and errno: ELOOP or ENOTDIR where a link was
 * met.
 */
inline int open_beneath(int directory, const std::string &path, int flags)
{
    const int fd = open_resolved(directory, path.c_str(), flags, RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
    return fd < 0 && lacks_openat2(errno) ? open_stepwise(directory, path, flags) : fd;
}

}  // namespace common

#endif
