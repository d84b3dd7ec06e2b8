#include "datagrams.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "stream.h"

namespace output
{

namespace
{

constexpr uint64_t kNoBufferMs = 10; /* until the kernel may have memory for another; poll() does not say */

}  // namespace

Carried DatagramTransport::carry(const Packets &packets, const Patience &patience)
{
    std::string error;
    if (!socket_)
        socket_ = connect(patience, error);
    if (!socket_)
        return {.trouble = error};
    for (size_t done = 0; done < packets.size(); done++)
        if (const int failed = send(packets[done], patience))
            return trouble(done, failed);
    return {packets.size()};
}

// 0 or an errno; EAGAIN: the far side has taken none for a second.
int DatagramTransport::send(std::string_view packet, const Patience &patience)
{
    for (bool has_waited = false;; has_waited = true) {
        if (::send(socket_.get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            return 0;
        if (errno == EMSGSIZE)
            return send_long(socket_.get(), packet);
        if (errno == EINTR)
            continue;
        if ((errno != EAGAIN && errno != ENOBUFS) || has_waited)
            return errno;
        if (errno == ENOBUFS)
            patience.wait(-1, 0, kNoBufferMs);
        else if (!patience.wait(socket_.get(), POLLOUT, kSlowMs))
            return EAGAIN;
    }
}

// That nobody listens at an address is said of a datagram that went before: that one is lost.
Carried DatagramTransport::trouble(size_t done, int failed)
{
    if (failed == EMSGSIZE) {
        say("a record was too long for a datagram to " + far_side());
        return {.done = done, .dropped = 1};
    }
    if (failed == EAGAIN || failed == ENOBUFS)
        return {.done = done, .trouble = far_side() + " takes nothing", .pause_ms = kNoBufferMs};
    int domain = 0;
    socklen_t size = sizeof domain;
    if (failed == ECONNREFUSED && getsockopt(socket_.get(), SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0)
        lose(domain != AF_UNIX);
    socket_.reset();
    return {.done = done, .trouble = "cannot send to " + far_side() + ": " + strerror(failed)};
}

}  // namespace output
