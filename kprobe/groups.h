/*
 * groups.h: which inotify instances are this process's own.
 *
 * The probe sees the deliveries of every inotify instance of the system, and the watch descriptors of one mean nothing
 * in another. In the kernel an instance is a group, which each of its marks and its open file point to: asked how much
 * waits in a descriptor, which changes nothing, the kernel shows the group of that descriptor to a probe.
 */
#ifndef KPROBE_GROUPS_H
#define KPROBE_GROUPS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/fd.h"
#include "common/mutex.h"
#include "facts.h"

namespace kprobe
{

using common::Fd;

// The function that ask_queue() of an inotify descriptor is answered by; its first argument is the open file.
inline constexpr char kFilePoint[] = "inotify_ioctl";
void ask_queue(int fd);

// Inotify descriptors that the library itself made, which are nobody's source of events. Any thread.
void hide_inotify(int fd);
void show_inotify(int fd);

class Groups
{
public:
    // Looks for inotify descriptors of this process that are new. 1: what is known changed; 0: it did not; negative
    // errno: they cannot be told apart, and nothing changed.
    int learn(const Tracefs &tracefs, const Facts &facts) EXCLUDES(lock_);

    // Forgets descriptors that were closed: the kernel may give their groups' memory to anybody.
    void forget_closed() EXCLUDES(lock_);

    bool has(uint64_t group) EXCLUDES(lock_);

    // The filter, for deliveries of these instances only.
    std::string filter(std::string_view text) EXCLUDES(lock_);

    // In a process that was forked, which has no other thread, though one of the parent's may have held the lock:
    // nothing is known.
    void abandon();

private:
    struct Known {
        int fd;
        uint64_t group;
    };
    bool is_known(int fd) const REQUIRES(lock_);
    static int ask(const Tracefs &tracefs, const Facts &facts, const std::vector<int> &fds,
                   std::vector<uint64_t> &groups);
    int remember(const std::vector<int> &fds, const std::vector<uint64_t> &groups) REQUIRES(lock_);

    common::Mutex lock_;
    std::vector<Known> known_ GUARDED_BY(lock_);
    // Each known descriptor is registered, for nothing: the kernel forgets it when it is closed.
    Fd epoll_ GUARDED_BY(lock_);
};

}  // namespace kprobe

#endif
