#include "process_info.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "container/cgroup.h"

namespace cli
{

namespace
{

constexpr size_t kMaxCmdline = 4096;

// Reads at most `size` bytes of a file in the process's folder; -1 when it cannot be read.
ssize_t read_file(int dir, const char *name, char *buf, size_t size)
{
    const int fd = openat(dir, name, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    const ssize_t n = read(fd, buf, size);
    close(fd);
    return n;
}

uint64_t number_field(std::string_view text, int skip)
{
    for (; skip > 0; skip--) {
        const size_t blank = text.find(' ');
        if (blank == std::string_view::npos)
            return 0;
        text.remove_prefix(blank + 1);
    }
    uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// "pid (name) state ppid ... starttime": the name may hold blanks and parentheses, so its end is the last ")".
bool parse_stat(std::string_view stat, ProcessInfo &out)
{
    const size_t open = stat.find('('), close = stat.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open || close + 2 > stat.size())
        return false;
    out.name = stat.substr(open + 1, close - open - 1);
    const std::string_view rest = stat.substr(close + 2);
    out.ppid = static_cast<uint32_t>(number_field(rest, 1));
    out.start = number_field(rest, 19);
    return true;
}

// The effective user: the second number of the line "Uid:". The folder's owner will not do: it is root for processes
// that may not be dumped.
uint32_t parse_uid(std::string_view status)
{
    const size_t line = status.find("\nUid:\t");
    if (line == std::string_view::npos)
        return 0;
    std::string_view rest = status.substr(line + 6);
    const size_t tab = rest.find('\t');
    return tab == std::string_view::npos ? 0 : static_cast<uint32_t>(number_field(rest.substr(tab + 1), 0));
}

void read_exe(int dir, ProcessInfo &out)
{
    char target[4096];
    const ssize_t n = readlinkat(dir, "exe", target, sizeof target);
    if (n > 0)
        out.exe.assign(target, static_cast<size_t>(n));
}

void read_cmdline(int dir, ProcessInfo &out)
{
    char text[kMaxCmdline];
    ssize_t n = read_file(dir, "cmdline", text, sizeof text);
    while (n > 0 && text[n - 1] == '\0')
        n--;
    for (ssize_t i = 0; i < n; i++)
        out.cmdline.push_back(text[i] ? text[i] : ' ');
}

void read_container(int dir, char *buf, size_t size, ProcessInfo &out)
{
    const ssize_t n = read_file(dir, "cgroup", buf, size);
    const container::Group group = container::parse_cgroup({buf, n > 0 ? static_cast<size_t>(n) : 0});
    out.container = group.chain.empty() ? "" : container::label_of(group.chain[0], container::maker_of(group, ""));
}

// A process that has ended and waits for its parent still has its name, but no program and command line any more.
bool tells_more(const ProcessInfo &fresh, const ProcessInfo &known)
{
    const bool is_remnant = fresh.start == known.start && fresh.exe.empty() && fresh.cmdline.empty();
    return !is_remnant && !(fresh == known);
}

}  // namespace

bool read_process(const char *proc, uint32_t pid, ProcessInfo &out)
{
    char path[64];
    snprintf(path, sizeof path, "%.40s/%u", proc, pid);
    const int dir = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return false;
    char text[4096];
    ssize_t n = read_file(dir, "stat", text, sizeof text);
    const bool found = n > 0 && parse_stat({text, static_cast<size_t>(n)}, out);
    if (found) {
        n = read_file(dir, "status", text, sizeof text);
        out.uid = n > 0 ? parse_uid({text, static_cast<size_t>(n)}) : 0;
        read_exe(dir, out);
        read_cmdline(dir, out);
        read_container(dir, text, sizeof text, out);
    }
    close(dir);
    return found;
}

ProcessCache::ProcessCache(std::string proc) : proc_(std::move(proc)), slots_(kSlots) {}

ProcessPtr ProcessCache::find(uint32_t pid, uint64_t now_ms)
{
    if (pid == 0)
        return nullptr;
    Slot &slot = slots_[pid & (kSlots - 1)];
    if (slot.pid != pid)
        slot = Slot{pid, 0, 0, nullptr};
    else if (now_ms - slot.read_ms < kRefreshMs)
        return slot.info;
    refresh(slot, now_ms);
    return slot.info;
}

void ProcessCache::refresh(Slot &slot, uint64_t now_ms) const
{
    ProcessInfo fresh;
    slot.read_ms = now_ms;
    if (read_process(proc_.c_str(), slot.pid, fresh)) {
        slot.alive_ms = now_ms;
        if (!slot.info || tells_more(fresh, *slot.info))
            slot.info = std::make_shared<const ProcessInfo>(std::move(fresh));
    } else if (now_ms - slot.alive_ms >= kKeepMs) {
        slot.info = nullptr;
    }
}

}  // namespace cli
