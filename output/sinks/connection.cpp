#include "connection.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace output
{

namespace
{

// How much there was; -1: nothing yet, or the end with errno 0, or an error.
ssize_t take(int fd)
{
    char bytes[4096];
    ssize_t all = 0, n;
    while ((n = recv(fd, bytes, sizeof bytes, MSG_DONTWAIT)) > 0)
        all += n;
    if (n == 0)
        errno = 0;
    return all > 0 ? all : -1;
}

}  // namespace

Connection::~Connection()
{
    shutdown(fd_.get(), SHUT_WR);
    take(fd_.get());
}

ssize_t Connection::write(std::string_view bytes, short &awaited)
{
    awaited = POLLOUT;
    return send(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

size_t Connection::unread() const
{
    int bytes = 0;
    return ioctl(fd_.get(), SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<size_t>(bytes) : 0;
}

bool Connection::hear(std::string &why)
{
    if (take(fd_.get()) >= 0 || errno == EAGAIN || errno == EINTR)
        return true;
    why = errno == 0 ? "" : strerror(errno);
    return false;
}

}  // namespace output
