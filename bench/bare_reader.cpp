#include "bare_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

int read_bare(const char *directory)
{
    constexpr unsigned kInit =
        FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_NONBLOCK | FAN_CLOEXEC | FAN_UNLIMITED_QUEUE;
    constexpr unsigned kTarget = 0x1000, kRename = 0x10000000; /* FAN_REPORT_TARGET_FID, FAN_RENAME */
    constexpr uint64_t kMask =
        FAN_CREATE | FAN_DELETE | kRename | FAN_ATTRIB | FAN_MODIFY | FAN_CLOSE_WRITE | FAN_ONDIR;
    const int fd = fanotify_init(kInit | kTarget | 0x200 /* FAN_REPORT_FID */, O_RDONLY);
    if (fd < 0 || fanotify_mark(fd, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, kMask, AT_FDCWD, directory) != 0) {
        perror("bare");
        return 2;
    }
    fprintf(stderr, "bare: ready\n");
    alignas(8) static char buffer[1 << 18];
    for (;;) {
        struct pollfd ready = {fd, POLLIN, 0};
        if (poll(&ready, 1, -1) < 0)
            return 1;
        while (read(fd, buffer, sizeof buffer) > 0)
            usleep(2000);
    }
}
