#include "process_info.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "common/fd.h"
#include "container/cgroup.h"

namespace agent
{

namespace
{

constexpr size_t kMaxCmdline = 4096;
constexpr int kReadings = 3; /* of a process that does not keep still */

// Reads at most `size` bytes of one of the process's files; empty when it cannot be read.
std::string_view read_file(const std::string &folder, const char *name, char *buf, size_t size)
{
    const common::Fd fd(open((folder + name).c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t n = fd ? read(fd.get(), buf, size) : -1;
    return {buf, n > 0 ? static_cast<size_t>(n) : 0};
}

// The field behind `skip` blanks, or nothing.
std::string_view field(std::string_view text, int skip)
{
    for (; skip > 0; skip--) {
        const size_t blank = text.find(' ');
        if (blank == std::string_view::npos)
            return {};
        text.remove_prefix(blank + 1);
    }
    return text.substr(0, text.find_first_of(" \n"));
}

uint64_t number_of(std::string_view text)
{
    uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// "pid (name) state ppid ... starttime ...": the name may hold blanks and parentheses, so its end is the last ")". Of
// what follows, these are the bounds of the program's code and stack, of its data, arguments and environment.
bool parse_stat(std::string_view stat, ProcessPrint &out)
{
    constexpr int kParent = 1, kStart = 19, kCode = 23, kData = 42;
    const size_t open = stat.find('('), close = stat.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open || close + 2 > stat.size())
        return false;
    out.name = stat.substr(open + 1, close - open - 1);
    const std::string_view rest = stat.substr(close + 2);
    out.ppid = static_cast<uint32_t>(number_of(field(rest, kParent)));
    out.start = number_of(field(rest, kStart));
    out.image.clear();
    for (const auto &[first, count] : {std::pair(kCode, 3), std::pair(kData, 7)})
        for (int i = first; i < first + count; i++)
            out.image.append(field(rest, i)).push_back(' ');
    return true;
}

// The effective user: the second number of the line "Uid:".
std::optional<uint32_t> parse_uid(std::string_view status)
{
    constexpr std::string_view kLine = "\nUid:\t";
    const size_t line = status.find(kLine);
    if (line == std::string_view::npos)
        return {};
    status.remove_prefix(line + kLine.size());
    const size_t tab = status.find('\t');
    if (tab == std::string_view::npos)
        return {};
    uint32_t uid = 0;
    const std::string_view number = status.substr(tab + 1);
    if (std::from_chars(number.data(), number.data() + number.size(), uid).ec != std::errc())
        return {};
    return uid;
}

std::string parse_cmdline(std::string_view text)
{
    while (text.ends_with('\0'))
        text.remove_suffix(1);
    std::string joined(text);
    for (char &c : joined)
        c = c ? c : ' ';
    return joined;
}

std::string parse_container(std::string_view text)
{
    const container::Group group = container::parse_cgroup(text);
    return group.chain.empty() ? "" : container::label_of(group.chain[0], container::maker_of(group, ""));
}

std::string folder_of(const std::string &proc, uint32_t pid) { return proc + "/" + std::to_string(pid) + "/"; }

}  // namespace

// The start comes last: a process that was there then was there all the time.
bool read_print(const std::string &proc, uint32_t pid, ProcessPrint &out)
{
    const std::string folder = folder_of(proc, pid);
    struct stat st;
    if (stat(folder.c_str(), &st) != 0)
        return false;
    out.owner = st.st_uid;
    char text[4096];
    const ssize_t n = readlink((folder + "exe").c_str(), text, sizeof text);
    out.exe.assign(text, n > 0 ? static_cast<size_t>(n) : 0);
    return parse_stat(read_file(folder, "stat", text, sizeof text), out);
}

bool read_process(const std::string &proc, uint32_t pid, ProcessPrint &print, ProcessInfo &out)
{
    const std::string folder = folder_of(proc, pid);
    ProcessPrint again;
    bool seen = false;
    for (int i = 0; i < kReadings && read_print(proc, pid, print); i++) {
        char text[kMaxCmdline];
        seen = true;
        out = {print.name, print.exe, {}, {}, print.ppid, print.start, {}};
        out.uid = parse_uid(read_file(folder, "status", text, sizeof text));
        out.cmdline = parse_cmdline(read_file(folder, "cmdline", text, sizeof text));
        out.container = parse_container(read_file(folder, "cgroup", text, sizeof text));
        if (!read_print(proc, pid, again))
            break;
        if (again == print)
            return true;
    }
    out = {print.name, {}, {}, {}, print.ppid, print.start, {}};
    print.exe.clear(); /* no proof */
    return seen;
}

ProcessCache::ProcessCache(std::string proc) : proc_(std::move(proc)), slots_(kSlots) {}

ProcessPtr ProcessCache::find(uint32_t pid, uint64_t turn, uint64_t now_ms)
{
    if (pid == 0)
        return nullptr;
    Slot &slot = slots_[pid & (kSlots - 1)];
    if (slot.pid != pid)
        slot = Slot{pid, turn + 1, 0, nullptr};
    if (slot.turn != turn && !still_holds(slot, now_ms))
        read(slot, now_ms);
    slot.turn = turn;
    return slot.known ? ProcessPtr(slot.known, &slot.known->info) : nullptr;
}

// A process that may not be looked at could have become anything.
bool ProcessCache::still_holds(const Slot &slot, uint64_t now_ms) const
{
    if (!slot.known || slot.known->print.exe.empty() || now_ms - slot.read_ms >= kRefreshMs)
        return false;
    ProcessPrint print;
    return read_print(proc_, slot.pid, print) && print == slot.known->print;
}

void ProcessCache::read(Slot &slot, uint64_t now_ms) const
{
    Known fresh;
    slot.read_ms = now_ms;
    if (!read_process(proc_, slot.pid, fresh.print, fresh.info))
        slot.known = nullptr;
    else if (!slot.known || !(fresh.info == slot.known->info) || !(fresh.print == slot.known->print))
        slot.known = std::make_shared<const Known>(std::move(fresh));
}

}  // namespace agent
