#include "directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "segment.h"

namespace output
{

namespace
{

bool say(const std::string &path, const std::string &what, std::string &error)
{
    error = "spool " + path + ": " + what;
    return false;
}

bool say_errno(const std::string &path, std::string &error) { return say(path, strerror(errno), error); }

/* A directory in which others may write, and none may take away what is another's: /tmp. */
bool is_sticky(const struct stat &st) { return st.st_mode & S_ISVTX; }

bool check_owner(const std::string &path, const struct stat &st, std::string &error)
{
    if (st.st_uid != geteuid() && st.st_uid != 0)
        return say(path,
                   "belongs to user " + std::to_string(st.st_uid) + ": it must be root's or that of who runs fmon",
                   error);
    return true;
}

/* Whoever may write into a directory above may put another in the place of what is below. */
bool check_step(int fd, const std::string &path, bool last, std::string &error)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return say_errno(path, error);
    if (!check_owner(path, st, error))
        return false;
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) && (last || !is_sticky(st)))
        return say(path, "others may write there: chmod go-w " + path, error);
    return true;
}

bool enter(common::Fd &at, const std::string &name, const std::string &path, bool last, std::string &error)
{
    if (mkdirat(at.get(), name.c_str(), 0700) != 0 && errno != EEXIST)
        return say_errno(path, error);
    common::Fd next(openat(at.get(), name.c_str(), O_DIRECTORY | O_CLOEXEC | (last ? O_RDONLY | O_NOFOLLOW : O_PATH)));
    if (!next)
        return say_errno(path, error);
    at = std::move(next);
    return check_step(at.get(), path, last, error);
}

bool walk(const std::string &path, common::Fd &at, std::string &error)
{
    for (size_t begin = 1; begin < path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        const bool last = path.find_first_not_of('/', end) == std::string::npos;
        if (end > begin && !enter(at, path.substr(begin, end - begin), path.substr(0, end), last, error))
            return false;
        begin = end + 1;
    }
    return true;
}

}  // namespace

bool open_spool_directory(const std::string &path, SpoolDirectory &out, std::string &error)
{
    if (!path.starts_with('/'))
        return say(path, "the path must begin with \"/\"", error);
    common::Fd at(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!at)
        return say_errno("/", error);
    if (!walk(path, at, error))
        return false;
    common::Fd lock(openat(at.get(), "lock", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock)
        return say_errno(path + "/lock", error);
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? say(path, "another output uses it: give each a directory of its own", error)
                                    : say_errno(path + "/lock", error);
    out = {std::move(at), std::move(lock)};
    return true;
}

int list_segments(int directory, std::vector<uint64_t> &out)
{
    const common::Dir list = common::list_of(common::Fd(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    if (!list)
        return errno;
    errno = 0;
    while (const struct dirent *entry = readdir(list.get()))
        if (const uint64_t first = first_of_name(entry->d_name); first != 0)
            out.push_back(first);
    std::sort(out.begin(), out.end());
    return errno;
}

}  // namespace output
