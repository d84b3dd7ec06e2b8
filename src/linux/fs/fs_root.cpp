/* Directories that are served: the mark on the file system, the mark on the directory itself, and its anchor. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fmon_status.h"
#include "linux/fs/fs_served.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fs/fs_root.cpp";

enum { TRIES = 10 };

struct fs_root *root_of(list_head *node) { return FMON_RECORD(node, struct fs_root, link); }

char *copy_path(const char *path)
{
    const size_t size = strlen(path) + 1;
    auto *copy = static_cast<char *>(malloc(size));
    return copy ? static_cast<char *>(memcpy(copy, path, size)) : nullptr;
}

void free_root(struct fs_root *root)
{
    free(root->path);
    free(root);
}

struct fs_root *new_root(const struct fs_wish *wish)
{
    auto *root = static_cast<struct fs_root *>(calloc(1, sizeof(struct fs_root)));
    if (!root)
        return nullptr;
    root->path = copy_path(wish->path);
    if (!root->path) {
        free(root);
        return nullptr;
    }
    root->watch = wish->watch;
    root->kinds = wish->kinds;
    root->recursive = wish->recursive;
    root->id = ++fs_source.next_id;
    list_init(&root->below);
    return root;
}

uint64_t own_bits(const struct fs_root *root)
{
    return fs_group_directory_bits(&fs_source.group, root->kinds, !root->recursive);
}

/* Marks the directory itself. -1 and errno. */
int mark_directory(const struct fs_root *root, int fd)
{
    for (;;) {
        const uint64_t bits = own_bits(root);
        const int result = bits ? fs_group_mark(&fs_source.group, fd, false, bits) : 0;
        if (result != -EAGAIN)
            return result;
    }
}

/* What the other roots on the same directory want of its mark. */
uint64_t bits_of_others(const struct fs_root *root)
{
    uint64_t bits = 0;
    FMON_LIST_EACH (node, &fs_source.roots) {
        const struct fs_root *other = root_of(node);
        if (other != root && fs_key_equal(&other->key.key, &root->key.key))
            bits |= own_bits(other);
    }
    return bits;
}

/* By its path, where it still is; by its handle where that can be opened. */
int open_directory(const struct fs_root *root)
{
    struct fs_look look;
    int error;
    if (fs_look_at(root->path, false, &look, &error) == FMON_FALLBACK_NONE) {
        if (fs_key_equal(&look.key.key, &root->key.key))
            return look.fd;
        close(look.fd);
    }
    const int mount_fd = fs_mount_open(root->mount_id, root->system->fsid, root->path);
    if (mount_fd < 0)
        return -1;
    const int fd = fs_open_handle(mount_fd, &root->key.key, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
    close(mount_fd);
    return fd;
}

/* One that cannot be reached any more, and is not gone, goes on reporting what nobody looks at. */
void unmark_directory(const struct fs_root *root)
{
    const uint64_t bits = root->system ? own_bits(root) & ~bits_of_others(root) : 0;
    const int fd = bits ? open_directory(root) : -1;
    if (fd < 0)
        return;
    if (fs_group_unmark(&fs_source.group, fd, false, bits) < 0)
        FMON_LOG(4, kFile, "unmark directory failed: %s\n", strerror(errno));
    close(fd);
}

uint32_t reason_of(int result)
{
    if (result == FMON_ENOMEM)
        return FMON_FALLBACK_MEMORY;
    return result == FMON_ENOTSUP ? FMON_FALLBACK_OPEN : FMON_FALLBACK_ROOT;
}

int anchor_root(struct fs_root *root, const char *open_path)
{
    struct fs_anchor anchor = {root->key.key, root->path, root->id, -1, root->recursive};
    return fs_anchor_at(&anchor, open_path, open_path != root->path ? FS_OPEN_FOLLOW : FS_OPEN_PATH);
}

/* The marks and the anchor of a root in the list. */
uint32_t serve(struct fs_root *root, const struct fs_look *look, const char *open_path, int *error)
{
    if (root->recursive && fs_look_opens(look) < 0) {
        *error = errno;
        return look->opens ? FMON_FALLBACK_OPEN : FMON_FALLBACK_HANDLE;
    }
    if ((root->recursive && fs_system_mark(root->system, look->fd, root->kinds) < 0) ||
        mark_directory(root, look->fd) < 0) {
        *error = errno;
        return FMON_FALLBACK_MARK;
    }
    const int result = anchor_root(root, open_path);
    *error = result == FMON_ENOENT ? ENOENT : 0;
    return result == 0 ? uint32_t{FMON_FALLBACK_NONE} : reason_of(result);
}

/* Lets go of marks, anchor and file system. */
void let_go(struct fs_root *root)
{
    fs_engine_remove(fs_source.engine, root->id);
    unmark_directory(root);
    list_unlink(&root->link);
    fs_count_kinds();
    if (root->system)
        fs_system_put(root->system);
    free_root(root);
}

/* The mark is what all want now. */
void change_system(struct fs_system *system, int mount_id, const char *path)
{
    const int fd = fs_mount_open(mount_id, system->fsid, path);
    if (fd < 0)
        return;
    if (fs_system_mark(system, fd, fs_system_kinds(system)) < 0)
        FMON_LOG(1, kFile, "mark of a file system refused: %s\n", strerror(errno));
    close(fd);
    fs_system_shrink(system);
}

/* The root on its file system, among the others. */
uint32_t enlist(struct fs_root *root, const struct fs_look *look, int *error)
{
    root->system = fs_system_get(look);
    if (!root->system) {
        *error = errno;
        return errno ? FMON_FALLBACK_MEMORY : FMON_FALLBACK_FSID;
    }
    root->mount_id = look->mount_id;
    fs_key_store(&root->key, &look->key.key);
    list_add_tail(&root->link, &fs_source.roots);
    fs_count_kinds();
    return FMON_FALLBACK_NONE;
}

}  // namespace

