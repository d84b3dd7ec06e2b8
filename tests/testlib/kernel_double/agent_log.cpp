#include "testlib/kernel_double/agent_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "orx_base.h"

namespace
{

/* Fixed memory: lines come in while every allocation fails. */
constexpr int kLines = 256;
char lines[kLines][512];
int used;
int locked;

struct Lock {
    Lock()
    {
        while (__atomic_exchange_n(&locked, 1, __ATOMIC_ACQUIRE) != 0) {
        }
    }
    ~Lock() { __atomic_store_n(&locked, 0, __ATOMIC_RELEASE); }
};

}  // namespace

extern "C" {

int error_output_level = 3;

void error_output(int level, const char *, int, const char *fmt, ...)
{
    const Lock lock;
    if (used == kLines)
        return;
    const int n = snprintf(lines[used], sizeof(lines[used]), "%d ", level);
    va_list args;
    va_start(args, fmt);
    vsnprintf(lines[used] + n, sizeof(lines[used]) - static_cast<size_t>(n), fmt, args);
    va_end(args);
    used++;
}

int orx_str_snprintf(char *out, size_t size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int n = vsnprintf(out, size, fmt, args);
    va_end(args);
    return n;
}

} /* extern "C" */

namespace testlib
{

std::vector<std::string> take_log()
{
    const Lock lock;
    std::vector<std::string> out(lines, lines + used);
    used = 0;
    return out;
}

bool has_line(const std::vector<std::string> &list, const std::string &text)
{
    for (const std::string &line : list)
        if (line.find(text) != std::string::npos)
            return true;
    return false;
}

}  // namespace testlib
