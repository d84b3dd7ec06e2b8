/* Ignore marks on single directories of marked file systems. */
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "linux/fs/fs_served.h"

namespace
{

/* -1 and errno. */
int open_directory(const struct fs_key *key)
{
    errno = ESTALE;
    for (unsigned n = 0;; n++) {
        const int mount_fd = fs_pass_mount(key->fsid, n);
        if (mount_fd < 0)
            return -1;
        const int fd = fs_open_handle(mount_fd, key, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0)
            return fd;
    }
}

/* Want of descriptors or of memory; or a mount was there that could not be opened, for whatever reason. */
bool may_pass(const struct fs_key *key, int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM || fs_pass_mount_failed(key->fsid);
}

}  // namespace

bool fs_ignore(const struct fs_key *directory)
{
    const int fd = fs_source.cannot_ignore ? -1 : open_directory(directory);
    if (fd < 0)
        return false;
    const int result = fs_group_ignore(&fs_source.group, fd);
    fs_source.cannot_ignore = result < 0 && errno == EINVAL;
    close(fd);
    return result == 0;
}

/* What is there no more took its mark along. */
bool fs_heed(const struct fs_key *directory)
{
    const int fd = open_directory(directory);
    if (fd < 0)
        return !may_pass(directory, errno);
    const bool heard = fs_group_heed(&fs_source.group, fd) == 0 || !may_pass(directory, errno);
    close(fd);
    return heard;
}
