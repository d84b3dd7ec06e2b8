#include "linux/fs/fs_mounts.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr size_t kFirstSize = 16384;

/* Grows with the table. Null: it cannot be read, or there is no memory. */
char *read_text(int fd)
{
    char *text = nullptr;
    size_t used = 0, size = 0;
    for (;;) {
        if (size - used < 2) {
            size = size ? 2 * size : kFirstSize;
            auto *grown = static_cast<char *>(realloc(text, size));
            if (!grown)
                break;
            text = grown;
        }
        const ssize_t got = read(fd, text + used, size - used - 1);
        if (got < 0 && errno != EINTR)
            break;
        if (got == 0) {
            text[used] = '\0';
            return text;
        }
        used += got > 0 ? static_cast<size_t>(got) : 0;
    }
    free(text);
    return nullptr;
}

size_t count_lines(const char *text)
{
    size_t count = 0;
    for (; (text = strchr(text, '\n')); text++)
        count++;
    return count;
}

bool is_octal(const char *at)
{
    return at[0] >= '0' && at[0] <= '3' && at[1] >= '0' && at[1] <= '7' && at[2] >= '0' && at[2] <= '7';
}

/* The kernel writes blanks, newlines and backslashes as "\ooo". */
char *unescape(char *text)
{
    char *to = text;
    for (const char *at = text; *at; to++) {
        if (*at == '\\' && is_octal(at + 1)) {
            *to = static_cast<char>((at[1] - '0') * 64 + (at[2] - '0') * 8 + (at[3] - '0'));
            at += 4;
        } else {
            *to = *at++;
        }
    }
    *to = '\0';
    return text;
}

/* "ID PARENT MAJOR:MINOR ROOT POINT OPTIONS [FIELD]... - TYPE SOURCE OPTIONS"; cuts the line up. */
bool parse_line(char *line, struct fs_mount *out)
{
    char *type = strstr(line, " - ");
    int at = 0;
    if (!type || sscanf(line, "%d %d %u:%u %n", &out->id, &out->parent, &out->major, &out->minor, &at) != 4 || at == 0)
        return false;
    *type = '\0';
    char *rest = line + at;
    char *root = strsep(&rest, " ");
    char *point = strsep(&rest, " ");
    if (!point || point[0] != '/')
        return false;
    rest = type + 3;
    out->root = unescape(root);
    out->point = unescape(point);
    out->type = strsep(&rest, " ");
    return true;
}

bool is_one_of(const char *type, const char *const *names, size_t count)
{
    for (size_t i = 0; i < count; i++)
        if (strcmp(type, names[i]) == 0)
            return true;
    return false;
}

}  // namespace

bool fs_mounts_parse(char *text, struct fs_mounts *out)
{
    const size_t lines = count_lines(text);
    auto *all = static_cast<struct fs_mount *>(calloc(lines + 1, sizeof(struct fs_mount)));
    if (!all) {
        free(text);
        return false;
    }
    size_t count = 0;
    char *rest = text;
    while (char *line = strsep(&rest, "\n"))
        count += count < lines && parse_line(line, &all[count]);
    fs_mounts_free(out);
    *out = {text, all, count};
    return true;
}

bool fs_mounts_read(struct fs_mounts *out)
{
    const int fd = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char *text = read_text(fd);
    close(fd);
    return text && fs_mounts_parse(text, out);
}

void fs_mounts_free(struct fs_mounts *mounts)
{
    free(mounts->text);
    free(mounts->all);
    *mounts = {};
}

const struct fs_mount *fs_mounts_find(const struct fs_mounts *mounts, int id)
{
    for (size_t i = 0; i < mounts->count; i++)
        if (mounts->all[i].id == id)
            return &mounts->all[i];
    return nullptr;
}

bool fs_path_is_below(const char *path, const char *directory)
{
    const size_t length = strcmp(directory, "/") == 0 ? 0 : strlen(directory);
    return strncmp(path, directory, length) == 0 && path[length] == '/' && path[length + 1] != '\0';
}

bool fs_mount_is_pseudo(const struct fs_mount *mount)
{
    static constexpr const char *kTypes[] = {
        "autofs",     "binfmt_misc", "bpf",       "cgroup",  "cgroup2", "configfs", "debugfs", "devpts",
        "efivarfs",   "fusectl",     "mqueue",    "nfsd",    "nsfs",    "proc",     "pstore",  "resctrl",
        "rpc_pipefs", "securityfs",  "selinuxfs", "smackfs", "sysfs",   "tracefs",  "xenfs",
    };
    return is_one_of(mount->type, kTypes, sizeof kTypes / sizeof kTypes[0]);
}

bool fs_mount_is_remote(const struct fs_mount *mount)
{
    static constexpr const char *kTypes[] = {"9p", "afs", "ceph", "cifs", "fuse", "nfs", "nfs4", "smb3", "virtiofs"};
    return is_one_of(mount->type, kTypes, sizeof kTypes / sizeof kTypes[0]) || strncmp(mount->type, "fuse.", 5) == 0;
}
