/*
 * listener.h: a Unix socket at a path, which nobody but its owner and root may connect to.
 */
#ifndef OUTPUT_SINKS_LISTENER_H
#define OUTPUT_SINKS_LISTENER_H

#include <sys/types.h>

#include <string>

#include "common/fd.h"

namespace output
{

class Listener
{
public:
    Listener() = default;
    ~Listener(); /* removes its file, unless another has taken its place */
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    enum class Opened { kYes, kLater, kNever }; /* kLater: another listens there; kNever: that takes a person */

    /* What a process that is gone has left there is replaced. The directory must be one that nobody else may write to.
     * `error` is one line unless kYes. */
    Opened open(const std::string &path, std::string &error);
    /* Who waits to be taken; null: nobody. */
    common::Fd accept() const;

    int fd() const { return fd_.get(); }
    explicit operator bool() const { return static_cast<bool>(fd_); }

private:
    bool bind_to(const std::string &path);

    common::Fd fd_;
    std::string path_;
    dev_t device_ = 0;
    ino_t inode_ = 0; /* of the file that is ours */
};

}  // namespace output

#endif
