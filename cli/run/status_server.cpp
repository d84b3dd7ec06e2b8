#include "status_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "agent/paths.h"
#include "config_file.h"

namespace cli
{

namespace
{

constexpr int kBacklog = 8;
constexpr size_t kLongestRequest = 8192;

bool address_of(const std::string &path, struct sockaddr_un &address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    memcpy(address.sun_path, path.c_str(), path.size());
    return true;
}

bool wait_for(int fd, short events)
{
    struct pollfd poll_fd = {fd, events, 0};
    return poll(&poll_fd, 1, StatusServer::kPatienceMs) > 0;
}

// Somebody listens there.
bool is_alive(const struct sockaddr_un &address)
{
    const common::Fd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return connect(probe.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0;
}

// What comes before the end of a request.
std::string receive(int fd, const char *end)
{
    std::string request;
    char block[1024];
    while (request.find(end) == std::string::npos && request.size() < kLongestRequest && wait_for(fd, POLLIN)) {
        const ssize_t n = recv(fd, block, sizeof block, 0);
        if (n <= 0)
            break;
        request.append(block, static_cast<size_t>(n));
    }
    return request.substr(0, request.find(end));
}

void send_all(int fd, std::string_view text)
{
    while (!text.empty() && wait_for(fd, POLLOUT)) {
        const ssize_t n = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (n <= 0)
            return;
        text.remove_prefix(static_cast<size_t>(n));
    }
}

}  // namespace

bool make_own_directory(const std::string &path, std::string &error)
{
    if (path == "/")
        return true;
    if (access(path.c_str(), F_OK) != 0) {
        if (!make_own_directory(agent::parent_of(path), error))
            return false;
        if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
            error = "cannot make " + path + ": " + strerror(errno);
            return false;
        }
    }
    return is_ours_alone(path, error);
}

uint16_t loopback_port(const std::string &address)
{
    constexpr std::string_view kHost = "127.0.0.1:";
    uint16_t port = 0;
    const char *const end = address.data() + address.size();
    const bool is_one =
        address.starts_with(kHost) && std::from_chars(address.data() + kHost.size(), end, port).ptr == end;
    return is_one ? port : uint16_t{0};
}

bool StatusServer::start(const std::string &address, std::string &error)
{
    const uint16_t port = loopback_port(address);
    if (port == 0)
        return start_local(address, error);
    struct sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    socket_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(socket_.get(), reinterpret_cast<const struct sockaddr *>(&at), sizeof at) == 0 &&
        listen(socket_.get(), kBacklog) == 0)
        return true;
    error = "cannot listen at " + address + ": " + strerror(errno);
    socket_.reset();
    return false;
}

bool StatusServer::start_local(const std::string &path, std::string &error)
{
    struct sockaddr_un address;
    if (!address_of(path, address)) {
        error = path + ": the path of a socket has at most 107 bytes";
        return false;
    }
    if (!make_own_directory(agent::parent_of(path), error))
        return false;
    if (is_alive(address)) {
        error = path + ": another service answers there: is it running already?";
        return false;
    }
    unlink(path.c_str());
    socket_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t before = umask(0177);
    const bool bound = bind(socket_.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0;
    umask(before);
    if (bound && listen(socket_.get(), kBacklog) == 0) {
        path_ = path;
        return true;
    }
    error = "cannot listen at " + path + ": " + strerror(errno);
    socket_.reset();
    return false;
}

void StatusServer::stop()
{
    if (!path_.empty())
        unlink(path_.c_str());
    path_.clear();
    socket_.reset();
}

void StatusServer::serve(const std::function<std::string(const std::string &request)> &answer) const
{
    const common::Fd asker(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (asker)
        send_all(asker.get(), answer(receive(asker.get(), "\n")) + "\n");
}

void StatusServer::serve_http(const std::function<std::string()> &text) const
{
    const common::Fd asker(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!asker)
        return;
    receive(asker.get(), "\r\n\r\n");
    const std::string body = text();
    send_all(asker.get(), "HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: " +
                              std::to_string(body.size()) + "\r\n\r\n" + body);
    shutdown(asker.get(), SHUT_WR);
}

}  // namespace cli
