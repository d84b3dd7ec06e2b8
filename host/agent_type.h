/*
 * agent_type.h: whether the agent runs on a host or in a container that sees its host's files.
 */
#ifndef HOST_AGENT_TYPE_H
#define HOST_AGENT_TYPE_H

#include <string>

/* -1 on a host. In a container: 0, and its type ("docker", "podman", "kubernetes", "lxc", "container"), as far as it
 * fits, terminated, in `buf` of `size` bytes. FMON_AGENT_TYPE=host, =container or =container:TYPE settles it. */
extern "C" int GetAgentType(char *buf, int size);

namespace host
{

/* The type of container, empty on a host. `root` goes before every path that is looked at ("" for the machine's own);
 * `forced` is the environment's word or null; one that is not understood counts for nothing. Throws std::bad_alloc. */
std::string container_type(const std::string &root, const char *forced);

}  // namespace host

#endif
