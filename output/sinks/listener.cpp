#include "listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/descriptors.h"
#include "place.h"

namespace output
{

namespace
{

constexpr int kBacklog = 16;

// False: it does not fit.
bool fill(struct sockaddr_un &address, const std::string &path)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    memcpy(address.sun_path, path.data(), path.size());
    return true;
}

const struct sockaddr *general(const struct sockaddr_un &address)
{
    return reinterpret_cast<const struct sockaddr *>(&address);
}

common::Fd make_socket() { return common::Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

bool somebody_listens(const struct sockaddr_un &address)
{
    const common::Fd probe = make_socket();
    return probe && (connect(probe.get(), general(address), sizeof address) == 0 || errno == EAGAIN);
}

bool is_socket(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace

Listener::~Listener()
{
    struct stat st;
    if (fd_ && lstat(path_.c_str(), &st) == 0 && st.st_ino == inode_ && st.st_dev == device_)
        unlink(path_.c_str());
}

Listener::Opened Listener::open(const std::string &path, std::string &error)
{
    int error_number;
    struct sockaddr_un address;
    if (!fill(address, path)) {
        error = path + " is too long for a socket: " + std::to_string(sizeof address.sun_path - 1) + " bytes at most";
        return Opened::kNever;
    }
    if (!is_safe_place(path, Shared::kNever, error, error_number))
        return Opened::kNever;
    if (is_socket(path)) {
        if (somebody_listens(address)) {
            error = "another output or process listens at " + path;
            return Opened::kLater;
        }
        unlink(path.c_str());
    }
    if (bind_to(path))
        return Opened::kYes;
    error = "cannot listen at " + path + ": " + agent::reason_text(errno);
    fd_.reset();
    return errno == EMFILE || errno == ENFILE || errno == ENOSPC || errno == ENOMEM ? Opened::kLater : Opened::kNever;
}

// The file is made with the socket's mode: nobody can connect before that is set.
bool Listener::bind_to(const std::string &path)
{
    struct sockaddr_un address;
    struct stat st = {};
    fill(address, path);
    fd_ = make_socket();
    if (!fd_ || fchmod(fd_.get(), 0600) != 0 || bind(fd_.get(), general(address), sizeof address) != 0)
        return false;
    if (lstat(path.c_str(), &st) != 0 || listen(fd_.get(), kBacklog) != 0)
        return false;
    path_ = path;
    device_ = st.st_dev;
    inode_ = st.st_ino;
    return true;
}

common::Fd Listener::accept() const
{
    return common::Fd(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

}  // namespace output
