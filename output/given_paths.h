/*
 * given_paths.h: paths as the user gave them: what lies below a watched path is shown below what was typed for it.
 */
#ifndef OUTPUT_GIVEN_PATHS_H
#define OUTPUT_GIVEN_PATHS_H

#include <string>
#include <string_view>
#include <vector>

#include "agent/plan.h"

namespace output
{

class GivenPaths
{
public:
    /* What was typed for a path; of a pattern, the directories before the name with the "*" count. The first of one
     * path stays. */
    void add(const agent::Root &root);

    /* The path below what was given for the nearest path at or above it, in `storage` and followed by a NUL; as it is
     * where nothing was. */
    std::string_view of(std::string_view path, std::string &storage) const;

private:
    struct Pair {
        std::string path, given; /* of a directory, `given` may be empty: the working directory of a pattern */
    };
    const Pair *nearest(std::string_view path) const;

    std::vector<Pair> pairs_;
};

}  // namespace output

#endif
