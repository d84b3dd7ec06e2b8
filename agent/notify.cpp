#include "notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "time_format.h"

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

void Notify::send(const std::string &text)
{
    if (!socket_)
        return;
    if (waiting_.size() == kMostWaiting)
        waiting_.pop_front();
    waiting_.push_back(text);
    retry();
}

void Notify::retry()
{
    while (!waiting_.empty() && try_to_send(waiting_.front()))
        waiting_.pop_front();
}

// False: a manager that does not read now must not hold the service up. One that is gone is no reason to try again.
bool Notify::try_to_send(const std::string &text) const
{
    struct sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    memcpy(to.sun_path, address_.data(), address_.size());
    if (to.sun_path[0] == '@')
        to.sun_path[0] = '\0';
    const socklen_t size = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + address_.size());
    const ssize_t n = sendto(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                             reinterpret_cast<const struct sockaddr *>(&to), size);
    return n >= 0 || (errno != EAGAIN && errno != ENOBUFS && errno != ENOMEM);
}

void Notify::extend(uint64_t ms)
{
    const uint64_t until = steady_ms() + ms;
    if (until < extended_until_ + ms / 4)
        return;
    extended_until_ = until;
    send("EXTEND_TIMEOUT_USEC=" + std::to_string(ms * 1000));
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
