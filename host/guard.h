/*
 * guard.h: what keeps C++ inside the host's C functions.
 */
#ifndef HOST_GUARD_H
#define HOST_GUARD_H

#include <cerrno>

#include "common/fd.h"
#include "common/guard.h"

namespace host
{

using common::Fd;
using common::without_exceptions;

/* Callers of the log report errno after it, so logging must leave it alone. */
class ErrnoKeeper
{
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

    int saved() const { return saved_; }

private:
    int saved_;
};

}  // namespace host

#endif
