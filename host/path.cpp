#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "guard.h"
#include "orx_base.h"

namespace
{

/* The folder of the running program, empty when /proc does not tell. Asked anew each time: the kernel's link follows a
 * tree that is moved while the program runs. */
std::string program_folder()
{
    char exe[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", exe, sizeof exe);
    if (length <= 0 || length >= static_cast<ssize_t>(sizeof exe))
        return {};
    std::string path(exe, static_cast<size_t>(length));
    return path.substr(0, path.rfind('/'));
}

/* Where a relative FMON_HOME starts: the program may change its folder later. */
const std::string &start_folder()
{
    static const std::string folder = [] {
        char cwd[PATH_MAX];
        return std::string(getcwd(cwd, sizeof cwd) ? cwd : "");
    }();
    return folder;
}

[[gnu::constructor]] void remember_start_folder()
{
    host::without_exceptions(0, [] { return static_cast<int>(start_folder().size()); });
}

/* What "@" stands for. A program with more rights than its user does not follow the user's environment. */
std::string agent_folder()
{
    const char *home = secure_getenv("FMON_HOME");
    if (!home || !*home)
        return program_folder();
    return (home[0] == '/' ? std::string() : start_folder() + "/") + home + "/bin";
}

bool starts_with_agent_folder(const char *path) { return path[0] == '@' && (path[1] == '/' || path[1] == 0); }

int transform(const char *in, char *out, size_t out_size)
{
    std::string path = in;
    if (starts_with_agent_folder(in)) {
        std::string folder = agent_folder();
        if (folder.empty())
            return -1;
        path.replace(0, 1, folder);
    }
    return orx_str_strlcpy(out, path.c_str(), out_size) < out_size ? 0 : -1;
}

}  // namespace

/* "@" is a folder only as a whole path component: a file called "@home" stays what it is. */
int orx_dirutils_path_transform(const char *in, char *out, size_t out_size)
{
    if (!out || out_size == 0)
        return -1;
    out[0] = 0;
    if (!in)
        return -1;
    return host::without_exceptions(-1, [&] { return transform(in, out, out_size); });
}
