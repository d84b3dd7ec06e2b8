#include "dump_client.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

#include "escape.h"
#include "time_format.h"

namespace cli
{

namespace
{

constexpr uint64_t kPatienceMs = 10000; /* beyond the hold: another asker may be served first */

class Socket
{
public:
    Socket() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
    ~Socket()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd() const { return fd_; }

    /* 0, or an errno. EPERM: another process has taken the name, or this user has no business there. */
    int connect_to(pid_t pid) const
    {
        struct sockaddr_un address;
        const socklen_t size = dump_address(pid, address);
        if (fd_ < 0 || connect(fd_, reinterpret_cast<struct sockaddr *>(&address), size) != 0)
            return errno;
        const Peer peer = peer_of(fd_);
        const bool trusted = geteuid() == 0 || peer.uid == 0 || peer.uid == geteuid();
        return peer.pid == pid && trusted ? 0 : EPERM;
    }

private:
    const int fd_;
};

// One line of /proc/net/unix: the process whose name it listens under, or 0. The flags say that it listens.
pid_t pid_of_line(std::string_view line)
{
    constexpr std::string_view kName = " @fmon/", kListens = " 00010000 ";
    const size_t start = line.rfind(kName);
    if (start == std::string_view::npos || line.find(kListens) == std::string_view::npos)
        return 0;
    const std::string_view number = line.substr(start + kName.size());
    pid_t pid = 0;
    const auto [stopped, code] = std::from_chars(number.data(), number.data() + number.size(), pid);
    return code == std::errc() && stopped == number.data() + number.size() ? pid : 0;
}

bool exists(pid_t pid) { return access(("/proc/" + std::to_string(pid)).c_str(), F_OK) == 0; }

std::string connect_error(pid_t pid, int error_number)
{
    const std::string process = "process " + std::to_string(pid);
    if (!exists(pid))
        return "there is no " + process + ": fmon dump without a PID finds the one that runs";
    switch (error_number) {
        case ECONNREFUSED:
        case ENOENT:
            return process + " is no running fmon watch";
        case EPERM:
            return process + " is not what listens under its name: it is not asked";
        case EAGAIN:
            return process + " is asked by too many at once: try again";
        default:
            return "cannot ask " + process + ": " + strerror(error_number);
    }
}

bool send_request(int fd, const std::string &line)
{
    return send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
}

// Everything until the other side closes. False: it did not within the time.
bool receive_all(int fd, uint64_t patience_ms, std::string &out)
{
    const uint64_t until = steady_ms() + patience_ms;
    std::string chunk(256 << 10, '\0');
    for (uint64_t now = steady_ms(); now < until; now = steady_ms()) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(until - now)) <= 0)
            continue;
        const ssize_t n = recv(fd, chunk.data(), chunk.size(), 0);
        if (n <= 0)
            return true;
        out.append(chunk, 0, static_cast<size_t>(n));
        if (out.size() > 2 * kMaxAnswer)
            return true;
    }
    return false;
}

}  // namespace

std::vector<pid_t> listening_pids(const char *table)
{
    std::vector<pid_t> pids;
    std::ifstream in(table);
    for (std::string line; std::getline(in, line);)
        if (const pid_t pid = pid_of_line(line))
            pids.push_back(pid);
    std::sort(pids.begin(), pids.end());
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    return pids;
}

bool is_watch(pid_t pid)
{
    const Socket socket;
    return socket.connect_to(pid) == 0 && (geteuid() == 0 || peer_of(socket.fd()).uid == geteuid());
}

std::string command_line(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
    std::string text;
    std::getline(in, text, '\n');
    while (!text.empty() && text.back() == '\0')
        text.pop_back();
    std::replace(text.begin(), text.end(), '\0', ' ');
    std::string safe;
    append_safe(text, safe);
    return safe;
}

bool ask_watch(pid_t pid, const DumpRequest &request, DumpAnswer &answer, std::string &error)
{
    const std::string process = "process " + std::to_string(pid);
    const Socket socket;
    const int code = socket.connect_to(pid);
    if (code != 0) {
        error = connect_error(pid, code);
        return false;
    }
    std::string records;
    // One that refuses answers and closes without having read the request, so what it says counts first.
    const bool sent = send_request(socket.fd(), format_request(request));
    const bool ended = receive_all(socket.fd(), request.hold_ms + kPatienceMs, records);
    answer = read_answer(records);
    if (!answer.error.empty())
        error = process + ": " + answer.error;
    else if (!ended)
        error = process + " does not answer: it may be stopped";
    else if (!sent || !answer.complete)
        error = process + " ended, or broke off, before it had told all";
    return error.empty();
}

}  // namespace cli
