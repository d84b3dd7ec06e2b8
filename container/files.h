/*
 * files.h: reads files that others write, below a directory that they cannot leave.
 */
#ifndef CONTAINER_FILES_H
#define CONTAINER_FILES_H

#include <cstddef>
#include <string>
#include <vector>

#include "common/fd.h"

namespace container
{

using common::Fd;
using common::list_of;

/* A place where somebody's files are, as a root of its own: "..", and links with an absolute target, stay below it. */
class Tree
{
public:
    /* Of a path of ours, whose links are followed. False where there is no such directory. */
    explicit Tree(const std::string &path);

    /* Of a directory in another tree. Its links are followed, inside the tree: an administrator may have put the
     * engine's directory on another disk. Kernels before 5.6 cannot keep links inside; there none is followed. */
    Tree(const Tree &outer, const std::string &path);

    explicit operator bool() const { return static_cast<bool>(directory_); }

    /* The whole of a regular file; no link on the way is followed. False: there is none, it may not be read, or it is
     * larger than `limit` bytes. `path` is relative and holds no "..". */
    bool read(const std::string &path, size_t limit, std::string &out) const;

    /* Names in the directory itself, at most `limit`, without those that begin with a dot. */
    std::vector<std::string> names(size_t limit) const;

private:
    Fd directory_;
};

/* Reads to the end, however short the pieces. False: an error, or more than `limit` bytes. */
bool read_all(int fd, size_t limit, std::string &out);

}  // namespace container

#endif
