#include "bare_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>

namespace
{

volatile sig_atomic_t told_to_end;

void end(int) { told_to_end = 1; }

/* From now on SIGTERM is seen in waits only; returns the mask for these. */
sigset_t catch_end()
{
    struct sigaction action = {};
    action.sa_handler = end;
    sigaction(SIGTERM, &action, nullptr);
    sigset_t term, before;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, &before);
    return before;
}

uint64_t count_records(const char *buffer, ssize_t size)
{
    uint64_t count = 0;
    const auto *record = reinterpret_cast<const struct fanotify_event_metadata *>(buffer);
    for (; FAN_EVENT_OK(record, size); count++)
        record = FAN_EVENT_NEXT(record, size);
    return count;
}

}  // namespace

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
    const sigset_t waiting = catch_end();
    fprintf(stderr, "bare: ready\n");
    alignas(8) static char buffer[1 << 18];
    uint64_t records = 0;
    while (!told_to_end) {
        struct pollfd ready = {fd, POLLIN, 0};
        if (ppoll(&ready, 1, nullptr, &waiting) < 0)
            continue;
        for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0; usleep(2000))
            records += count_records(buffer, got);
    }
    fprintf(stderr, "bare: %llu records\n", static_cast<unsigned long long>(records));
    return 0;
}
