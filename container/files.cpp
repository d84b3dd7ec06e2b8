#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "common/beneath.h"

namespace container
{

namespace
{

// An engine's directory: the way to it is the host's own.
int open_directory(int root, const std::string &path)
{
    const int flags = O_PATH | O_DIRECTORY;
    const int fd = common::open_resolved(root, path.c_str(), flags, RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS);
    return fd < 0 && common::lacks_openat2(errno) ? common::open_stepwise(root, path, flags) : fd;
}

// Not blocked by a pipe without a writer, and not made the owner of a terminal.
int open_file(int directory, const std::string &path)
{
    return common::open_beneath(directory, path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
}

bool is_small_file(int fd, size_t limit)
{
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0 && static_cast<uint64_t>(st.st_size) <= limit;
}

}  // namespace

bool read_all(int fd, size_t limit, std::string &out)
{
    constexpr size_t kPiece = size_t{64} * 1024;
    out.clear();
    while (true) {
        const size_t length = out.size();
        out.resize(length + kPiece);
        const ssize_t n = ::read(fd, out.data() + length, kPiece);
        out.resize(length + (n > 0 ? static_cast<size_t>(n) : 0));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n == 0;
        if (out.size() > limit)
            return false;
    }
}

Tree::Tree(const std::string &path) : directory_(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

Tree::Tree(const Tree &outer, const std::string &path) : directory_(open_directory(outer.directory_.get(), path)) {}

bool Tree::read(const std::string &path, size_t limit, std::string &out) const
{
    out.clear();
    const Fd file(open_file(directory_.get(), path));
    return file && is_small_file(file.get(), limit) && read_all(file.get(), limit, out);
}

std::vector<std::string> Tree::names(size_t limit) const
{
    std::vector<std::string> names;
    const common::Dir list = list_of(Fd(openat(directory_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    while (const struct dirent *entry = list && names.size() < limit ? readdir(list.get()) : nullptr)
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    return names;
}

}  // namespace container
