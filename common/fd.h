/*
 * fd.h: owns a file descriptor, or the list of a directory's entries.
 */
#ifndef COMMON_FD_H
#define COMMON_FD_H

#include <dirent.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace common
{

class Fd
{
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
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

struct CloseDir {
    void operator()(DIR *dir) const { closedir(dir); }
};
using Dir = std::unique_ptr<DIR, CloseDir>;

/* The entries of a directory; takes the descriptor over. Null: none, errno says why. */
inline Dir list_of(Fd directory)
{
    Dir list(directory ? fdopendir(directory.get()) : nullptr);
    if (list)
        directory.release();
    return list;
}

}  // namespace common

#endif
