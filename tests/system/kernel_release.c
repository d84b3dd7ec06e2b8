/* Preloaded by a test: a kernel of the release that FMON_TEST_KERNEL says, for whoever asks it by syscall(). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/utsname.h>

typedef long (*syscall_function)(long, long, long, long, long, long, long);

__attribute__((visibility("default"))) long syscall(long number, ...)
{
    static syscall_function next;
    if (!next)
        *(void **)&next = dlsym(RTLD_NEXT, "syscall");
    long arguments[6];
    va_list list;
    va_start(list, number);
    for (int i = 0; i < 6; i++)
        arguments[i] = va_arg(list, long);
    va_end(list);
    const long result =
        next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
    const char *release = getenv("FMON_TEST_KERNEL");
    if (number == SYS_uname && result == 0 && release) {
        struct utsname *name = (struct utsname *)arguments[0];
        snprintf(name->release, sizeof name->release, "%s", release);
    }
    return result;
}
