#include "marks.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <charconv>
#include <cstring>
#include <functional>
#include <string_view>

#include "common/fd.h"

namespace agent
{

namespace
{

constexpr std::string_view kInotifyLine = "inotify wd:", kFanotifyLine = "fanotify ",
                           kMountField = " mnt_id:", kDeviceField = " sdev:";

void for_each_number(const std::string &directory, const std::function<void(const char *)> &fn)
{
    const common::Dir dir(opendir(directory.c_str()));
    if (!dir)
        return;
    while (const struct dirent *entry = readdir(dir.get()))
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])))
            fn(entry->d_name);
}

bool find_hex(std::string_view line, std::string_view field, uint64_t &out)
{
    const size_t at = line.find(field);
    if (at == std::string_view::npos)
        return false;
    const char *begin = line.data() + at + field.size();
    return std::from_chars(begin, line.data() + line.size(), out, 16).ec == std::errc();
}

// One line of a descriptor's information. Long files come in pieces, but no line is as long as a piece.
void count_line(std::string_view line, Marks &marks)
{
    if (line.substr(0, kInotifyLine.size()) == kInotifyLine) {
        marks.inotify_watches++;
    } else if (line.substr(0, kFanotifyLine.size()) == kFanotifyLine) {
        uint64_t number;
        if (find_hex(line, kMountField, number))
            marks.fanotify_mounts.push_back(number);
        if (find_hex(line, kDeviceField, number))
            marks.fanotify_devices.insert(static_cast<uint32_t>(number));
    }
}

void count_lines(const std::string &path, Marks &marks)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    std::string text(64 << 10, '\0');
    size_t kept = 0;
    ssize_t n;
    while ((n = read(fd, text.data() + kept, text.size() - kept)) > 0) {
        std::string_view rest(text.data(), kept + static_cast<size_t>(n));
        size_t end;
        while ((end = rest.find('\n')) != std::string_view::npos) {
            count_line(rest.substr(0, end), marks);
            rest.remove_prefix(end + 1);
        }
        kept = rest.size() < text.size() ? rest.size() : 0;
        memmove(text.data(), rest.data(), kept);
    }
    close(fd);
}

}  // namespace

Marks &Marks::operator+=(const Marks &other)
{
    inotify_instances += other.inotify_instances;
    inotify_watches += other.inotify_watches;
    fanotify_instances += other.fanotify_instances;
    fanotify_mounts.insert(fanotify_mounts.end(), other.fanotify_mounts.begin(), other.fanotify_mounts.end());
    fanotify_devices.insert(other.fanotify_devices.begin(), other.fanotify_devices.end());
    return *this;
}

// Descriptors may be closed, and processes end, while they are looked at: what is gone counts as nothing.
Marks process_marks(const std::string &process, const char *proc)
{
    Marks marks;
    const std::string directory = std::string(proc) + "/" + process;
    for_each_number(directory + "/fd", [&](const char *fd) {
        char target[64];
        const ssize_t n = readlink((directory + "/fd/" + fd).c_str(), target, sizeof target);
        const std::string_view name(target, n > 0 ? static_cast<size_t>(n) : 0);
        if (name == "anon_inode:inotify")
            marks.inotify_instances++;
        else if (name == "anon_inode:[fanotify]")
            marks.fanotify_instances++;
        else
            return;
        count_lines(directory + "/fdinfo/" + fd, marks);
    });
    return marks;
}

Marks user_marks(uid_t uid, const char *proc)
{
    Marks all;
    for_each_number(proc, [&](const char *process) {
        struct stat st;
        if (stat((std::string(proc) + "/" + process).c_str(), &st) == 0 && st.st_uid == uid)
            all += process_marks(process, proc);
    });
    return all;
}

std::map<uid_t, Marks> marks_by_user(const char *proc)
{
    std::map<uid_t, Marks> users;
    for_each_number(proc, [&](const char *process) {
        struct stat st;
        if (stat((std::string(proc) + "/" + process).c_str(), &st) == 0)
            users[st.st_uid] += process_marks(process, proc);
    });
    return users;
}

uint64_t read_number(const char *path)
{
    char text[32] = {};
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    const ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    uint64_t value = 0;
    if (n > 0)
        std::from_chars(text, text + n, value);
    return value;
}

}  // namespace agent
