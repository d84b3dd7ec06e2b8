#include "paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "common/beneath.h"

namespace agent
{

namespace
{

// Absolute, one "/" between parts, no "." parts. ".." stays: what it means depends on links.
std::string tidy(const std::string &given)
{
    std::string text = given;
    if (given[0] != '/') {
        char cwd[PATH_MAX];
        text = std::string(getcwd(cwd, sizeof cwd) ? cwd : "/") + "/" + given;
    }
    std::string out;
    std::string_view rest(text);
    while (!rest.empty()) {
        const size_t end = rest.find('/');
        const std::string_view part = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (!part.empty() && part != ".")
            out.append("/").append(part);
    }
    return out.empty() ? "/" : out;
}

bool resolve(const std::string &path, std::string &out)
{
    char *real = realpath(path.c_str(), nullptr);
    if (!real)
        return false;
    out = real;
    free(real);
    return true;
}

// The part of a path that may be looked up: all before the component with a "*".
size_t literal_length(const std::string &path)
{
    const size_t star = path.find('*');
    return star == std::string::npos ? path.size() : path.rfind('/', star);
}

bool is_itself_or_above(const char *name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

bool entry_is_dir(int dir, const struct dirent *entry)
{
    if (is_itself_or_above(entry->d_name))
        return false;
    if (entry->d_type != DT_UNKNOWN)
        return entry->d_type == DT_DIR;
    struct stat st;
    return fstatat(dir, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

// Calls fn(name) for each directory in a directory until it answers false.
void for_each_subdirectory(common::Fd directory, const std::function<bool(const char *)> &fn)
{
    const common::Dir dir = common::list_of(std::move(directory));
    if (!dir)
        return;
    while (const struct dirent *entry = readdir(dir.get()))
        if (entry_is_dir(dirfd(dir.get()), entry) && !fn(entry->d_name))
            return;
}

Identity look_up(int directory, const char *path, int flags)
{
    Identity id;
    struct statx st;
    if (statx(directory, path, flags, STATX_BASIC_STATS | STATX_MNT_ID, &st) != 0) {
        id.error = errno;
        return id;
    }
    id.mode = st.stx_mode;
    id.dev = makedev(st.stx_dev_major, st.stx_dev_minor);
    id.ino = st.stx_ino;
    id.gid = st.stx_gid;
    id.mount_id = st.stx_mask & STATX_MNT_ID ? st.stx_mnt_id : 0;
    return id;
}

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

}  // namespace

common::Fd open_directory(const std::string &path)
{
    const common::Fd top(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    return common::Fd(common::open_beneath(top.get(), path.size() > 1 ? path.substr(1) : ".", kOpenDirectory));
}

bool Identity::is_dir() const { return error == 0 && S_ISDIR(mode); }

bool Identity::is_file() const { return error == 0 && S_ISREG(mode); }

Identity identify(const std::string &path) { return look_up(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW); }

Identity identify_open(int fd) { return look_up(fd, "", AT_EMPTY_PATH); }

std::string literal_path(const std::string &given) { return tidy(given); }

std::string absolute_path(const std::string &given)
{
    std::string path = tidy(given);
    size_t length = literal_length(path);
    std::string real;
    while (length > 0 && !resolve(path.substr(0, length), real))
        length = path.rfind('/', length - 1);
    if (length == 0)
        return path;
    const std::string rest = path.substr(length);
    return real == "/" && !rest.empty() ? rest : real + rest;
}

std::string without_star(const std::string &path)
{
    const size_t star = path.find('*');
    if (star == std::string::npos)
        return path;
    const size_t slash = path.rfind('/', star);
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string parent_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

const char *kind_name(mode_t mode)
{
    if (S_ISSOCK(mode))
        return "a socket";
    if (S_ISFIFO(mode))
        return "a pipe";
    if (S_ISLNK(mode))
        return "a link that leads nowhere";
    return "a device";
}

uint64_t count_directories(const std::string &path, unsigned max_depth, uint64_t limit)
{
    const common::Fd top(open(path.c_str(), kOpenDirectory));
    std::vector<std::pair<std::string, unsigned>> open = {{".", 0}};
    uint64_t count = 0;
    while (top && !open.empty() && count < limit) {
        const auto [directory, depth] = std::move(open.back());
        open.pop_back();
        const std::string prefix = directory == "." ? "" : directory + "/";
        for_each_subdirectory(common::Fd(common::open_beneath(top.get(), directory, kOpenDirectory)),
                              [&, level = depth + 1](const char *name) {
                                  if (max_depth == 0 || level < max_depth)
                                      open.emplace_back(prefix + name, level);
                                  return ++count < limit;
                              });
    }
    return count;
}

void for_each_entry(const std::string &path, const std::function<void(const char *name, bool is_directory)> &fn)
{
    const common::Dir dir = common::list_of(open_directory(path));
    if (!dir)
        return;
    while (const struct dirent *entry = readdir(dir.get()))
        if (!is_itself_or_above(entry->d_name))
            fn(entry->d_name, entry_is_dir(dirfd(dir.get()), entry));
}

bool has_subdirectory(const std::string &path)
{
    common::Fd directory = open_directory(path);
    // Where a file system counts links of directories, two of them are the directory's own.
    struct stat st;
    if (!directory || fstat(directory.get(), &st) != 0 || st.st_nlink == 2)
        return false;
    bool found = false;
    for_each_subdirectory(std::move(directory), [&](const char *) {
        found = true;
        return false;
    });
    return found;
}

}  // namespace agent
