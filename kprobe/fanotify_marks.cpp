#include "fanotify_marks.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "common/fd.h"
#include "tracefs.h"

namespace kprobe
{

namespace
{

// Calls `body` with each name in a directory that is a number, until it returns true.
template <typename Body>
bool any_number(const std::string &path, Body &&body)
{
    const common::Dir directory(opendir(path.c_str()));
    while (const dirent *entry = directory ? readdir(directory.get()) : nullptr)
        if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9' && body(std::string(entry->d_name)))
            return true;
    return false;
}

bool is_fanotify(const std::string &link)
{
    char target[32];
    const ssize_t length = readlink(link.c_str(), target, sizeof(target));
    return length > 0 && std::string_view(target, static_cast<size_t>(length)) == "anon_inode:[fanotify]";
}

// The hexadecimal number behind " KEY" in a line. False: it is not there.
bool take_hex(std::string_view line, std::string_view key, uint32_t *out)
{
    const size_t at = line.find(key);
    if (at == std::string_view::npos)
        return false;
    const char *begin = line.data() + at + key.size();
    return std::from_chars(begin, line.data() + line.size(), *out, 16).ec == std::errc();
}

}  // namespace

bool has_fanotify_mark(std::string_view fdinfo, const FileSystem &where)
{
    while (!fdinfo.empty()) {
        const std::string_view line = fdinfo.substr(0, fdinfo.find('\n'));
        fdinfo.remove_prefix(std::min(line.size() + 1, fdinfo.size()));
        uint32_t number;
        if (line.substr(0, 9) != "fanotify ")
            continue;
        if (take_hex(line, " sdev:", &number) && number == where.device)
            return true;
        if (take_hex(line, " mnt_id:", &number) &&
            std::find(where.mounts.begin(), where.mounts.end(), static_cast<int32_t>(number)) != where.mounts.end())
            return true;
    }
    return false;
}

int fanotify_watcher(const std::string &proc, const FileSystem &where)
{
    int watcher = 0;
    any_number(proc, [&](const std::string &pid) {
        const std::string process = proc + "/" + pid;
        const bool found = any_number(process + "/fd", [&](const std::string &fd) {
            return is_fanotify(process + "/fd/" + fd) && has_fanotify_mark(read_file(process + "/fdinfo/" + fd), where);
        });
        if (found)
            watcher = atoi(pid.c_str());
        return found;
    });
    return watcher;
}

}  // namespace kprobe
