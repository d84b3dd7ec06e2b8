/*
 * resolve.h: what a path leads to, for paths that others may fill while they are waited for.
 */
#ifndef AGENT_RESOLVE_H
#define AGENT_RESOLVE_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "paths.h"

namespace agent
{

struct Resolved {
    Identity identity;        /* of what is there; its error says why there is nothing */
    std::string path;         /* the path without links */
    std::string foreign_link; /* a link on the way that was not followed, since it is another ordinary user's */
    uid_t owner = 0;          /* of that link */
};

/* Goes the way component by component, each from the descriptor of the one before. Links that belong to root or to the
 * user that this process runs as are followed, those of others are not: who may put a link there must not choose what
 * is watched. `path` is absolute. */
Resolved resolve_carefully(const std::string &path);

/* The paths that a pattern matches right now, sorted; links are not looked at. */
std::vector<std::string> matches_of(const std::string &pattern);

}  // namespace agent

#endif
