/*
 * plan.h: from what was asked for to the monitor's instances and watches.
 *
 * A path becomes one watch in most cases. A second instance is used where the monitor cannot have all in one watch:
 *  - --pid where directories have marks of their own: the kinds whose process is to be named go into an instance of
 *    their own, since a watch that insists on the process takes no others. One that a mark of the whole file system
 *    serves takes all kinds, so that is asked for first.
 * A path that is missing, and a pattern, have no watch yet: see waiting.h.
 */
#ifndef AGENT_PLAN_H
#define AGENT_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "paths.h"
#include "request.h"

namespace agent
{

struct PlannedInstance {
    std::string name;   /* at most 15 bytes */
    uint32_t shown = 0; /* kinds to show; the watches' masks may hold more, which serve the command itself */
};

struct PlannedWatch {
    size_t root, instance;
    std::string path;
    uint32_t mask, flags;
};

/* A path of the command line. */
struct Root {
    std::string path;
    std::string given{}; /* as it was typed */
    Identity identity;
    std::string watched; /* the path that the watches are on, without links; empty: there is none now */
    bool pattern = false;
    bool match = false;  /* of a pattern: it is no root of its own */
    bool waits = false;  /* it may come and go: never ended */
    bool placed = false; /* set by whoever places the watches */
    bool served = false; /* by a mark of its whole file system; set likewise */
    bool ended = false;
    bool suspected = false; /* the last look found it gone */
};

struct Plan {
    std::vector<PlannedInstance> instances;
    std::vector<Root> roots;
    std::vector<PlannedWatch> watches;
    std::vector<std::string> spared{};   /* absolute paths: nothing below them is watched */
    std::vector<std::string> refusals{}; /* one line for each path that cannot be watched */
};

/* The paths that a request spares, each once. */
std::vector<std::string> spared_paths(const Request &options, bool container);

/* `container`: the monitor runs inside one, where it takes paths as they are. */
Plan make_plan(const Request &options, bool container);
Plan system_plan(const Request &options); /* for the whole system */

/* The watches of one path, by what its identity says it is. The instances are those of every plan with these options.
 */
std::vector<PlannedWatch> watches_of(const Request &options, const Root &root, size_t index);

/* What stands for a watch that insists on the process of kinds which marks on directories cannot name; empty: nothing.
 */
std::vector<PlannedWatch> watches_apart(const Request &options, const PlannedWatch &watch);

/* The masks of a watch, apart from make_plan() so that the rules can be read and tested. */
struct Masks {
    uint32_t shown = 0, mask = 0;         /* the instance that every watch has */
    uint32_t pid_shown = 0, pid_mask = 0; /* the instance for --pid; 0: not used */
};
Masks plan_masks(const Request &options);

/* With "delay" the monitor releases an access when the file is closed, and a modification when it is closed after
 * writing; and it drops a close that follows neither. Adds the kinds that those which are in the mask need, so that a
 * close which was asked for arrives when something happened before it. */
uint32_t with_delay_kinds(uint32_t mask);

inline constexpr size_t kMaxPath = 1022; /* bytes of a path that the monitor can build */

}  // namespace agent

#endif
