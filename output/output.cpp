#include "output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "agent/descriptors.h"

namespace output
{

namespace
{

constexpr int kLookMs = 200; /* how often a reader that is not waited for by the kernel is looked at */

// Before the end: whether the reader takes something in the time that it still has.
bool may_go_on(int fd, int patience)
{
    struct pollfd p = {fd, POLLOUT, 0};
    int ready = 0;
    if (patience > 0)
        ready = poll(&p, 1, patience);
    return patience < 0 || ready != 0;  // interrupted: asked again
}

bool cannot_write(const std::string &path, int error_number, std::string &error)
{
    error = "cannot write to " + path + ": " + agent::reason_text(error_number);
    return false;
}

}  // namespace

Output::~Output()
{
    if (owned_ && fd_ >= 0)
        close(fd_);
}

// A user who may not write the file, or not make it in its directory, hears so before anything is done.
bool Output::check(const std::string &path, std::string &error)
{
    if (path.empty()) {
        const int flags = fcntl(STDOUT_FILENO, F_GETFL);
        if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY)
            error = "stdout is closed: use -o FILE";
        return error.empty();
    }
    struct stat st;
    if (stat(path.c_str(), &st) == 0)
        return (!S_ISDIR(st.st_mode) && faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0) ||
               cannot_write(path, S_ISDIR(st.st_mode) ? EISDIR : errno, error);
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    const bool may_make =
        errno == ENOENT && path.back() != '/' &&
        faccessat(AT_FDCWD, directory.empty() ? "." : directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
    return may_make || cannot_write(path, errno, error);
}

bool Output::open(const std::string &path, bool append, std::string &error)
{
    if (path.empty()) {
        fd_ = STDOUT_FILENO;
        return true;
    }
    const int how = append ? O_APPEND : O_TRUNC;
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | how | O_CLOEXEC | O_NOCTTY, 0666);
    owned_ = fd_ >= 0;
    return owned_ || cannot_write(path, errno, error);
}

bool Output::is_terminal() const { return isatty(fd_) == 1; }

std::string Output::file_path() const
{
    struct stat st;
    if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode))
        return {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd_);
    char target[4096];
    const ssize_t n = readlink(link.c_str(), target, sizeof target);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

bool Output::is_empty() const
{
    struct stat st;
    return fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0;
}

// A terminal or pipe that another program has made non-blocking is waited for.
bool Output::flush(const Patience &patience)
{
    std::string_view rest = buffer_;
    while (!rest.empty() && !gave_up_) {
        const ssize_t n = write(fd_, rest.data(), rest.size());
        if (n >= 0) {
            rest.remove_prefix(static_cast<size_t>(n));
        } else if (errno == EAGAIN) {
            struct pollfd p = {fd_, POLLOUT, 0};
            poll(&p, 1, kLookMs);
        } else if (errno != EINTR) {
            return fail(errno);
        }
        gave_up_ = !rest.empty() && !may_go_on(fd_, patience(n > 0));
    }
    given_up_ += static_cast<uint64_t>(std::count(rest.begin(), rest.end(), end_));
    buffer_.clear();
    return true;
}

bool Output::fail(int error_number)
{
    buffer_.clear();
    closed_ = error_number == EPIPE;
    if (!closed_)
        error_ = std::string("cannot write the output: ") + strerror(error_number);
    return false;
}

}  // namespace output
