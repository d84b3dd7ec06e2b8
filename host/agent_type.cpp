#include "agent_type.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "guard.h"

namespace host
{

namespace
{

constexpr size_t kMaxProcFile = 64 << 10; /* bytes of an environment or cgroup file that are looked at */

bool exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool is_directory(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_same_directory(const std::string &a, const std::string &b)
{
    struct stat sa, sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

/* The beginning of a file, empty where it cannot be read. */
std::string contents(const std::string &path)
{
    std::string text;
    Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    char block[4096];
    ssize_t got;
    while (fd && text.size() < kMaxProcFile && (got = read(fd.get(), block, sizeof block)) > 0)
        text.append(block, static_cast<size_t>(got));
    return text;
}

/* A variable in an environment as /proc shows it, its entries ended by NULs; empty when it is not there. */
std::string variable(const std::string &environment, std::string_view name)
{
    size_t at = 0;
    while (at < environment.size()) {
        std::string_view entry = environment.c_str() + at; /* up to its NUL */
        if (entry.size() > name.size() && entry.substr(0, name.size()) == name && entry[name.size()] == '=')
            return std::string(entry.substr(name.size() + 1));
        at += entry.size() + 1;
    }
    return {};
}

/* Marks in a text, and the type that each stands for. Specific ones first: a pod's container may also be docker's. */
struct Mark {
    const char *text;
    const char *type;
};

constexpr Mark kCgroupMarks[] = {
    {"kubepods", "kubernetes"},  {"docker", "docker"},
    {"libpod", "podman"},        {"lxc", "lxc"},
    {"containerd", "container"}, {"machine.slice/machine-", "container"},
};
constexpr Mark kVariableMarks[] = {{"docker", "docker"}, {"podman", "podman"}, {"lxc", "lxc"}, {"", "container"}};

template <size_t N>
std::string type_of(const Mark (&marks)[N], const std::string &text)
{
    if (text.empty())
        return {};
    for (const Mark &mark : marks)
        if (text.find(mark.text) != std::string::npos)
            return mark.type;
    return {};
}

bool in_pod(const std::string &root, const std::string &cgroup)
{
    return cgroup.find("kubepods") != std::string::npos ||
           !variable(contents(root + "/proc/1/environ"), "KUBERNETES_SERVICE_HOST").empty() ||
           !variable(contents(root + "/proc/self/environ"), "KUBERNETES_SERVICE_HOST").empty();
}

std::string type_by_evidence(const std::string &root)
{
    std::string cgroup = contents(root + "/proc/1/cgroup");
    if (in_pod(root, cgroup))
        return "kubernetes";
    if (exists(root + "/.dockerenv"))
        return "docker";
    if (exists(root + "/run/.containerenv"))
        return "podman";
    std::string type = type_of(kVariableMarks, variable(contents(root + "/proc/1/environ"), "container"));
    return type.empty() ? type_of(kCgroupMarks, cgroup) : type;
}

/* A container whose host is out of sight has nothing to look at below /rootfs: there the module works as on a host. */
bool sees_its_host(const std::string &root)
{
    return is_directory(root + "/rootfs/etc") && is_directory(root + "/rootfs/usr") &&
           !is_same_directory(root + "/rootfs", root + "/");
}

}  // namespace

std::string container_type(const std::string &root, const char *forced)
{
    constexpr std::string_view kContainer = "container";
    std::string_view word = forced ? forced : "";
    if (word == "host")
        return {};
    if (word == kContainer || word == "container:")
        return std::string(kContainer);
    if (word.substr(0, kContainer.size() + 1) == "container:")
        return std::string(word.substr(kContainer.size() + 1));
    return sees_its_host(root) ? type_by_evidence(root) : std::string();
}

}  // namespace host

int GetAgentType(char *buf, int size)
{
    if (!buf || size <= 0)
        return -1;
    std::string type = host::without_exceptions(
        std::string(), [] { return host::container_type({}, secure_getenv("FMON_AGENT_TYPE")); });
    if (type.empty())
        return -1;
    size_t copied = type.copy(buf, static_cast<size_t>(size) - 1);
    buf[copied] = 0;
    return 0;
}
