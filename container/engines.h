/*
 * engines.h: what the files of the engines beside Docker, and those of the runtimes, say of a container.
 */
#ifndef CONTAINER_ENGINES_H
#define CONTAINER_ENGINES_H

#include <string>

#include "details.h"

namespace container
{

/* Each fills in what is not known yet. `root`: the host's files; `id` is_id. */
void read_storage(const Tree &root, const std::string &id, Details &out); /* podman and CRI-O */
void read_containerd(const Tree &root, const std::string &id, Details &out);
void read_runtimes(const Tree &root, const std::string &id, Details &out); /* runc and crun */

}  // namespace container

#endif
