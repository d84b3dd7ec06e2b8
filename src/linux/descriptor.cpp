#include "linux/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

int descriptor_settle(int fd)
{
    if (fd > 0) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
        return fd;
    }
    if (fd < 0)
        return fd;

    int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    int error = errno;
    close(fd);
    errno = error;
    return moved;
}
