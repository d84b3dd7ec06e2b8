#include "groups.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "experiment.h"
#include "open_files.h"
#include "places.h"

namespace kprobe
{

namespace
{

constexpr size_t kMostInFilter = 32;  // with more, the kernel lets all pass and has() decides alone

// Never destroyed: see Library::get().
struct Hidden {
    common::Mutex lock;
    std::set<int> fds GUARDED_BY(lock);
    static Hidden &get()
    {
        static Hidden *const hidden = new Hidden;
        return *hidden;
    }
};

bool is_hidden(int fd)
{
    Hidden &hidden = Hidden::get();
    const common::Lock lock(hidden.lock);
    return hidden.fds.count(fd) != 0;
}

std::vector<int> inotify_descriptors()
{
    const std::string directory = "/proc/self/fd";
    std::vector<int> fds;
    any_number(directory, [&](const std::string &name) {
        const int fd = atoi(name.c_str());
        if (leads_to(directory + "/" + name, "anon_inode:inotify") && !is_hidden(fd))
            fds.push_back(fd);
        return false;
    });
    return fds;
}

bool watch_closing(int epoll, int operation, int fd)
{
    epoll_event nothing = {};
    return epoll_ctl(epoll, operation, fd, &nothing) == 0;
}

}  // namespace

void ask_queue(int fd)
{
    int size;
    ioctl(fd, FIONREAD, &size);
}

void hide_inotify(int fd)
{
    Hidden &hidden = Hidden::get();
    const common::Lock lock(hidden.lock);
    hidden.fds.insert(fd);
}

void show_inotify(int fd)
{
    Hidden &hidden = Hidden::get();
    const common::Lock lock(hidden.lock);
    hidden.fds.erase(fd);
}

bool Groups::is_known(int fd) const
{
    return std::any_of(known_.begin(), known_.end(), [&](const Known &known) { return known.fd == fd; });
}

// One hit a descriptor, in their order.
int Groups::ask(const Tracefs &tracefs, const Facts &facts, const std::vector<int> &fds, std::vector<uint64_t> &groups)
{
    const std::string group = deref(facts.mark.file_group, argument_place(facts, 1));
    const auto hits = experiment(tracefs, kFilePoint, {{group, ""}}, [&] {
        for (const int fd : fds)
            ask_queue(fd);
    });
    if (hits.size() != fds.size())
        return -ENOTSUP;
    for (const Values &values : hits) {
        if (!is_pointer(values[0], facts))
            return -ENOTSUP;
        groups.push_back(values[0]);
    }
    return 0;
}

int Groups::remember(const std::vector<int> &fds, const std::vector<uint64_t> &groups)
{
    for (size_t i = 0; i < fds.size(); i++) {
        // Registered before: of a file that another descriptor still holds open.
        if (!watch_closing(epoll_.get(), EPOLL_CTL_ADD, fds[i]) && errno != EEXIST)
            return -errno;
        known_.push_back({fds[i], groups[i]});
    }
    return !fds.empty();
}

int Groups::learn(const Tracefs &tracefs, const Facts &facts)
{
    forget_closed();
    const common::Lock lock(lock_);
    if (!epoll_)
        epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_)
        return -errno;
    std::vector<int> fds = inotify_descriptors();
    std::erase_if(fds, [this](int fd) REQUIRES(lock_) { return is_known(fd); });
    if (fds.empty() && !known_.empty())
        return 0;
    // With none of its own the process is to learn all the same whether they can be told apart.
    const Fd trial(fds.empty() ? inotify_init1(IN_CLOEXEC | IN_NONBLOCK) : -1);
    if (fds.empty() && !trial)
        return -errno;
    std::vector<uint64_t> groups;
    const int status = ask(tracefs, facts, trial ? std::vector<int>{trial.get()} : fds, groups);
    return status < 0 ? status : remember(fds, groups);
}

void Groups::forget_closed()
{
    const common::Lock lock(lock_);
    std::erase_if(known_, [this](const Known &known)
                              REQUIRES(lock_) { return !watch_closing(epoll_.get(), EPOLL_CTL_MOD, known.fd); });
}

bool Groups::has(uint64_t group)
{
    const common::Lock lock(lock_);
    return std::any_of(known_.begin(), known_.end(), [&](const Known &known) { return known.group == group; });
}

std::string Groups::filter(std::string_view text)
{
    const common::Lock lock(lock_);
    if (known_.size() > kMostInFilter)
        return std::string(text);
    std::string groups;
    for (const Known &known : known_) {
        char one[32];
        snprintf(one, sizeof(one), "%sg==0x%" PRIx64, groups.empty() ? "" : "||", known.group);
        groups += one;
    }
    groups = groups.empty() ? "g==0" : "(" + groups + ")";
    return text.empty() ? groups : "(" + std::string(text) + ")&&" + groups;
}

void Groups::abandon() NO_THREAD_SAFETY_ANALYSIS
{
    known_.clear();
    epoll_.reset();
}

}  // namespace kprobe
