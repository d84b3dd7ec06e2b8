#include "watch_count.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>

namespace agent
{

namespace
{

std::atomic<uint64_t> g_placed, g_removed;
std::atomic<int> g_highest; /* the kernel numbers new watches upwards; an old number means a changed mask */
std::atomic<void (*)(const char *)> g_listener, g_refusals;
thread_local bool t_is_listener; /* what the listener's own thread places is no news to it */

// A monitor that has the directory open names it by its descriptor.
void tell(void (*listener)(const char *), const char *path)
{
    constexpr char kDescriptors[] = "/proc/self/fd/";
    char target[PATH_MAX];
    if (strncmp(path, kDescriptors, sizeof kDescriptors - 1) != 0)
        return listener(path);
    const ssize_t n = readlink(path, target, sizeof target - 1);
    if (n <= 0)
        return;
    target[n] = '\0';
    listener(target);
}

void placed(int wd, const char *path)
{
    g_highest.store(wd, std::memory_order_relaxed);
    g_placed.fetch_add(1, std::memory_order_relaxed);
    void (*const listener)(const char *) = g_listener.load(std::memory_order_acquire);
    if (listener && !t_is_listener)
        tell(listener, path);
}

void refused(const char *path)
{
    const int error = errno;
    if (void (*const listener)(const char *) = g_refusals.load(std::memory_order_acquire))
        tell(listener, path);
    errno = error;
}

}  // namespace

uint64_t watches_placed()
{
    const uint64_t removed = g_removed.load(std::memory_order_relaxed);
    return g_placed.load(std::memory_order_relaxed) - removed;
}

void listen_to_watches(void (*listener)(const char *path))
{
    t_is_listener = true;
    g_listener.store(listener, std::memory_order_release);
}

void listen_to_refusals(void (*listener)(const char *path)) { g_refusals.store(listener, std::memory_order_release); }

}  // namespace agent

extern "C" __attribute__((visibility("default"))) int inotify_add_watch(int fd, const char *path, uint32_t mask)
{
    const int wd = static_cast<int>(syscall(SYS_inotify_add_watch, fd, path, mask));
    if (wd > agent::g_highest.load(std::memory_order_relaxed))
        agent::placed(wd, path);
    else if (wd < 0 && (errno == EACCES || errno == EPERM))
        agent::refused(path);
    return wd;
}

extern "C" __attribute__((visibility("default"))) int inotify_rm_watch(int fd, int wd)
{
    const int result = static_cast<int>(syscall(SYS_inotify_rm_watch, fd, wd));
    if (result == 0)
        agent::g_removed.fetch_add(1, std::memory_order_relaxed);
    return result;
}
