#include "hotplug.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>

namespace kprobe
{

namespace
{

constexpr uint32_t kKernelsOwn = 1;  // the group that the kernel speaks to

}  // namespace

int parse_cpu_message(std::string_view message)
{
    constexpr std::string_view kPath = "line@/devices/system/cpu/cpu";  // of "online" and "offline"
    message = message.substr(0, message.find('\0'));
    const size_t at = message.find(kPath);
    if (at == std::string_view::npos || (message.substr(0, at) != "on" && message.substr(0, at) != "off"))
        return -1;
    const std::string_view number = message.substr(at + kPath.size());
    int cpu = -1;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), cpu);
    return error == std::errc() && end == number.data() + number.size() ? cpu : -1;
}

bool Hotplug::open()
{
    socket_.reset(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = kKernelsOwn;
    if (socket_ && bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0)
        socket_.reset();
    return static_cast<bool>(socket_);
}

bool Hotplug::take(std::set<int> &cpus)
{
    bool changed = false;
    for (;;) {
        char message[4096];
        sockaddr_nl from = {};
        socklen_t length = sizeof(from);
        const ssize_t got = recvfrom(socket_.get(), message, sizeof(message), MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr *>(&from), &length);
        if (got < 0 && errno == ENOBUFS) {  // some were thrown away
            changed = true;
            continue;
        }
        if (got < 0)
            return changed;
        const int cpu = from.nl_pid == 0 ? parse_cpu_message({message, static_cast<size_t>(got)}) : -1;
        if (cpu < 0)
            continue;
        cpus.insert(cpu);
        changed = true;
    }
}

}  // namespace kprobe
