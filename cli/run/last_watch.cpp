#include "last_watch.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "common/fd.h"
#include "config_file.h"

namespace cli
{

namespace
{

// A file for each configuration, since several services may share the directory.
std::string name_of(const std::string &config_file)
{
    char real[PATH_MAX];
    std::string name = realpath(config_file.c_str(), real) ? real : config_file;
    std::replace(name.begin(), name.end(), '/', '-');
    constexpr size_t kMost = NAME_MAX - 20;
    return "watched" + (name.size() > kMost ? name.substr(name.size() - kMost) : name);
}

bool is_directory(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool write_file(const std::string &path, const std::string &text)
{
    const common::Fd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    const ssize_t written = fd ? write(fd.get(), text.data(), text.size()) : -1;
    if (written >= 0 && written < static_cast<ssize_t>(text.size()))
        errno = ENOSPC;
    return written == static_cast<ssize_t>(text.size());
}

}  // namespace

void LastWatch::open(const std::string &directory, const std::string &config_file, const std::string &boot)
{
    boot_ = boot;
    path_ = is_directory(directory) ? directory + "/" + name_of(config_file) : "";
    std::string text, error, boot_before;
    bool ended = false;
    if (path_.empty() || !read_config_file(path_, text, error))
        return;
    std::istringstream words(text);
    if (!(words >> before_.from_ns >> boot_before >> ended))
        return;
    for (std::string instance; words >> instance;)
        instances_.push_back(instance);
    before_.reason = ended ? "stopped" : boot_before == boot ? "killed" : "booted";
}

std::optional<output::Unwatched> LastWatch::gap(const std::string &instance, uint64_t now_ns) const
{
    if (before_.from_ns > now_ns || std::find(instances_.begin(), instances_.end(), instance) == instances_.end())
        return std::nullopt;
    return output::Unwatched{before_.from_ns, now_ns, before_.reason};
}

bool LastWatch::keep(uint64_t now_ns, const std::vector<std::string> &instances, bool ended, std::string &error) const
{
    if (path_.empty())
        return true;
    std::string text = std::to_string(now_ns) + " " + boot_ + " " + (ended ? "1" : "0") + "\n";
    for (const std::string &instance : instances)
        text += instance + "\n";
    const std::string unfinished = path_ + ".new";
    if (write_file(unfinished, text) && rename(unfinished.c_str(), path_.c_str()) == 0)
        return true;
    error = path_ + ": " + strerror(errno) + ": a later run will not know until when this one watched";
    return false;
}

}  // namespace cli
