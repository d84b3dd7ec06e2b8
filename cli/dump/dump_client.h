/*
 * dump_client.h: finds the running watches and asks one of them.
 */
#ifndef CLI_DUMP_CLIENT_H
#define CLI_DUMP_CLIENT_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "agent/dump_protocol.h"

namespace cli
{

/* A process that seems to be a watch, and the directory in which it listens. */
struct Listener {
    pid_t pid = 0;
    std::string directory;

    bool operator==(const Listener &) const = default;
    bool operator<(const Listener &other) const
    {
        return pid != other.pid ? pid < other.pid : directory < other.directory;
    }
};

/* By the names of the kernel's table of sockets, and of what is in this user's own directory, in order. Anybody can
 * choose such a name: is_watch() says which is a watch. */
std::vector<Listener> listeners(const char *table = "/proc/net/unix");

/* Whether the process itself listens under its name, and this user may ask it. */
bool is_watch(const Listener &listener);

/* The processes of those that this user may ask, once each. */
std::vector<pid_t> running_watches(const std::vector<Listener> &all = listeners());

/* "fmon watch -r /etc": the command line of a process, safe for a terminal. */
std::string command_line(pid_t pid);

/* False: `error` is one line for the user. At most kMaxAnswer bytes, and some, are taken in. */
bool ask_watch(pid_t pid, const agent::DumpRequest &request, agent::DumpAnswer &answer, std::string &error);

}  // namespace cli

#endif
