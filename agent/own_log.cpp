#include "own_log.h"

#include <algorithm>
#include <cstdlib>

#include "below.h"
#include "message.h"
#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_host.h"
#include "paths.h"

namespace agent
{

namespace
{

constexpr char kDirectory[] = "@/../var/log/agent/fmon"; /* as the monitor asks for it */
constexpr int kEachEvent = ORX_LOG_INFO;                 /* the level from which on events have lines */

// Below the directory that a variable of the environment names; empty: it names none.
std::string below(const char *variable, const char *rest)
{
    const char *directory = secure_getenv(variable);
    return directory && directory[0] == '/' ? std::string(directory) + rest : std::string();
}

// What is below a watched path, whatever the options: a tree may grow to where the log is.
bool is_watched(const Request &options, const std::string &directory)
{
    const std::string real = absolute_path(directory);
    return std::any_of(options.paths.begin(), options.paths.end(),
                       [&](const std::string &path) { return is_below(without_star(absolute_path(path)), real); });
}

std::vector<std::string> files_in(const std::string &directory)
{
    std::vector<std::string> files = {directory, directory + "/fmon.log"};
    for (int i = 1; i < kLogFiles; i++)
        files.push_back(directory + "/fmon.log." + std::to_string(i));
    return files;
}

}  // namespace

std::vector<std::string> log_directories(const Request &options, const std::string &installed)
{
    const std::string state = below("XDG_STATE_HOME", "/fmon");
    std::vector<std::string> directories = {installed, state.empty() ? below("HOME", "/.local/state/fmon") : state,
                                            below("XDG_RUNTIME_DIR", "/fmon")};
    std::erase_if(directories, [&](const std::string &directory) {
        return directory.empty() || (options.log_level >= kEachEvent && is_watched(options, directory));
    });
    return directories;
}

OwnLog open_own_log(const Request &options)
{
    char installed[512] = "";
    if (orx_dirutils_path_transform(kDirectory, installed, sizeof installed) != 0)
        installed[0] = '\0';
    for (const std::string &directory : log_directories(options, installed)) {
        if (autolog_init(directory.c_str(), kLogFiles) != 0)
            continue;
        orx_host_path_override(kDirectory, directory.c_str());
        return {files_in(absolute_path(directory)), {}};
    }
    detach_stderr();
    orx_host_path_override(kDirectory, "/dev/null/nowhere");
    if (options.log_level < kEachEvent)
        return {};
    return {{}, "no log is written: every place for it is watched, or may not be written to; see --log stderr"};
}

}  // namespace agent
