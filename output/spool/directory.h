/*
 * directory.h: the directory of a spool: made for its owner alone, refused where others may write, used by one process
 * at a time.
 */
#ifndef OUTPUT_SPOOL_DIRECTORY_H
#define OUTPUT_SPOOL_DIRECTORY_H

#include <cstdint>
#include <string>
#include <vector>

#include "common/fd.h"

namespace output
{

struct SpoolDirectory {
    common::Fd fd{};
    common::Fd lock{}; /* held as long as it is open */
};

/* False, with one line in `error`, which names the directory. */
bool open_spool_directory(const std::string &path, SpoolDirectory &out, std::string &error);

/* The first ordinals of the segments there, in order. 0 or errno. */
int list_segments(int directory, std::vector<uint64_t> &out);

}  // namespace output

#endif
