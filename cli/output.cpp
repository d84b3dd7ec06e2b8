#include "output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace cli
{

namespace
{

constexpr int kStopGraceMs = 200; /* how long a reader that does not read can hold up the end */

// After a signal: false when the command is to stop and the reader does not take anything.
bool may_go_on(int fd, const std::function<bool()> &stop)
{
    if (!stop())
        return true;
    struct pollfd p = {fd, POLLOUT, 0};
    return poll(&p, 1, kStopGraceMs) > 0;
}

}  // namespace

Output::~Output()
{
    if (owned_ && fd_ >= 0)
        close(fd_);
}

bool Output::open(const std::string &path, std::string &error)
{
    if (path.empty()) {
        fd_ = STDOUT_FILENO;
        const int flags = fcntl(fd_, F_GETFL);
        if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY)
            error = "stdout is closed: use -o FILE";
        return error.empty();
    }
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0666);
    owned_ = fd_ >= 0;
    if (fd_ < 0)
        error = "cannot write to " + path + ": " + strerror(errno);
    return owned_;
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

// A terminal or pipe that another program has made non-blocking is waited for.
bool Output::flush(const std::function<bool()> &stop)
{
    std::string_view rest = buffer_;
    while (!rest.empty()) {
        const ssize_t n = write(fd_, rest.data(), rest.size());
        if (n >= 0) {
            rest.remove_prefix(static_cast<size_t>(n));
        } else if (errno == EAGAIN) {
            struct pollfd p = {fd_, POLLOUT, 0};
            poll(&p, 1, kStopGraceMs);
        } else if (errno != EINTR) {
            return fail(errno);
        }
        if (!rest.empty() && !may_go_on(fd_, stop))
            break;
    }
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

}  // namespace cli
