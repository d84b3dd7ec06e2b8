#include "config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "agent/paths.h"
#include "common/fd.h"

namespace cli
{

namespace
{

constexpr size_t kMostBytes = 4 << 20;

bool refuse(const std::string &path, const std::string &why, std::string &error)
{
    error = path + ": " + why;
    return false;
}

bool is_trusted(uid_t user) { return user == 0 || user == geteuid(); }

bool check_one(const std::string &path, std::string &error)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return refuse(path, strerror(errno), error);
    const bool is_directory = S_ISDIR(st.st_mode);
    if (!is_trusted(st.st_uid))
        return refuse(path, "it belongs to user " + std::to_string(st.st_uid) + ": chown it to root", error);
    const bool is_safe = (st.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (is_directory && (st.st_mode & S_ISVTX));
    return is_safe || refuse(path, "others may write to it: chmod go-w", error);
}

bool read_all(int fd, std::string &text)
{
    char block[16384];
    ssize_t n;
    while ((n = read(fd, block, sizeof block)) > 0 && text.size() <= kMostBytes)
        text.append(block, static_cast<size_t>(n));
    return n >= 0;
}

}  // namespace

bool is_ours_alone(const std::string &path, std::string &error)
{
    for (std::string part = path;; part = agent::parent_of(part)) {
        if (!check_one(part, error))
            return false;
        if (part == "/")
            return true;
    }
}

bool read_config_file(const std::string &path, std::string &text, std::string &error)
{
    char *const real = realpath(path.c_str(), nullptr);
    if (!real)
        return refuse(path, errno == ENOENT ? "there is no such file: name one with --config FILE" : strerror(errno),
                      error);
    const std::string found = real;
    free(real);
    if (!is_ours_alone(found, error))
        return false;
    const common::Fd fd(open(found.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0)
        return refuse(path, strerror(errno), error);
    if (!S_ISREG(st.st_mode))
        return refuse(path, "it is no file", error);
    text.clear();
    if (!read_all(fd.get(), text))
        return refuse(path, strerror(errno), error);
    return text.size() <= kMostBytes || refuse(path, "it is longer than 4 MiB", error);
}

}  // namespace cli
