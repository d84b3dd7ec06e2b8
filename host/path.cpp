/* "@" in a path becomes the place of the installation; orx_base.h, orx_host.h, places.h. */

#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include <unistd.h>

#include "common/mutex.h"
#include "guard.h"
#include "orx_base.h"
#include "orx_host.h"
#include "places.h"

namespace
{

/* The directory of the running program, empty when /proc does not say. Asked anew each time: the kernel's link follows
 * a tree that is moved while the program runs. */
std::string program_directory()
{
    char exe[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", exe, sizeof exe);
    if (length <= 0 || length >= static_cast<ssize_t>(sizeof exe))
        return {};
    std::string path(exe, static_cast<size_t>(length));
    return path.substr(0, path.rfind('/'));
}

/* Where a relative FMON_HOME starts: the program may change its directory later. */
const std::string &start_directory()
{
    static const std::string directory = [] {
        char cwd[PATH_MAX];
        return std::string(getcwd(cwd, sizeof cwd) ? cwd : "");
    }();
    return directory;
}

/* The loader's name of this library may start there, too. */
[[gnu::constructor]] void remember_directories()
{
    host::without_exceptions(
        0, [] { return static_cast<int>(start_directory().size() + host::library_directory().size()); });
}

/* A program with more rights than its user does not follow the user's environment. */
std::optional<std::string> agent_home()
{
    const char *home = secure_getenv("FMON_HOME");
    if (!home || !*home)
        return std::nullopt;
    return (home[0] == '/' ? std::string() : start_directory() + "/") + home;
}

/* A path that begins with "@"; empty when that place is not known. */
std::string below_agent(const std::string &path)
{
    if (const auto home = agent_home())
        return *home + "/bin" + path.substr(1);
    const std::string directory = program_directory();
    if (const auto place = host::system_place(path, directory, host::library_directory()))
        return *place;
    return directory.empty() ? directory : directory + path.substr(1);
}

bool starts_with_agent_directory(const char *path) { return path[0] == '@' && (path[1] == '/' || path[1] == 0); }

/* What orx_host_path_override has set, for the life of the process. */
struct Overrides {
    common::Mutex lock;
    std::map<std::string, std::string> targets GUARDED_BY(lock);
};

Overrides &overrides()
{
    static Overrides *const all = new Overrides; /* never destroyed: threads may ask while the process ends */
    return *all;
}

std::optional<std::string> overridden(const std::string &path)
{
    Overrides &set = overrides();
    const common::Lock hold(set.lock);
    const auto found = set.targets.find(path);
    return found == set.targets.end() ? std::nullopt : std::optional(found->second);
}

void set_override(const char *path, const char *target)
{
    Overrides &set = overrides();
    const common::Lock hold(set.lock);
    if (target)
        set.targets[path] = target;
    else
        set.targets.erase(path);
}

int copy_path(const std::string &path, char *out, size_t out_size)
{
    return orx_str_strlcpy(out, path.c_str(), out_size) < out_size ? 0 : -1;
}

int transform(const char *in, char *out, size_t out_size)
{
    std::string path = in;
    if (const auto target = overridden(path))
        return copy_path(*target, out, out_size);
    if (starts_with_agent_directory(in))
        path = below_agent(path);
    return path.empty() && *in ? -1 : copy_path(path, out, out_size);
}

}  // namespace

/* "@" is a directory only as a whole path component: a file called "@home" stays what it is. */
int orx_dirutils_path_transform(const char *in, char *out, size_t out_size)
{
    if (!out || out_size == 0)
        return -1;
    out[0] = 0;
    if (!in)
        return -1;
    return host::without_exceptions(-1, [&] { return transform(in, out, out_size); });
}

int orx_host_path_override(const char *path, const char *target)
{
    if (!path)
        return -1;
    return host::without_exceptions(-1, [=] {
        set_override(path, target);
        return 0;
    });
}
