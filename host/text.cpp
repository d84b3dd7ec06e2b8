/* The text functions of orx_base.h, and the end of a library. */

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "orx_base.h"

/* Returns what snprintf returns: the length of the whole text. */
int orx_str_snprintf(char *out, size_t size, const char *fmt, ...)
{
    if (!out)
        size = 0;
    va_list args;
    va_start(args, fmt);
    /* NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is not seen through */
    int length = vsnprintf(out, size, fmt, args);
    va_end(args);
    if (length < 0 && size > 0)
        out[0] = 0;
    return length;
}

char *orx_strncpy(char *dst, const char *src, size_t n)
{
    size_t length = src ? strnlen(src, n) : 0;
    if (length > 0)
        memcpy(dst, src, length);
    if (n > length)
        memset(dst + length, 0, n - length);
    return dst;
}

size_t orx_str_strlcpy(char *dst, const char *src, size_t size)
{
    size_t length = src ? strlen(src) : 0;
    if (size > 0) {
        size_t copied = length < size ? length : size - 1;
        if (copied > 0)
            memcpy(dst, src, copied);
        dst[copied] = 0;
    }
    return length;
}

int orx_dll_close(void *handle) { return handle ? dlclose(handle) : -1; }
