#include "waiter.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>

#include "signals.h"

namespace agent
{

namespace
{

constexpr uint64_t kLongestMs = 60000;

// Interrupted, it has seen nothing.
void wait_for(struct pollfd *fds, nfds_t count, uint64_t ms)
{
    poll(fds, count, static_cast<int>(std::min(ms, kLongestMs)));
}

}  // namespace

Waiter::Waiter(const EventQueue &queue)
    : queue_(queue), mount_table_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC))
{
}

void Waiter::listen(int new_directories_fd, int output_fd)
{
    new_directories_fd_ = new_directories_fd;
    output_fd_ = output_fd;
}

Inputs Waiter::wait(const Pause &pause) const
{
    Inputs inputs;
    if (pause.what == Pause::For::kEverything)
        sleep(inputs, pause.ms);
    else if (pause.what == Pause::For::kNewDirectories)
        gather(inputs, pause.ms);
    else if (pause.ms)
        wait_for(nullptr, 0, pause.ms);
    inputs.patience_ms = patience_ms();
    return inputs;
}

// One more: the clock is coarse, and waking just before the time would mean waking twice.
void Waiter::sleep(Inputs &inputs, uint64_t ms) const
{
    struct pollfd fds[] = {{queue_.wake_fd(), POLLIN, 0}, {mount_table_.get(), POLLPRI, 0}, {output_fd_, 0, 0}};
    wait_for(fds, 3, ms + 1);
    if (fds[0].revents)
        queue_.clear_wake();
    inputs.mounts_changed = fds[1].revents != 0;
    inputs.reader_gone = fds[2].revents & (POLLERR | POLLHUP | POLLNVAL);
}

void Waiter::gather(Inputs &inputs, uint64_t ms) const
{
    struct pollfd fd = {new_directories_fd_, POLLIN, 0};
    if (ms)
        wait_for(&fd, 1, ms);
    inputs.new_directories = fd.revents != 0;
}

}  // namespace agent
