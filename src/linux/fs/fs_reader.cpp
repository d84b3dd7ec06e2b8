#include "linux/fs/fs_reader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

#include "linux/descriptor.h"

namespace
{

/*
 * Waits until the thread is to end (true), the mount table changes, or records come; of `group_fd`, or for none (-1).
 * A change of the mounts is told at once: records may come for ever without a pause.
 */
bool wait(const struct fs_reader *reader, int group_fd, int ms)
{
    const struct fs_reader_work *work = &reader->work;
    struct pollfd fds[] = {{reader->stop_fd, POLLIN, 0}, {work->mounts_fd, POLLPRI, 0}, {group_fd, POLLIN, 0}};
    if (poll(fds, 3, ms) <= 0)
        return false;
    if (fds[1].revents & POLLPRI)
        work->mounts(work->arg);
    return fds[0].revents != 0;
}

void *run(void *arg)
{
    const auto *reader = static_cast<const struct fs_reader *>(arg);
    prctl(PR_SET_NAME, "fmon-fs");
    bool some = false;
    while (!wait(reader, some ? -1 : reader->work.group_fd, some ? reader->work.rest_ms : -1))
        some = reader->work.pass(reader->work.arg);
    return nullptr;
}

/* The thread inherits the mask of whoever starts it. */
int start_thread(struct fs_reader *reader)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&reader->thread, nullptr, run, reader);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

}  // namespace

int fs_reader_start(struct fs_reader *reader, const struct fs_reader_work *work)
{
    reader->work = *work;
    reader->stop_fd = descriptor_settle(eventfd(0, EFD_CLOEXEC));
    if (reader->stop_fd < 0)
        return -1;
    const int error = start_thread(reader);
    if (error == 0)
        return 0;
    close(reader->stop_fd);
    reader->stop_fd = -1;
    errno = error;
    return -1;
}

void fs_reader_stop(struct fs_reader *reader)
{
    if (reader->stop_fd < 0)
        return;
    const uint64_t one = 1;
    if (write(reader->stop_fd, &one, sizeof one) == sizeof one)
        pthread_join(reader->thread, nullptr);
    close(reader->stop_fd);
    reader->stop_fd = -1;
}
