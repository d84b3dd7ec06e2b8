#include "linux/fs/fs_ask.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace
{

#ifndef AT_HANDLE_FID
constexpr int AT_HANDLE_FID = 0x200;
#endif

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr char kDeleted[] = " (deleted)";

/* The kernel's struct file_handle, with room for the longest. */
struct raw_handle {
    uint32_t bytes;
    int32_t type;
    char handle[FS_HANDLE_MAX];
};

int handle_at(int fd, const char *name, int flags, struct raw_handle *out, int *mount_id)
{
    out->bytes = FS_HANDLE_MAX;
    return name_to_handle_at(fd, name, reinterpret_cast<struct file_handle *>(out), mount_id, flags);
}

void key_of_raw(const struct raw_handle *raw, const int32_t fsid[2], struct fs_stored_key *out)
{
    memcpy(out->bytes, raw->handle, raw->bytes);
    out->key = {{fsid[0], fsid[1]}, raw->type, raw->bytes, out->bytes};
}

bool is_raw(const struct raw_handle *raw, const struct fs_key *key)
{
    return raw->type == key->type && raw->bytes == key->len && memcmp(raw->handle, key->bytes, key->len) == 0;
}

/* Reading a directory would write its time of access, which some must not and nobody wants. */
int open_key(void *, int mount_fd, const struct fs_key *key)
{
    struct raw_handle raw;
    raw.bytes = key->len;
    raw.type = key->type;
    memcpy(raw.handle, key->bytes, key->len);
    auto *handle = reinterpret_cast<struct file_handle *>(&raw);
    const int fd = open_by_handle_at(mount_fd, handle, kOpenDirectory | O_NOATIME);
    return fd < 0 && errno == EPERM ? open_by_handle_at(mount_fd, handle, kOpenDirectory) : fd;
}

/*
 * Whoever moves or makes an entry holds the directory's lock until the record of it is queued, and reading the
 * directory takes this lock: nothing fits into the buffer, but the lock was had.
 */
void wait_for_records(int parent_fd)
{
    char none[1];
    syscall(SYS_getdents64, parent_fd, none, sizeof(none));
}

bool set_name(const char *name, size_t len, struct fs_place *out)
{
    if (len == 0 || len > NAME_MAX)
        return false;
    memcpy(out->name, name, len);
    out->name[len] = '\0';
    out->name_len = static_cast<uint32_t>(len);
    return true;
}

/* The name as the kernel has it: the last component of the descriptor's path. */
bool name_by_link(int fd, struct fs_place *out)
{
    char link[32], path[PATH_MAX];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    const ssize_t got = readlink(link, path, sizeof(path));
    if (got <= 0 || got == static_cast<ssize_t>(sizeof(path)))
        return false;
    size_t len = static_cast<size_t>(got);
    if (out->deleted && len > strlen(kDeleted) &&
        memcmp(path + len - strlen(kDeleted), kDeleted, strlen(kDeleted)) == 0)
        len -= strlen(kDeleted);
    const auto *slash = static_cast<const char *>(memrchr(path, '/', len));
    return slash && set_name(slash + 1, static_cast<size_t>(path + len - slash - 1), out);
}

bool is_entry(int parent_fd, const char *name, const struct fs_key *key)
{
    struct raw_handle raw;
    int mount_id;
    return handle_at(parent_fd, name, 0, &raw, &mount_id) == 0 && is_raw(&raw, key);
}

/* The name by reading the parent, where the path is too long for a link. */
bool name_by_reading(int parent_fd, const struct fs_key *key, struct fs_place *out)
{
    const int fd = openat(parent_fd, ".", kOpenDirectory);
    DIR *stream = fd < 0 ? nullptr : fdopendir(fd);
    if (!stream) {
        if (fd >= 0)
            close(fd);
        return false;
    }
    bool found = false;
    for (const struct dirent *entry = readdir(stream); entry && !found; entry = readdir(stream)) {
        const bool may_be = entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN;
        found = may_be && strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0 &&
                is_entry(parent_fd, entry->d_name, key) && set_name(entry->d_name, strlen(entry->d_name), out);
    }
    closedir(stream);
    return found;
}

enum fs_asked place_of_child(int fd, int parent_fd, const struct fs_key *key, struct fs_place *out)
{
    struct stat st;
    out->deleted = fstat(fd, &st) == 0 && st.st_nlink == 0;
    const bool named = name_by_link(fd, out) || name_by_reading(parent_fd, key, out);
    wait_for_records(parent_fd);
    return named ? FS_ASKED_PLACE : FS_ASKED_ERROR;
}

/* A mount's root has its own handle above it (at the root of all), or one on another mount. */
enum fs_asked place_of(int fd, const struct fs_key *key, struct fs_place *out)
{
    struct raw_handle own, above;
    int own_mount, mount;
    if (handle_at(fd, "", AT_EMPTY_PATH, &own, &own_mount) != 0)
        return FS_ASKED_ERROR;
    const int parent_fd = openat(fd, "..", kOpenDirectory);
    if (parent_fd < 0)
        return errno == ENOENT ? FS_ASKED_TOP : FS_ASKED_ERROR;
    enum fs_asked answer = FS_ASKED_ERROR;
    if (handle_at(parent_fd, "", AT_EMPTY_PATH, &above, &mount) == 0) {
        key_of_raw(&above, key->fsid, &out->parent);
        const bool is_top = mount != own_mount || is_raw(&own, &out->parent.key);
        answer = is_top ? FS_ASKED_TOP : place_of_child(fd, parent_fd, key, out);
    }
    close(parent_fd);
    return answer;
}

enum fs_asked ask_place(void *arg, int mount_fd, const struct fs_key *key, struct fs_place *out)
{
    const int fd = open_key(arg, mount_fd, key);
    if (fd < 0)
        return errno == ESTALE || errno == ENOTDIR || errno == ELOOP || errno == ENOENT ? FS_ASKED_GONE
                                                                                        : FS_ASKED_ERROR;
    const enum fs_asked answer = place_of(fd, key, out);
    close(fd);
    return answer;
}

enum fs_entry_kind ask_entry(void *, int directory_fd, const char *name, const struct fs_key *key)
{
    struct stat st;
    if (fstatat(directory_fd, name, &st, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0)
        return errno == ENOENT ? FS_ENTRY_NONE : FS_ENTRY_ERROR;
    if (S_ISCHR(st.st_mode) && st.st_rdev == makedev(0, 0))
        return FS_ENTRY_WHITEOUT;
    return key && is_entry(directory_fd, name, key) ? FS_ENTRY_THIS : FS_ENTRY_OTHER;
}

/* getdents64's */
struct raw_entry {
    uint64_t inode, offset;
    uint16_t size;
    uint8_t type;
    char name[NAME_MAX + 1];
};

void for_each_entry(const char *buffer, size_t size, void (*each)(void *to, const char *name, uint32_t len), void *to)
{
    uint16_t length;
    for (size_t at = 0; at < size; at += length) {
        const char *entry = buffer + at;
        memcpy(&length, entry + offsetof(struct raw_entry, size), sizeof(length));
        const char *name = entry + offsetof(struct raw_entry, name);
        each(to, name, static_cast<uint32_t>(strlen(name)));
    }
}

/* Two reads at most: the second says that the first was all. */
bool list(void *, int directory_fd, void (*each)(void *to, const char *name, uint32_t len), void *to)
{
    char buffer[32768];
    if (lseek(directory_fd, 0, SEEK_SET) != 0)
        return false;
    const long got = syscall(SYS_getdents64, directory_fd, buffer, sizeof(buffer));
    if (got <= 0)
        return got == 0;
    for_each_entry(buffer, static_cast<size_t>(got), each, to);
    return syscall(SYS_getdents64, directory_fd, buffer, sizeof(buffer)) == 0;
}

int open_path(void *, const char *path, const struct fs_key *key)
{
    const int fd = open(path, kOpenDirectory);
    struct fs_stored_key found;
    if (fd < 0 || (fs_ask_key(fd, &found, nullptr, nullptr) == 0 && fs_key_equal(&found.key, key)))
        return fd;
    close(fd);
    errno = ENOENT;
    return -1;
}

void close_fd(void *, int fd) { close(fd); }

}  // namespace

const struct fs_asks fs_kernel = {ask_place, open_key, list, ask_entry, open_path, close_fd};

int fs_ask_key(int fd, struct fs_stored_key *out, int *mount_id, bool *opens)
{
    struct raw_handle raw;
    struct statfs fs;
    int32_t fsid[2];
    int mount;
    int got = handle_at(fd, "", AT_EMPTY_PATH, &raw, &mount);
    if (opens)
        *opens = got == 0;
    if (got != 0 && errno == EOPNOTSUPP) {
        got = handle_at(fd, "", AT_EMPTY_PATH | AT_HANDLE_FID, &raw, &mount);
        if (got != 0 && errno == EINVAL) /* a kernel before 6.5 does not know the flag */
            errno = EOPNOTSUPP;
    }
    if (got != 0 || fstatfs(fd, &fs) != 0)
        return -1;
    memcpy(fsid, &fs.f_fsid, sizeof(fsid));
    key_of_raw(&raw, fsid, out);
    if (mount_id)
        *mount_id = mount;
    return 0;
}
