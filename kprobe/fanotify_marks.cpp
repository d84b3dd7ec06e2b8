#include "fanotify_marks.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "open_files.h"
#include "tracefs.h"

namespace kprobe
{

namespace
{

// The hexadecimal number behind " KEY" in a line. False: it is not there.
bool take_hex(std::string_view line, std::string_view key, uint32_t &out)
{
    const size_t at = line.find(key);
    if (at == std::string_view::npos)
        return false;
    const char *begin = line.data() + at + key.size();
    return std::from_chars(begin, line.data() + line.size(), out, 16).ec == std::errc();
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
        if (take_hex(line, " sdev:", number) && number == where.device)
            return true;
        if (take_hex(line, " mnt_id:", number) &&
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
            return leads_to(process + "/fd/" + fd, "anon_inode:[fanotify]") &&
                   has_fanotify_mark(read_file(process + "/fdinfo/" + fd), where);
        });
        if (found)
            watcher = atoi(pid.c_str());
        return found;
    });
    return watcher;
}

}  // namespace kprobe
