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
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "common/fd.h"
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
    // errno: they cannot be told, and nothing changed.
    int learn(const Tracefs &tracefs, const Facts &facts);

    // Forgets descriptors that were closed: the kernel may give their groups' memory to anybody.
    void forget_closed();

    bool has(uint64_t group);

    // The filter, for deliveries of these instances only.
    std::string filter(std::string_view text);

    // In a process that was forked: nothing is known.
    void abandon();

private:
    struct Known {
        int fd;
        uint64_t group;
    };
    bool is_known(int fd) const;
    int ask(const Tracefs &tracefs, const Facts &facts, const std::vector<int> &fds, std::vector<uint64_t> *groups);
    int remember(const std::vector<int> &fds, const std::vector<uint64_t> &groups);

    std::mutex lock_;
    std::vector<Known> known_;
    Fd epoll_;  // each known descriptor is registered, for nothing: the kernel forgets it when it is closed
};

}  // namespace kprobe

#endif
