#include "log.h"

#include <cstdarg>
#include <cstdio>

#include "orx_base.h"

#pragma weak error_output  // a program that is no agent has none, and then nothing is logged

namespace kprobe
{

void log_line(int level, int line, const char *format, ...)
{
    if (!&error_output)
        return;
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    error_output(level, "kp_thread.c", line, "%s", text);
}

}  // namespace kprobe