uint32_t fs_root_add(const struct fs_wish *wish, struct fs_root **out, int *error)
{
    struct fs_look look;
    *out = nullptr;
    struct fs_root *root = new_root(wish);
    if (!root) {
        *error = ENOMEM;
        return FMON_FALLBACK_MEMORY;
    }
    const bool follow = strcmp(wish->open_path, wish->path) != 0;
    const FsLock lock;
    uint32_t reason = fs_look_at(wish->open_path, follow, &look, error);
    if (reason) {
        free_root(root);
        return reason;
    }
    reason = enlist(root, &look, error);
    if (reason)
        free_root(root);
    else if ((reason = serve(root, &look, follow ? wish->open_path : root->path, error)))
        let_go(root);
    else
        *out = root;
    close(look.fd);
    return reason;
}

struct fs_root *fs_root_add_unmarked(const struct fs_wish *wish)
{
    struct fs_root *root = new_root(wish);
    if (!root)
        return nullptr;
    root->mount_id = -1;
    const FsLock lock;
    list_add_tail(&root->link, &fs_source.roots);
    fs_count_kinds();
    return root;
}

void fs_root_remove(struct fs_root *root)
{
    const FsLock lock;
    let_go(root);
}

int fs_root_place_again(struct fs_root *root)
{
    const FsLock lock;
    struct fs_look look;
    int error;
    if (fs_look_at(root->path, false, &look, &error))
        return FMON_ENOENT;
    const bool same = fs_key_equal(&look.key.key, &root->key.key);
    close(look.fd);
    if (!same)
        return FMON_ENOENT;
    fs_engine_remove(fs_source.engine, root->id);
    root->displaced = false;
    const int result = anchor_root(root, root->path);
    root->displaced |= result != 0;
    return result;
}

void fs_root_change_kinds(struct fs_root *root, uint32_t kinds)
{
    const FsLock lock;
    root->kinds = kinds;
    fs_count_kinds();
    if (root->system)
        change_system(root->system, root->mount_id, root->path);
    FMON_LIST_EACH (node, &root->below) {
        const struct fs_below *below = FMON_RECORD(node, struct fs_below, link);
        if (below->system)
            change_system(below->system, below->mount_id, below->point);
    }
}

void fs_root_forget(struct fs_root *root)
{
    fs_below_forget(root);
    if (root->watch) {
        root->watch->fs = nullptr;
        root->watch->flags &= ~FMON_LINUX_FS;
    }
    list_unlink(&root->link);
    free_root(root);
}

bool fs_root_is_removed(const struct fs_root *root)
{
    const FsLock lock;
    struct stat st;
    const int fd = open_directory(root);
    if (fd < 0)
        return true;
    const bool removed = fstat(fd, &st) == 0 && st.st_nlink == 0;
    close(fd);
    return removed;
}

int fs_anchor_at(struct fs_anchor *anchor, const char *open_path, enum fs_opening how)
{
    int result = -EAGAIN;
    for (int i = 0; i < TRIES && result == -EAGAIN; i++) {
        struct fs_look look;
        int error;
        fs_pass_all();
        if (how == FS_OPEN_MOUNT ? fs_look_at_mount(open_path, &look, &error)
                                 : fs_look_at(open_path, how == FS_OPEN_FOLLOW, &look, &error))
            return FMON_ENOENT;
        anchor->fd = look.fd;
        fs_pass_begin();
        result = fs_key_equal(&look.key.key, &anchor->key) ? fs_engine_add(fs_source.engine, anchor) : int{FMON_ENOENT};
        close(look.fd);
        fs_pass_close_mounts();
    }
    if (result != 0)
        FMON_LOG(2, kFile, "no anchor at %s: %d\n", anchor->path, result);
    return result;
}

void fs_count_kinds(void)
{
    fs_source.wanted = 0;
    FMON_LIST_EACH (node, &fs_source.roots)
        fs_source.wanted |= root_of(node)->kinds;
}
