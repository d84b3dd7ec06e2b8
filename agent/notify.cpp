#include "notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace agent
{

namespace
{

std::string take_variable(const char *name)
{
    const char *value = secure_getenv(name);
    std::string text = value ? value : "";
    unsetenv(name);
    return text;
}

// No line of ours may end a status early.
std::string one_line(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

}  // namespace

Notify::Notify() : address_(take_variable("NOTIFY_SOCKET"))
{
    const std::string pid = take_variable("WATCHDOG_PID"), us = take_variable("WATCHDOG_USEC");
    if (address_.size() >= sizeof(sockaddr_un::sun_path) || (!address_.empty() && !strchr("/@", address_[0])))
        address_.clear();
    if (address_.empty())
        return;
    socket_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (pid.empty() || strtoull(pid.c_str(), nullptr, 10) == static_cast<uint64_t>(getpid()))
        watchdog_ms_ = strtoull(us.c_str(), nullptr, 10) / 1000;
}

// A manager that does not read must not hold the service up: then nothing is sent.
void Notify::send(const std::string &text)
{
    if (!socket_)
        return;
    struct sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    memcpy(to.sun_path, address_.data(), address_.size());
    if (to.sun_path[0] == '@')
        to.sun_path[0] = '\0';
    const socklen_t size = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + address_.size());
    sendto(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const struct sockaddr *>(&to), size);
}

void Notify::status(const std::string &status)
{
    if (status == told_)
        return;
    told_ = status;
    send("STATUS=" + one_line(status));
}

void Notify::reloading()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t us = static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(us));
}

}  // namespace agent
