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

constexpr char kFolder[] = "@/../var/log/agent/fmon"; /* as the monitor asks for it */
constexpr int kEachEvent = ORX_LOG_INFO;              /* the level from which on events have lines */

// Below the directory that a variable of the environment names; empty: it names none.
std::string below(const char *variable, const char *rest)
{
    const char *folder = secure_getenv(variable);
    return folder && folder[0] == '/' ? std::string(folder) + rest : std::string();
}

// The directory below which all that matches lies.
std::string fixed_part(const std::string &path)
{
    const size_t star = path.find('*');
    return star == std::string::npos ? path : path.substr(0, std::max<size_t>(path.rfind('/', star), 1));
}

// What is below a watched path, whatever the options: a tree may grow to where the log is.
bool is_watched(const Request &options, const std::string &folder)
{
    const std::string real = absolute_path(folder);
    return std::any_of(options.paths.begin(), options.paths.end(),
                       [&](const std::string &path) { return is_below(fixed_part(absolute_path(path)), real); });
}

std::vector<std::string> files_in(const std::string &folder)
{
    std::vector<std::string> files = {folder, folder + "/fmon.log"};
    for (int i = 1; i < kLogFiles; i++)
        files.push_back(folder + "/fmon.log." + std::to_string(i));
    return files;
}

}  // namespace

std::vector<std::string> log_folders(const Request &options, const std::string &installed)
{
    const std::string state = below("XDG_STATE_HOME", "/fmon");
    std::vector<std::string> folders = {installed, state.empty() ? below("HOME", "/.local/state/fmon") : state,
                                        below("XDG_RUNTIME_DIR", "/fmon")};
    std::erase_if(folders, [&](const std::string &folder) {
        return folder.empty() || (options.log_level >= kEachEvent && is_watched(options, folder));
    });
    return folders;
}

OwnLog open_own_log(const Request &options)
{
    char installed[512] = "";
    if (orx_dirutils_path_transform(kFolder, installed, sizeof installed) != 0)
        installed[0] = '\0';
    for (const std::string &folder : log_folders(options, installed)) {
        if (autolog_init(folder.c_str(), kLogFiles) != 0)
            continue;
        orx_host_path_override(kFolder, folder.c_str());
        return {files_in(absolute_path(folder)), {}};
    }
    detach_stderr();
    orx_host_path_override(kFolder, "/dev/null/nowhere");
    if (options.log_level < kEachEvent)
        return {};
    return {{}, "no log is written: every place for it is watched, or may not be written to; see --log stderr"};
}

}  // namespace agent
