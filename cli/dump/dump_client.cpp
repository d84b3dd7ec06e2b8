#include "dump_client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

#include "agent/dump_place.h"
#include "agent/escape.h"
#include "agent/time_format.h"

namespace cli
{

namespace
{

constexpr uint64_t kPatienceMs = 10000; /* beyond the hold: another asker may be served first */

// "/run/fmon/fmon-12.socket": the name may hold any byte. The flags say that it listens.
Listener listener_of_line(std::string_view line)
{
    constexpr std::string_view kListens = " 00010000 ";
    const size_t path = line.find(" /"), slash = line.rfind('/');
    if (path == std::string_view::npos || line.substr(0, path + 1).find(kListens) == std::string_view::npos)
        return {};
    return {agent::pid_of_name(line.substr(slash + 1)), std::string(line.substr(path + 1, slash - path - 1))};
}

// Connects to the process, in whichever directory. Any user may claim that process in a directory of that user: that
// ends no search. 0, or the errno of this user's own directory, or of another where nothing is there.
int connect_to(pid_t pid, common::Fd &socket)
{
    const std::string own = agent::dump_directory();
    int error = own.empty() ? ENOENT : agent::connect_in(own, pid, socket);
    for (const Listener &listener : error ? listeners() : std::vector<Listener>()) {
        if (listener.pid != pid)
            continue;
        const int other = agent::connect_in(listener.directory, pid, socket);
        if (other == 0 || error == ENOENT)
            error = other;
        if (error == 0)
            break;
    }
    return error;
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
        case EACCES:
            return process + " belongs to another user: only root may ask it";
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

// Everything until the other side closes, or has sent more than a watch does. False: it did neither within the time.
bool receive_all(int fd, uint64_t patience_ms, std::string &out)
{
    constexpr size_t kMost = agent::kMaxAnswer + (1 << 10); /* the records that end it come on top */
    const uint64_t until = agent::steady_ms() + patience_ms;
    std::string chunk(256 << 10, '\0');
    for (uint64_t now = agent::steady_ms(); now < until; now = agent::steady_ms()) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(until - now)) <= 0)
            continue;
        const ssize_t n = recv(fd, chunk.data(), std::min(chunk.size(), kMost + 1 - out.size()), 0);
        if (n <= 0)
            return true;
        out.append(chunk, 0, static_cast<size_t>(n));
        if (out.size() > kMost)
            return true;
    }
    return false;
}

}  // namespace

std::vector<Listener> listeners(const char *table)
{
    std::vector<Listener> all;
    std::ifstream in(table);
    for (std::string line; std::getline(in, line);)
        if (Listener listener = listener_of_line(line); listener.pid != 0)
            all.push_back(std::move(listener));
    const std::string own = agent::dump_directory();
    for (const pid_t pid : own.empty() ? std::vector<pid_t>() : agent::pids_in_directory(own))
        all.push_back({pid, own});
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
}

bool is_watch(const Listener &listener)
{
    common::Fd socket;
    return agent::connect_in(listener.directory, listener.pid, socket) == 0 &&
           (geteuid() == 0 || agent::peer_of(socket.get()).uid == geteuid());
}

std::vector<pid_t> running_watches(const std::vector<Listener> &all)
{
    std::vector<pid_t> pids;
    for (const Listener &listener : all)
        if (std::find(pids.begin(), pids.end(), listener.pid) == pids.end() && is_watch(listener))
            pids.push_back(listener.pid);
    return pids;
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
    agent::append_safe(text, safe);
    return safe;
}

bool ask_watch(pid_t pid, const agent::DumpRequest &request, agent::DumpAnswer &answer, std::string &error)
{
    const std::string process = "process " + std::to_string(pid);
    common::Fd socket;
    const int code = connect_to(pid, socket);
    if (code != 0) {
        error = connect_error(pid, code);
        return false;
    }
    std::string records;
    // One that refuses answers and closes without having read the request, so what it says counts first.
    const bool sent = send_request(socket.get(), format_request(request));
    const bool ended = receive_all(socket.get(), request.hold_ms + kPatienceMs, records);
    answer = agent::read_answer(records);
    if (!answer.error.empty())
        error = process + ": " + answer.error;
    else if (!ended)
        error = process + " does not answer: it may be stopped";
    else if (!sent || !answer.complete)
        error = process + " ended, or broke off, before it had told all";
    return error.empty();
}

}  // namespace cli
