/* Marked file systems: each has one mark with what all its users want. */
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "linux/fmon_linux.h"
#include "linux/fs/fs_served.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fs/fs_system.cpp";

struct fs_system *system_of(list_head *node) { return FMON_RECORD(node, struct fs_system, link); }

struct fs_system *find(const int32_t fsid[2])
{
    FMON_LIST_EACH (node, &fs_source.systems)
        if (fs_same_fsid(system_of(node)->fsid, fsid))
            return system_of(node);
    return nullptr;
}

bool is_that(const struct fs_look *look, int mount_id, const int32_t fsid[2])
{
    return look->mount_id == mount_id && fs_same_fsid(look->key.key.fsid, fsid);
}

bool is_used_by(struct fs_root *root, const struct fs_system *system)
{
    if (root->system == system)
        return true;
    FMON_LIST_EACH (node, &root->below)
        if (FMON_RECORD(node, struct fs_below, link)->system == system)
            return true;
    return false;
}

/* Whatever else shows the file system: what used it may be gone already. */
int open_any(const struct fs_system *system)
{
    FMON_LIST_EACH (node, &fs_source.roots) {
        struct fs_root *root = FMON_RECORD(node, struct fs_root, link);
        const int fd = root->system == system ? fs_mount_open(root->mount_id, system->fsid, root->path) : -1;
        if (fd >= 0)
            return fd;
    }
    for (size_t i = 0; i < fs_source.mounts.count; i++) {
        const struct fs_mount *mount = &fs_source.mounts.all[i];
        if (makedev(mount->major, mount->minor) != system->dev)
            continue;
        const int fd = fs_mount_open(mount->id, system->fsid, mount->point);
        if (fd >= 0)
            return fd;
    }
    return -1;
}

/* Takes these bits of the mark away. A mark that cannot be reached went with its file system, or reports what nobody
 * looks at. */
void take_bits(struct fs_system *system, uint64_t bits)
{
    const int fd = bits ? open_any(system) : -1;
    if (fd < 0)
        return;
    if (fs_group_unmark(&fs_source.group, fd, true, bits) < 0)
        FMON_LOG(4, kFile, "unmark file system failed: %s\n", strerror(errno));
    close(fd);
}

}  // namespace

int fs_open_handle(int mount_fd, const struct fs_key *key, int flags)
{
    union {
        struct file_handle handle;
        char room[sizeof(struct file_handle) + FS_HANDLE_MAX];
    } u;
    u.handle.handle_bytes = key->len;
    u.handle.handle_type = key->type;
    memcpy(u.room + offsetof(struct file_handle, f_handle), key->bytes, key->len);
    return open_by_handle_at(mount_fd, &u.handle, flags);
}

int fs_look_opens(const struct fs_look *look)
{
    errno = EOPNOTSUPP;
    const int fd = look->opens ? fs_open_handle(look->fd, &look->key.key, O_PATH | O_CLOEXEC) : -1;
    if (fd < 0)
        return -1;
    close(fd);
    return 0;
}

struct fs_system *fs_system_get(const struct fs_look *look)
{
    const int32_t *fsid = look->key.key.fsid;
    struct fs_system *system = find(fsid);
    if (system && system->dev != look->dev) {
        errno = 0;
        return nullptr;
    }
    if (!system) {
        system = static_cast<struct fs_system *>(calloc(1, sizeof(struct fs_system)));
        if (!system) {
            errno = ENOMEM;
            return nullptr;
        }
        system->fsid[0] = fsid[0];
        system->fsid[1] = fsid[1];
        system->dev = look->dev;
        list_add_tail(&system->link, &fs_source.systems);
    }
    system->users++;
    return system;
}

void fs_system_put(struct fs_system *system)
{
    system->users--;
    if (system->users > 0) {
        fs_system_shrink(system);
        return;
    }
    take_bits(system, system->bits);
    fs_engine_forget(fs_source.engine, system->fsid);
    fs_system_forget(system);
}

void fs_system_forget(struct fs_system *system)
{
    list_unlink(&system->link);
    free(system);
}

int fs_system_mark(struct fs_system *system, int fd, uint32_t kinds)
{
    for (;;) {
        const uint64_t bits = fs_group_system_bits(&fs_source.group, kinds) & ~system->bits;
        const int result = bits ? fs_group_mark(&fs_source.group, fd, true, bits) : 0;
        if (result == 0)
            system->bits |= bits;
        if (result != -EAGAIN)
            return result;
    }
}

uint32_t fs_system_kinds(const struct fs_system *system)
{
    uint32_t kinds = 0;
    FMON_LIST_EACH (node, &fs_source.roots) {
        struct fs_root *root = FMON_RECORD(node, struct fs_root, link);
        if (root->recursive && is_used_by(root, system))
            kinds |= root->kinds;
    }
    return kinds;
}

void fs_system_shrink(struct fs_system *system)
{
    bool marked = false;
    FMON_LIST_EACH (node, &fs_source.roots) {
        struct fs_root *root = FMON_RECORD(node, struct fs_root, link);
        marked |= root->recursive && is_used_by(root, system);
    }
    const uint64_t wanted = marked ? fs_group_system_bits(&fs_source.group, fs_system_kinds(system)) : 0;
    const uint64_t extra = system->bits & ~wanted;
    take_bits(system, extra);
    system->bits &= ~extra;
}

void fs_system_renew(struct fs_system *system, int fd)
{
    system->renewed = true;
    if (!system->bits || fs_group_is_marked(&fs_source.group, fd))
        return;
    fs_engine_forget(fs_source.engine, system->fsid);
    if (fs_group_mark(&fs_source.group, fd, true, system->bits) == 0)
        return;
    FMON_LOG(1, kFile, "file system cannot be marked anew: %s\n", strerror(errno));
    fs_source.retry.due = true;
}

int fs_mount_open(int mount_id, const int32_t fsid[2], const char *path)
{
    const struct fs_mount *mount = fs_mounts_find(&fs_source.mounts, mount_id);
    struct fs_look look;
    int error;
    if (mount && fs_look_at_mount(mount->point, &look, &error) == FMON_FALLBACK_NONE) {
        if (is_that(&look, mount_id, fsid))
            return look.fd;
        close(look.fd);
    }
    if (fs_look_at(path, false, &look, &error))
        return -1;
    if (is_that(&look, mount_id, fsid))
        return look.fd;
    close(look.fd);
    return -1;
}
