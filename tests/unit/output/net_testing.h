/*
 * net_testing.h: far sides of outputs, made up by a test.
 */
#ifndef UNIT_OUTPUT_NET_TESTING_H
#define UNIT_OUTPUT_NET_TESTING_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "common/fd.h"
#include "unit/output/sink_testing.h"

namespace sink_testing
{

/* Whether something can be read within the patience of a test. */
inline bool is_readable(const common::Fd &fd)
{
    struct pollfd one = {fd.get(), POLLIN, 0};
    return poll(&one, 1, static_cast<int>(kPatienceMs)) > 0;
}

/* The next datagram, or what a connection has; empty: nothing in time, or its end. */
inline std::string received(const common::Fd &fd)
{
    std::string text(1 << 17, '\0');
    const ssize_t n = is_readable(fd) ? recv(fd.get(), text.data(), text.size(), 0) : 0;
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

/* That many bytes of a connection, or those until its end. */
inline std::string received(const common::Fd &fd, size_t length)
{
    std::string text;
    for (std::string more = "more"; text.size() < length && !more.empty(); text += more)
        more = received(fd);
    return text;
}

inline common::Fd unix_datagrams(const std::string &path)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    common::Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(0, bind(fd.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address)) << strerror(errno);
    return fd;
}

/* Bound to a port of this machine alone: 0: one that is free. */
inline common::Fd bound(int type, uint16_t port = 0)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    common::Fd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    EXPECT_EQ(0, bind(fd.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address)) << strerror(errno);
    EXPECT_TRUE(type != SOCK_STREAM || listen(fd.get(), 8) == 0);
    return fd;
}

inline uint16_t port_of(const common::Fd &fd)
{
    struct sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(fd.get(), reinterpret_cast<struct sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

inline std::string url(const std::string &scheme, uint16_t port)
{
    return scheme + "://127.0.0.1:" + std::to_string(port);
}

/* Who connects next; null: nobody in time. */
inline common::Fd accepted(const common::Fd &listener)
{
    return common::Fd(is_readable(listener) ? accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
}

}  // namespace sink_testing

#endif
