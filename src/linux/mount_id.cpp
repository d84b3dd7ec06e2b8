/* The mount of an open descriptor, from its file in /proc. */

#include "linux/probe/clt_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "log.h"

namespace
{

constexpr char kFile[] = "linux/clt_file.c";
constexpr char kKey[] = "mnt_id:";
constexpr size_t kIdMax = 10; /* digits of the largest mount id */

/* Reads the file's first `size` bytes; -1. */
ssize_t read_head(const char *path, char *out, size_t size)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        FMON_LOG(1, kFile, "open filed!\n");
        return -1;
    }
    const ssize_t got = read(fd, out, size);
    if (got < 0)
        FMON_LOG(1, kFile, "read fail!\n");
    if (close(fd) < 0)
        FMON_LOG(1, kFile, "close failed!\n");
    return got;
}

/* The first line that begins with the key, terminated; null: none. Cuts the text into lines up to there. */
char *find_line(char *text)
{
    for (char *next = text; next;) {
        char *line = strsep(&next, "\n");
        if (strncmp(line, kKey, sizeof(kKey) - 1) == 0)
            return line;
    }
    return nullptr;
}

}  // namespace

int read_mount_id(int fd, char *out)
{
    char path[256];
    snprintf(path, sizeof(path), "/proc/self/fdinfo/%d", fd);
    char text[4096 + 1];
    const ssize_t got = read_head(path, text, sizeof(text) - 1);
    if (got < 0)
        return -1;
    text[got] = '\0';
    const char *line = find_line(text);
    const char *tab = line ? strchr(line + sizeof(kKey) - 1, '\t') : nullptr;
    if (tab)
        orx_strncpy(out, tab + 1, kIdMax);
    return 0;
}

int event_mount_id(int fd, char *out)
{
    /* Inside a container the number decides where the path lies: there it is read as the kernel lists it. */
    struct statx facts;
    constexpr int kFlags = AT_EMPTY_PATH | AT_STATX_DONT_SYNC;
    if (g_container_flag || statx(fd, "", kFlags, STATX_MNT_ID, &facts) != 0 || !(facts.stx_mask & STATX_MNT_ID))
        return read_mount_id(fd, out);
    snprintf(out, kIdMax + 1, "%llu", static_cast<unsigned long long>(facts.stx_mnt_id));
    return 0;
}
