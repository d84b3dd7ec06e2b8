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
#include "agent/time_format.h"
#include "config_file.h"

namespace cli
{

namespace
{

constexpr int kBacklog = 8;
constexpr uint64_t kPauseMs = 500; /* after an asker who could not be taken */
constexpr size_t kLongestRequest = 8192;
constexpr std::string_view kHostV4 = "127.0.0.1:", kHostV6 = "[::1]:";

bool address_of(const std::string &path, struct sockaddr_un &address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    memcpy(address.sun_path, path.c_str(), path.size());
    return true;
}

// Of an exchange with one asker, that comes and goes by bytes.
class Patience
{
public:
    /* False: the time is up before that can be done. */
    bool wait_for(int fd, short events) const
    {
        const uint64_t now = agent::steady_ms();
        struct pollfd poll_fd = {fd, events, 0};
        return now < end_ && poll(&poll_fd, 1, static_cast<int>(end_ - now)) > 0;
    }

private:
    const uint64_t end_ = agent::steady_ms() + StatusServer::kPatienceMs;
};

common::Fd local_socket() { return common::Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

// Somebody listens there.
bool is_alive(const common::Fd &probe, const struct sockaddr_un &address)
{
    return connect(probe.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0;
}

// What comes before the end of a request.
std::string receive(int fd, const char *end)
{
    const Patience patience;
    std::string request;
    char block[1024];
    while (request.find(end) == std::string::npos && request.size() < kLongestRequest &&
           patience.wait_for(fd, POLLIN)) {
        const ssize_t n = recv(fd, block, sizeof block, 0);
        if (n <= 0)
            break;
        request.append(block, static_cast<size_t>(n));
    }
    return request.substr(0, request.find(end));
}

void send_all(int fd, std::string_view text)
{
    const Patience patience;
    while (!text.empty() && patience.wait_for(fd, POLLOUT)) {
        const ssize_t n = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (n <= 0)
            return;
        text.remove_prefix(static_cast<size_t>(n));
    }
}

/* ---- HTTP ---- */

std::string message(const std::string &status, const std::string &headers, const std::string &body)
{
    return "HTTP/1.0 " + status + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

std::string refusal(const std::string &status, const std::string &headers = "")
{
    return message(status, headers + "Content-Type: text/plain\r\n", status + "\n");
}

// A request begins with "METHOD TARGET HTTP/VERSION".
std::string http_answer(const std::string &request, const std::function<std::string()> &text)
{
    const std::string line = request.substr(0, request.find_first_of("\r\n"));
    const size_t method_end = line.find(' '), target_end = line.find(' ', method_end + 1);
    if (method_end == std::string::npos || target_end == std::string::npos ||
        line.compare(target_end + 1, 5, "HTTP/") != 0)
        return refusal("400 Bad Request");
    const std::string method = line.substr(0, method_end);
    const std::string target = line.substr(method_end + 1, target_end - method_end - 1);
    if (target.substr(0, target.find('?')) != "/metrics")
        return refusal("404 Not Found");
    if (method != "GET" && method != "HEAD")
        return refusal("405 Method Not Allowed", "Allow: GET, HEAD\r\n");
    const std::string answer = message("200 OK", "Content-Type: text/plain; version=0.0.4\r\n", text());
    return method == "GET" ? answer : answer.substr(0, answer.find("\r\n\r\n") + 4);
}

/* ---- addresses ---- */

struct Address {
    struct sockaddr_storage at = {};
    socklen_t size = 0;
};

Address loopback(bool v6, uint16_t port)
{
    struct sockaddr_in v4_at = {};
    v4_at.sin_family = AF_INET;
    v4_at.sin_port = htons(port);
    v4_at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    struct sockaddr_in6 v6_at = {};
    v6_at.sin6_family = AF_INET6;
    v6_at.sin6_port = htons(port);
    v6_at.sin6_addr = in6addr_loopback;
    Address address;
    address.size = v6 ? sizeof v6_at : sizeof v4_at;
    memcpy(&address.at, v6 ? static_cast<const void *>(&v6_at) : &v4_at, address.size);
    return address;
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
    const char *const end = address.data() + address.size();
    for (const std::string_view host : {kHostV4, kHostV6}) {
        uint16_t port = 0;
        if (address.starts_with(host) && std::from_chars(address.data() + host.size(), end, port).ptr == end)
            return port;
    }
    return 0;
}

bool StatusServer::start(const std::string &address, std::string &error)
{
    const uint16_t port = loopback_port(address);
    if (port == 0)
        return start_local(address, error);
    const bool v6 = address.starts_with(kHostV6);
    const Address to = loopback(v6, port);
    const int on = 1;
    socket_.reset(socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket_)
        setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return begin(&to.at, to.size) || refuse(address, error);
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
    const common::Fd probe = local_socket();
    if (probe && is_alive(probe, address)) {
        error = path + ": another service answers there: is it running already?";
        return false;
    }
    if (probe)
        unlink(path.c_str());
    socket_ = probe ? local_socket() : common::Fd();
    const mode_t before = umask(0177);
    const bool listens = begin(&address, sizeof address);
    umask(before);
    if (!listens)
        return refuse(path, error);
    path_ = path;
    return true;
}

bool StatusServer::begin(const void *address, socklen_t size) const
{
    return socket_ && bind(socket_.get(), static_cast<const struct sockaddr *>(address), size) == 0 &&
           ::listen(socket_.get(), kBacklog) == 0;
}

bool StatusServer::refuse(const std::string &address, std::string &error)
{
    error = "cannot listen at " + address + ": " + strerror(errno);
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

int StatusServer::fd() const { return agent::steady_ms() < deaf_until_ ? -1 : socket_.get(); }

// Whom no descriptor is left for still waits: without a pause the service would do nothing but try again.
common::Fd StatusServer::take_asker()
{
    common::Fd asker(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!asker)
        deaf_until_ = agent::steady_ms() + kPauseMs;
    return asker;
}

void StatusServer::serve(const std::function<std::string(const std::string &request)> &answer)
{
    if (const common::Fd asker = take_asker())
        send_all(asker.get(), answer(receive(asker.get(), "\n")) + "\n");
}

void StatusServer::serve_http(const std::function<std::string()> &text)
{
    const common::Fd asker = take_asker();
    if (!asker)
        return;
    send_all(asker.get(), http_answer(receive(asker.get(), "\r\n\r\n"), text));
    shutdown(asker.get(), SHUT_WR);
}

}  // namespace cli
