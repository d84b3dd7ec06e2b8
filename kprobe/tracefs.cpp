#include "tracefs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "common/fd.h"
#include "fanotify_marks.h"
#include "mounts.h"

namespace kprobe
{

using common::Fd;

namespace
{

constexpr char kPrefix[] = "orx_";

constexpr const char *kRoots[] = {"/sys/kernel/tracing", "/sys/kernel/debug/tracing"};

// Takes a number and the '_' behind it.
bool take_number(std::string_view &text, uint64_t &out)
{
    size_t digits = 0;
    out = 0;
    while (digits < text.size() && isdigit(static_cast<unsigned char>(text[digits])))
        out = out * 10 + static_cast<uint64_t>(text[digits++] - '0');
    if (digits == 0 || digits > 19 || digits >= text.size() || text[digits] != '_')
        return false;
    text.remove_prefix(digits + 1);
    return true;
}

// Field 22 of /proc/PID/stat; the second field, the program's name, may hold anything but ends with the last ')'.
uint64_t start_time(int pid)
{
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t at = stat.rfind(')');
    for (int field = 2; field < 22 && at != std::string::npos; field++)
        at = stat.find(' ', at + 1);
    return at == std::string::npos ? 0 : strtoull(stat.c_str() + at, nullptr, 10);
}

// The number behind "KEY:" in a line of a format file.
uint32_t number_behind(std::string_view line, std::string_view key)
{
    const size_t at = line.find(key);
    return at == std::string_view::npos ? 0
                                        : static_cast<uint32_t>(strtoul(line.data() + at + key.size(), nullptr, 10));
}

// "field:u64 l[4];" names "l".
std::string_view field_name(std::string_view line)
{
    const size_t end = line.find(';');
    std::string_view declared = line.substr(0, end);
    declared = declared.substr(0, declared.find('['));
    return declared.substr(declared.rfind(' ') + 1);
}

template <typename Body>
void each_line(std::string_view text, Body &&body)
{
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        body(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

std::string reason_for(int error)
{
    if (error == EPERM || error == EACCES)
        return "no permission for kernel probes: they need root, and a kernel that is not locked down";
    return std::string("kernel probes cannot be controlled: ") + strerror(error);
}

}  // namespace

std::string read_file(const std::string &path)
{
    const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    if (!fd)
        return text;
    char block[16384];
    ssize_t got;
    while ((got = read(fd.get(), block, sizeof(block))) > 0)
        text.append(block, static_cast<size_t>(got));
    return text;
}

int write_file(const std::string &path, const std::string &text, bool append)
{
    // Without O_APPEND opening kprobe_events would delete every definition of the system.
    const Fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC | (append ? O_APPEND : 0)));
    if (!fd)
        return -errno;
    return write(fd.get(), text.data(), text.size()) < 0 ? -errno : 0;
}

// ---- groups ----

Owner current_owner() { return {getpid(), start_time(getpid())}; }

bool is_alive(const Owner &owner) { return start_time(owner.pid) == owner.started && owner.started != 0; }

std::string group_name(const Owner &owner, unsigned serial, std::string_view name)
{
    char head[64];
    snprintf(head, sizeof(head), "%s%d_%" PRIu64 "_%u_", kPrefix, owner.pid, owner.started, serial);
    std::string group = head;
    for (const char c : name.substr(0, 16))  // the kernel's limit for the whole is 63
        group += isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return group;
}

bool owner_of_group(std::string_view group, Owner &out)
{
    uint64_t pid, started, serial;
    if (group.substr(0, strlen(kPrefix)) != kPrefix)
        return false;
    group.remove_prefix(strlen(kPrefix));
    if (!take_number(group, pid) || !take_number(group, started) || !take_number(group, serial))
        return false;
    out = {static_cast<int>(pid), started};
    return true;
}

// ---- texts of the kernel ----

std::vector<RawField> parse_format(std::string_view text)
{
    std::vector<RawField> fields;
    each_line(text, [&](std::string_view line) {
        if (line.find("field:") == std::string_view::npos)
            return;
        const std::string_view name = field_name(line);
        if (name.substr(0, 7) == "common_" || name == "__probe_ip")
            return;
        fields.push_back({std::string(name), number_behind(line, "offset:"), number_behind(line, "size:")});
    });
    return fields;
}

std::string last_error(std::string_view log)
{
    std::string found;
    each_line(log, [&](std::string_view line) {
        constexpr std::string_view kMark = ": error: ";
        const size_t at = line.find(kMark);
        if (at != std::string_view::npos)
            found = line.substr(at + kMark.size());
    });
    return found;
}

// ---- control files ----

std::string Tracefs::event_file(const std::string &group, const std::string &event, const char *name) const
{
    return file("events/" + group + "/" + event + "/" + name);
}

bool Tracefs::find(std::string &why)
{
    why = "tracefs is not mounted: mount -t tracefs tracefs /sys/kernel/tracing";
    for (const char *root : kRoots) {
        root_ = root;
        if (access(file("README").c_str(), F_OK) != 0 && access(file("trace").c_str(), F_OK) != 0) {
            if (errno == EACCES || errno == EPERM)
                why = reason_for(errno);
            continue;
        }
        const Fd fd(open(file("kprobe_events").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        if (fd)
            return true;
        why = errno == ENOENT ? "this kernel has no kernel probes (CONFIG_KPROBE_EVENTS)" : reason_for(errno);
    }
    return false;
}

int Tracefs::define(const std::string &command, std::string &why) const
{
    const int status = write_file(file("kprobe_events"), command, true);
    if (status == 0)
        return 0;
    why = last_error(read_file(file("error_log")));
    if (why.empty())
        why = strerror(-status);
    return status;
}

int Tracefs::remove(const std::string &group, const std::string &event) const
{
    return write_file(file("kprobe_events"), "-:" + group + "/" + event, true);
}

int Tracefs::event_id(const std::string &group, const std::string &event) const
{
    const std::string text = read_file(event_file(group, event, "id"));
    return text.empty() ? -1 : atoi(text.c_str());
}

std::vector<RawField> Tracefs::format(const std::string &group, const std::string &event) const
{
    return parse_format(read_file(event_file(group, event, "format")));
}

std::string Tracefs::filter_error(const std::string &group, const std::string &event, const std::string &filter) const
{
    const int status = write_file(event_file(group, event, "filter"), filter, false);
    std::string text = status < 0 ? last_error(read_file(file("error_log"))) : "";
    write_file(event_file(group, event, "filter"), "0", false);
    return text.empty() ? strerror(EINVAL) : text;
}

int Tracefs::watcher() const
{
    struct stat st;
    if (stat(root_.c_str(), &st) < 0)
        return 0;
    FileSystem where = {static_cast<uint32_t>(major(st.st_dev) << 20 | minor(st.st_dev)), {}};
    for (const Mount &mount : read_mounts())
        if (mount.device == where.device)
            where.mounts.push_back(mount.id);
    return fanotify_watcher("/proc", where);
}

uint64_t Tracefs::missed(const std::string &event) const
{
    uint64_t misses = 0;
    each_line(read_file(file("kprobe_profile")), [&](std::string_view line) {
        char name[128];
        unsigned long long hits, missed;
        if (sscanf(std::string(line).c_str(), "%127s %llu %llu", name, &hits, &missed) == 3 && event == name)
            misses += missed;
    });
    return misses;
}

int Tracefs::remove_orphans() const
{
    int removed = 0;
    each_line(read_file(file("kprobe_events")), [&](std::string_view line) {
        const size_t colon = line.find(':'), slash = line.find('/'), end = line.find(' ');
        Owner owner;
        if (colon == std::string_view::npos || slash == std::string_view::npos || end == std::string_view::npos ||
            slash < colon || end < slash)
            return;
        const std::string group(line.substr(colon + 1, slash - colon - 1));
        // What a living process holds could not be deleted anyway: it is busy.
        if (owner_of_group(group, owner) && !is_alive(owner) &&
            remove(group, std::string(line.substr(slash + 1, end - slash - 1))) == 0)
            removed++;
    });
    return removed;
}

bool Tracefs::knows_arrays() const { return read_file(file("README")).find("<array-size>") != std::string::npos; }

}  // namespace kprobe
