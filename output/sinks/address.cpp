#include "address.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace output
{

namespace
{

constexpr uint64_t kConnectMs = 10'000;
constexpr unsigned kSilentMs = 30'000; /* what was sent must be acknowledged within */

struct FreeAddresses {
    void operator()(struct addrinfo *list) const { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<struct addrinfo, FreeAddresses>;

Addresses look_up(const Address &address, int type, std::string &error)
{
    struct addrinfo hints = {}, *list = nullptr;
    hints.ai_socktype = type;
    hints.ai_flags = AI_ADDRCONFIG;
    const int failed = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &list);
    if (failed)
        error =
            "no address of " + address.host + ": " + (failed == EAI_SYSTEM ? strerror(errno) : gai_strerror(failed));
    return Addresses(failed ? nullptr : list);
}

// A far side that is gone without a word is noticed, whether something is being sent or not.
void notice_silence(int fd)
{
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kSilentMs, sizeof kSilentMs);
}

// 0 or an errno.
int finish_connect(int fd, const Patience &patience)
{
    if (!patience.wait(fd, POLLOUT, kConnectMs))
        return ETIMEDOUT;
    int failed = 0;
    socklen_t size = sizeof failed;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &failed, &size) == 0 ? failed : errno;
}

common::Fd connect_one(const struct addrinfo &one, const Patience &patience, int &failed)
{
    common::Fd fd(socket(one.ai_family, one.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, one.ai_protocol));
    failed = fd && connect(fd.get(), one.ai_addr, one.ai_addrlen) == 0 ? 0 : errno;
    if (failed == EINPROGRESS)
        failed = finish_connect(fd.get(), patience);
    if (failed)
        fd.reset();
    else if (one.ai_socktype == SOCK_STREAM)
        notice_silence(fd.get());
    return fd;
}

}  // namespace

bool parse_address(const std::string &text, const char *port, Address &address)
{
    const size_t bracket = text.starts_with('[') ? text.find(']') : std::string::npos;
    const size_t colon = text.find(':', bracket == std::string::npos ? 0 : bracket);
    address.host = bracket == std::string::npos ? text.substr(0, colon) : text.substr(1, bracket - 1);
    address.port = colon == std::string::npos ? port : text.substr(colon + 1);
    const bool is_closed =
        bracket == std::string::npos || bracket + 1 == (colon == std::string::npos ? text.size() : colon);
    const bool has_port = address.port.find_first_not_of("0123456789") == std::string::npos && address.port.size() < 6;
    return is_closed && has_port && !address.host.empty() && !address.port.empty() && !text.starts_with("[]");
}

common::Fd connect_to(const Address &address, int type, const Patience &patience, std::string &error)
{
    const Addresses all = look_up(address, type, error);
    int failed = 0;
    for (const struct addrinfo *one = all.get(); one; one = one->ai_next)
        if (common::Fd fd = connect_one(*one, patience, failed))
            return fd;
    if (all)
        error = "cannot connect to " + address.text() + ": " + strerror(failed);
    return common::Fd();
}

common::Fd connect_to_path(const std::string &path, int type, std::string &error)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    common::Fd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd && connect(fd.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0)
        return fd;
    error = "cannot connect to " + path + ": " + strerror(errno);
    return common::Fd();
}

}  // namespace output
