#include "dump_place.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "dump_protocol.h"

namespace agent
{

namespace
{

constexpr char kOfRoot[] = "/run/fmon";
constexpr std::string_view kStart = "fmon-", kEnd = ".socket";

// False: it does not fit.
bool fill(struct sockaddr_un &address, const std::string &path)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    memcpy(address.sun_path, path.data(), path.size());
    return true;
}

std::string by_descriptor(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

common::Fd make_socket() { return common::Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

bool bind_to(int fd, const struct sockaddr_un &address)
{
    return bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0;
}

// Removes what nobody listens on any more. Process numbers do not tell: others may number theirs by themselves.
void sweep(const std::string &path, int directory)
{
    for (const pid_t pid : pids_in_directory(path)) {
        common::Fd socket;
        if (connect_in(path, pid, socket) == ECONNREFUSED)
            unlinkat(directory, socket_name(pid).c_str(), 0);
    }
}

// The directory's owner is who may have put it there.
int check_peer(int fd, pid_t pid, uid_t owner)
{
    const Peer peer = peer_of(fd);
    const bool trusted = geteuid() == 0 || peer.uid == 0 || peer.uid == geteuid();
    return peer.pid == pid && peer.uid == owner && trusted ? 0 : EPERM;
}

}  // namespace

std::string dump_directory()
{
    if (geteuid() == 0)
        return kOfRoot;
    const char *directory = secure_getenv("XDG_RUNTIME_DIR");
    return directory && directory[0] == '/' ? directory : "";
}

std::string socket_name(pid_t pid) { return std::string(kStart) + std::to_string(pid) + std::string(kEnd); }

pid_t pid_of_name(std::string_view name)
{
    pid_t pid = 0;
    if (name.starts_with(kStart))
        std::from_chars(name.data() + kStart.size(), name.data() + name.size(), pid);
    return pid > 0 && name == socket_name(pid) ? pid : 0;
}

std::vector<pid_t> pids_in_directory(const std::string &path)
{
    std::vector<pid_t> pids;
    const common::Dir list(opendir(path.c_str()));
    while (const struct dirent *entry = list ? readdir(list.get()) : nullptr)
        if (const pid_t pid = pid_of_name(entry->d_name))
            pids.push_back(pid);
    return pids;
}

common::Fd open_private_directory(const std::string &path, uid_t &owner)
{
    common::Fd directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!directory || fstat(directory.get(), &st) != 0)
        return common::Fd();
    owner = st.st_uid;
    if ((st.st_mode & 077) == 0)
        return directory;
    errno = EPERM;
    return common::Fd();
}

common::Fd make_private_directory(const std::string &path)
{
    uid_t owner;
    mkdir(path.c_str(), 0700);  // whether it is there now shows when it is opened
    common::Fd directory = open_private_directory(path, owner);
    return directory && owner == geteuid() ? std::move(directory) : common::Fd();
}

// The address is the path as people know it, unless that does not fit.
common::Fd listen_in(const std::string &path, int backlog)
{
    const common::Fd directory = make_private_directory(path);
    common::Fd listener = make_socket();
    if (!directory || !listener)
        return common::Fd();
    sweep(path, directory.get());
    const std::string name = socket_name(getpid());
    struct sockaddr_un address;
    if (!fill(address, path + "/" + name))
        fill(address, by_descriptor(directory.get()) + "/" + name);
    return bind_to(listener.get(), address) && listen(listener.get(), backlog) == 0 ? std::move(listener)
                                                                                    : common::Fd();
}

// Each step by descriptor: no link is followed, and what was looked at is what is connected to.
int connect_in(const std::string &path, pid_t pid, common::Fd &out)
{
    uid_t owner;
    const common::Fd directory = open_private_directory(path, owner);
    const common::Fd file(directory ? openat(directory.get(), socket_name(pid).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)
                                    : -1);
    if (!file)
        return errno;
    struct sockaddr_un address;
    fill(address, by_descriptor(file.get()));
    out = make_socket();
    if (!out || connect(out.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0)
        return errno;
    return check_peer(out.get(), pid, owner);
}

}  // namespace agent
