#include "release.h"

#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "guard.h"
#include "orx_host.h"

namespace host
{

namespace
{

bool is_digit(char c) { return c >= '0' && c <= '9'; }

/* Whether a number stands at `at`, which is moved behind it. */
bool skip_number(std::string_view text, size_t &at)
{
    const size_t start = at;
    while (at < text.size() && is_digit(text[at]))
        at++;
    return at > start;
}

/* The same of a separator and a number. */
bool skip_part(std::string_view text, char separator, size_t &at)
{
    size_t behind = at + 1;
    if (at >= text.size() || text[at] != separator || !skip_number(text, behind))
        return false;
    at = behind;
    return true;
}

}  // namespace

std::string plugin_release(std::string_view kernel)
{
    size_t at = 0;
    if (!skip_number(kernel, at) || !skip_part(kernel, '.', at))
        return std::string(kernel);
    const bool has_patch = skip_part(kernel, '.', at);
    const std::string numbers(kernel.substr(0, at));
    if (has_patch && skip_part(kernel, '-', at))
        return std::string(kernel);
    return numbers + (has_patch ? "-0" : ".0-0") + std::string(kernel.substr(numbers.size()));
}

}  // namespace host

int orx_host_uname(struct utsname *out) { return static_cast<int>(syscall(SYS_uname, out)); }

int orx_host_release(const char *kernel, char *out, size_t size)
{
    return host::without_exceptions(-1, [&] {
        const std::string release = host::plugin_release(kernel);
        if (size > 0)
            out[release.copy(out, size - 1)] = '\0';
        return static_cast<int>(release.size());
    });
}

/* In the place of the C library's, for plug-ins and the program. */
/* NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's name is reserved */
extern "C" int uname(struct utsname *out) noexcept
{
    const int result = orx_host_uname(out);
    char kernel[sizeof out->release];
    if (result == 0) {
        memcpy(kernel, out->release, sizeof kernel);
        orx_host_release(kernel, out->release, sizeof out->release);
    }
    return result;
}
