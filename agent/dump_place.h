/*
 * dump_place.h: the directory in which watches have their sockets, one for each user, which nobody else can enter.
 */
#ifndef AGENT_DUMP_PLACE_H
#define AGENT_DUMP_PLACE_H

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "common/fd.h"

namespace agent
{

/* /run/fmon for root, $XDG_RUNTIME_DIR for others; empty: that one is not set, and the user's watches have no socket.
 */
std::string dump_directory();

std::string socket_name(pid_t pid);                            /* "fmon-12.socket" */
pid_t pid_of_name(std::string_view name);                      /* 0: no such name */
std::vector<pid_t> pids_in_directory(const std::string &path); /* by the names of the files in it */

/* The directory itself, for names below it, and whose it is. Null, with errno: it is not there, a link, or (EPERM) not
 * a directory that nobody but its owner can enter. */
common::Fd open_private_directory(const std::string &path, uid_t &owner);

/* Makes it first where it is missing; the caller's own. */
common::Fd make_private_directory(const std::string &path);

/* A socket that listens under the name of this process. What processes that are gone left behind is removed. Null:
 * there is none to be had, or another listens under that name already. */
common::Fd listen_in(const std::string &path, int backlog);

/* 0 and `out` connected, or an errno: ENOENT and ECONNREFUSED nobody listens, EACCES the directory is another user's,
 * EPERM what listens is not that process, or not the user's whose directory it is. */
int connect_in(const std::string &path, pid_t pid, common::Fd &out);

}  // namespace agent

#endif
