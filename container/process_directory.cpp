#include "process_directory.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "files.h"

namespace container
{

namespace
{

constexpr size_t kMaxText = size_t{64} * 1024;
constexpr size_t kPathSize = 64;

Fd open_of(int proc, int pid, const char *name)
{
    char path[kPathSize];
    snprintf(path, sizeof path, "%d/%s", pid, name);
    return Fd(openat(proc, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
}

uint64_t parse_number(std::string_view text)
{
    uint64_t number = 0;
    return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc() ? number : 0;
}

}  // namespace

// The link is read, not followed: "mnt:[4026531841]".
uint64_t mount_namespace(int proc, int pid)
{
    char path[kPathSize], target[kPathSize];
    snprintf(path, sizeof path, "%d/ns/mnt", pid);
    const ssize_t n = readlinkat(proc, path, target, sizeof target);
    const std::string_view text(target, n > 0 ? static_cast<size_t>(n) : 0);
    return text.starts_with("mnt:[") && text.ends_with("]") ? parse_number(text.substr(5)) : 0;
}

// "PID (NAME) STATE ...", the start being the 20th field after the name. The process chose the name, which may hold
// anything: it ends at the last ")".
uint64_t parse_start_time(std::string_view stat)
{
    constexpr int kFieldsBefore = 20;
    const size_t close = stat.rfind(')');
    stat.remove_prefix(close == std::string_view::npos ? stat.size() : close + 1);
    for (int i = 0; i < kFieldsBefore; i++) {
        const size_t blank = stat.find(' ');
        if (blank == std::string_view::npos)
            return UINT64_MAX;
        stat.remove_prefix(blank + 1);
    }
    const uint64_t start = parse_number(stat);
    return start ? start : UINT64_MAX;
}

uint64_t start_time(int proc, int pid)
{
    char text[4096];
    const Fd file = open_of(proc, pid, "stat");
    const ssize_t n = file ? read(file.get(), text, sizeof text) : -1;
    return n > 0 ? parse_start_time({text, static_cast<size_t>(n)}) : UINT64_MAX;
}

Group process_group(int proc, int pid)
{
    std::string text;
    const Fd file = open_of(proc, pid, "cgroup");
    return file && read_all(file.get(), kMaxText, text) ? parse_cgroup(text) : Group();
}

void MountNumbers::feed(std::string_view piece, const std::function<void(uint64_t)> &take)
{
    size_t i = 0;
    while (i < piece.size()) {
        if (state_ == kRest) {
            const void *end = memchr(piece.data() + i, '\n', piece.size() - i);
            if (!end)
                return;
            i = static_cast<size_t>(static_cast<const char *>(end) - piece.data()) + 1;
            state_ = kStart;
            continue;
        }
        const char c = piece[i++];
        if (c >= '0' && c <= '9') {
            number_ = (state_ == kStart ? 0 : number_ * 10) + static_cast<uint64_t>(c - '0');
            state_ = kDigits;
            continue;
        }
        if (c == ' ' && state_ == kDigits)
            take(number_);
        state_ = c == '\n' ? kStart : kRest;
    }
}

// The kernel hands out a list in pieces of its own size: only an empty one is the end.
ListEnd list_mounts(int proc, int pid, size_t &budget, const std::function<void(uint64_t)> &take)
{
    const Fd file = open_of(proc, pid, "mountinfo");
    if (!file)
        return ListEnd::kFailed;
    std::vector<char> piece(size_t{64} * 1024);
    MountNumbers numbers;
    const size_t before = budget;
    while (budget > 0) {
        const ssize_t n = read(file.get(), piece.data(), std::min(piece.size(), budget));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n == 0 && budget < before ? ListEnd::kWhole : ListEnd::kFailed;
        numbers.feed({piece.data(), static_cast<size_t>(n)}, take);
        budget -= static_cast<size_t>(n);
    }
    return ListEnd::kCut;
}

}  // namespace container
