#include "watch_count.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace cli
{

namespace
{

std::atomic<uint64_t> g_placed, g_removed;
std::atomic<int> g_highest; /* the kernel numbers new watches upwards; an old number means a changed mask */

}  // namespace

uint64_t watches_placed()
{
    const uint64_t removed = g_removed.load(std::memory_order_relaxed);
    return g_placed.load(std::memory_order_relaxed) - removed;
}

}  // namespace cli

extern "C" __attribute__((visibility("default"))) int inotify_add_watch(int fd, const char *path, uint32_t mask)
{
    const int wd = static_cast<int>(syscall(SYS_inotify_add_watch, fd, path, mask));
    if (wd > cli::g_highest.load(std::memory_order_relaxed)) {
        cli::g_highest.store(wd, std::memory_order_relaxed);
        cli::g_placed.fetch_add(1, std::memory_order_relaxed);
    }
    return wd;
}

extern "C" __attribute__((visibility("default"))) int inotify_rm_watch(int fd, int wd)
{
    const int result = static_cast<int>(syscall(SYS_inotify_rm_watch, fd, wd));
    if (result == 0)
        cli::g_removed.fetch_add(1, std::memory_order_relaxed);
    return result;
}
