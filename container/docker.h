/*
 * docker.h: what Docker's own files say of a container.
 */
#ifndef CONTAINER_DOCKER_H
#define CONTAINER_DOCKER_H

#include <string>

#include "details.h"

namespace container
{

/* Fills in what is not known yet. `root`: the host's files; `id` is_id. */
void read_docker(const Tree &root, const std::string &id, Details &out);

}  // namespace container

#endif
