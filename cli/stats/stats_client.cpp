#include "stats_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/descriptors.h"
#include "agent/dump_protocol.h"
#include "agent/escape.h"
#include "agent/time_format.h"
#include "common/fd.h"

namespace cli
{

namespace
{

constexpr size_t kMost = 16 << 20; /* bytes of an answer */
constexpr char kRequest[] = "stats\n";

std::string connect_error(const std::string &path, int error_number)
{
    const std::string socket = agent::escaped(path);
    switch (error_number) {
        case ENOENT:
            return "no service listens at " + socket + ": start it (fmon run), or name its socket with --socket";
        case ECONNREFUSED:
            return "the service that listened at " + socket + " has ended";
        case EACCES:
            return socket + " belongs to another user: only root may ask";
        case EPERM:
            return "what listens at " + socket + " is neither root's nor yours: it is not asked";
        case ENAMETOOLONG:
            return socket + " is too long for a socket's path";
        default:
            return "cannot ask " + socket + ": " + agent::reason_text(error_number);
    }
}

bool is_trusted(int fd)
{
    const uid_t owner = agent::peer_of(fd).uid;
    return owner == 0 || owner == geteuid();
}

/* 0, or an errno. */
int connect_to(const std::string &path, common::Fd &out)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return ENAMETOOLONG;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    out.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!out || connect(out.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) != 0)
        return errno;
    return is_trusted(out.get()) ? 0 : EPERM;
}

/* Up to the end of the line. False: the other side closed before, sent more than a service does, or took too long. */
bool receive_line(int fd, uint64_t until, std::string &out)
{
    char chunk[65536];
    for (uint64_t now = agent::steady_ms(); now < until && out.size() < kMost; now = agent::steady_ms()) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(until - now)) <= 0)
            continue;
        const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return false;
        out.append(chunk, static_cast<size_t>(n));
        const size_t end = out.find('\n');
        if (end == std::string::npos)
            continue;
        out.resize(end);
        return true;
    }
    return false;
}

}  // namespace

bool ask_service(const std::string &path, uint64_t patience_ms, std::string &answer, std::string &error)
{
    common::Fd socket;
    const int code = connect_to(path, socket);
    if (code != 0) {
        error = connect_error(path, code);
        return false;
    }
    answer.clear();
    const size_t size = sizeof kRequest - 1;
    if (send(socket.get(), kRequest, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size) ||
        !receive_line(socket.get(), agent::steady_ms() + patience_ms, answer))
        error = "the service at " + agent::escaped(path) + " does not answer: it may be stopped, or ending";
    return error.empty();
}

}  // namespace cli
