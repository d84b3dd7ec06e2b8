#include "place.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace output
{

namespace
{

struct Free {
    void operator()(char *text) const { free(text); }
};

std::string directory_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

// In a directory with the sticky bit nobody takes away what is another's: the next one below is safe there.
bool others_may_write(const struct stat &st, bool sticky_will_do)
{
    if (st.st_uid != 0 && st.st_uid != geteuid())
        return true;
    return (st.st_mode & 022) != 0 && !(sticky_will_do && (st.st_mode & S_ISVTX) != 0);
}

}  // namespace

bool is_safe_place(const std::string &path, Shared shared, std::string &error, int &error_number)
{
    const std::string directory = directory_of(path);
    const std::unique_ptr<char, Free> real(realpath(directory.c_str(), nullptr));
    bool sticky_will_do = shared == Shared::kSticky;
    error_number = real ? 0 : errno;
    for (std::string at = real ? real.get() : ""; !at.empty(); at = at == "/" ? "" : directory_of(at)) {
        struct stat st;
        if (stat(at.c_str(), &st) != 0) {
            error_number = errno;
            break;
        }
        if (others_may_write(st, sticky_will_do)) {
            error = "others than root may write to " + at + ": chown it to root, chmod go-w";
            return false;
        }
        sticky_will_do = true;
    }
    if (error_number != 0)
        error = "cannot use " + directory + ": " + strerror(error_number);
    return error_number == 0;
}

}  // namespace output
