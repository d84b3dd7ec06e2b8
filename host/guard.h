/*
 * guard.h: what keeps C++ inside the host's C functions.
 */
#ifndef HOST_GUARD_H
#define HOST_GUARD_H

#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

namespace host
{

/* Runs `body` and returns its result, or `failed` when memory ran out: no exception may reach a plug-in. */
template <typename Result, typename Body>
Result without_exceptions(Result failed, Body &&body) noexcept
{
    try {
        return std::forward<Body>(body)();
    } catch (const std::bad_alloc &) {
        return failed;
    }
}

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

/* Owns a file descriptor. */
class Fd
{
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd &operator=(Fd &&other) noexcept
    {
        if (this != &other)
            reset(std::exchange(other.fd_, -1));
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

}  // namespace host

#endif
