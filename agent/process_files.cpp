#include "process_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <utility>

#include "container/cgroup.h"

namespace agent
{

namespace
{

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
bool parse_stat(std::string_view stat, ProcessStat &out)
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

std::optional<uint32_t> parse_user(std::string_view number)
{
    uint32_t uid = 0;
    if (std::from_chars(number.data(), number.data() + number.size(), uid).ec != std::errc())
        return {};
    return uid;
}

// The effective user: the second number of the line "Uid:".
std::optional<uint32_t> parse_status(std::string_view status)
{
    constexpr std::string_view kLine = "\nUid:\t";
    const size_t line = status.find(kLine);
    if (line == std::string_view::npos)
        return {};
    status.remove_prefix(line + kLine.size());
    const size_t tab = status.find('\t');
    if (tab == std::string_view::npos)
        return {};
    return parse_user(status.substr(tab + 1));
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

std::string path_of(const std::string &proc, uint32_t pid) { return proc + "/" + std::to_string(pid); }

std::string_view read_file(const common::Fd &fd, char *buf, size_t size)
{
    const ssize_t n = fd ? read(fd.get(), buf, size) : -1;
    return {buf, n > 0 ? static_cast<size_t>(n) : 0};
}

std::string_view read_file(const std::string &path, char *buf, size_t size)
{
    return read_file(common::Fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)), buf, size);
}

constexpr size_t kStatSize = 2048, kNameSize = 64;

std::string parse_name(std::string_view name)
{
    if (name.ends_with('\n'))
        name.remove_suffix(1);
    return std::string(name);
}

}  // namespace

bool read_stat(const std::string &proc, uint32_t pid, ProcessStat &out)
{
    char text[kStatSize];
    return parse_stat(read_file(path_of(proc, pid) + "/stat", text, sizeof text), out);
}

std::string read_name(const std::string &proc, uint32_t pid)
{
    char text[kNameSize];
    return parse_name(read_file(path_of(proc, pid) + "/comm", text, sizeof text));
}

ProcessFiles::ProcessFiles(const std::string &proc, uint32_t pid)
    : directory_(open(path_of(proc, pid).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
{
}

std::string_view ProcessFiles::read(const char *name, char *buf, size_t size) const
{
    const int fd = directory_ ? openat(directory_.get(), name, O_RDONLY | O_CLOEXEC) : -1;
    return read_file(common::Fd(fd), buf, size);
}

std::string ProcessFiles::exe() const
{
    char text[4096];
    const ssize_t n = directory_ ? readlinkat(directory_.get(), "exe", text, sizeof text) : -1;
    return {text, n > 0 ? static_cast<size_t>(n) : 0};
}

std::optional<std::string> ProcessFiles::cmdline() const
{
    char text[kMaxCmdline];
    const std::string_view arguments = read("cmdline", text, sizeof text);
    return arguments.empty() ? std::nullopt : std::optional(parse_cmdline(arguments));
}

std::string ProcessFiles::name() const
{
    char text[kNameSize];
    return parse_name(read("comm", text, sizeof text));
}

bool ProcessFiles::stat(ProcessStat &out) const
{
    char text[kStatSize];
    return parse_stat(read("stat", text, sizeof text), out);
}

std::string ProcessFiles::container() const
{
    char text[4096];
    return parse_container(read("cgroup", text, sizeof text));
}

std::optional<uint32_t> ProcessFiles::uid() const
{
    char text[4096];
    return parse_status(read("status", text, sizeof text));
}

std::optional<uint32_t> ProcessFiles::loginuid() const
{
    char text[16];
    const std::optional<uint32_t> user = parse_user(read("loginuid", text, sizeof text));
    return user == UINT32_MAX ? std::nullopt : user;
}

}  // namespace agent
