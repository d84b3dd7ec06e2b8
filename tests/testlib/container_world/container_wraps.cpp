/* The wrapped calls of wrapped.txt: each fails where a test's Fault says so, and is the C library's otherwise. */
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstddef>

#include "testlib/container_world/container_world.h"
#include "testlib/fault_switch.h"

using testlib::Call;
using testlib::injected_error;

namespace
{

std::atomic<int64_t> passed{0};

/* Whether the call fails; errno says how. */
bool fails(Call call)
{
    const int error = injected_error(call);
    if (error != 0)
        errno = error;
    return error != 0;
}

}  // namespace

void testlib::pass_time(std::chrono::milliseconds time) { passed += time.count(); }

extern "C" {

/* std::chrono::steady_clock::now() */
std::chrono::steady_clock::time_point __real__ZNSt6chrono3_V212steady_clock3nowEv();
std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv();
std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv()
{
    return __real__ZNSt6chrono3_V212steady_clock3nowEv() + std::chrono::milliseconds(passed);
}

#define WRAP(result, name, parameters, arguments, failure) \
    result __real_##name parameters;                       \
    result __wrap_##name parameters;                       \
    result __wrap_##name parameters { return fails(Call::name) ? failure : __real_##name arguments; }

WRAP(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
WRAP(ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size), -1)
WRAP(ssize_t, readlinkat, (int directory, const char *path, char *buffer, size_t size), (directory, path, buffer, size),
     -1)
/* What read and readlinkat are called where the compiler knows the buffer's size. */
#define WRAP_CHECKED(call, name, parameters, arguments) \
    ssize_t __real_##name parameters;                   \
    ssize_t __wrap_##name parameters;                   \
    ssize_t __wrap_##name parameters { return fails(Call::call) ? -1 : __real_##name arguments; }
WRAP_CHECKED(read, __read_chk, (int fd, void *buffer, size_t size, size_t room), (fd, buffer, size, room))
WRAP_CHECKED(readlinkat, __readlinkat_chk, (int directory, const char *path, char *buffer, size_t size, size_t room),
             (directory, path, buffer, size, room))
WRAP(DIR *, fdopendir, (int fd), (fd), nullptr)
WRAP(int, dup, (int fd), (fd), -1)
WRAP(int, fstat, (int fd, struct stat *st), (fd, st), -1)
WRAP(int, eventfd, (unsigned value, int flags), (value, flags), -1)

int __real_fstat64(int fd, struct stat64 *st);
int __wrap_fstat64(int fd, struct stat64 *st);
int __wrap_fstat64(int fd, struct stat64 *st) { return fails(Call::fstat) ? -1 : __real_fstat64(fd, st); }

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument)
{
    const int error = injected_error(Call::pthread_create);
    return error != 0 ? error : __real_pthread_create(thread, attributes, body, argument);
}

/* The mode that follows the flags of an open, of files that are made. */
#define TAKE_MODE(flags, mode)       \
    mode_t mode = 0;                 \
    if ((flags)&O_CREAT) {           \
        va_list list;                \
        va_start(list, flags);       \
        mode = va_arg(list, mode_t); \
        va_end(list);                \
    }

#define WRAP_OPEN(name)                                                   \
    int __real_##name(const char *path, int flags, ...);                  \
    int __wrap_##name(const char *path, int flags, ...);                  \
    int __wrap_##name(const char *path, int flags, ...)                   \
    {                                                                     \
        TAKE_MODE(flags, mode)                                            \
        return fails(Call::open) ? -1 : __real_##name(path, flags, mode); \
    }
WRAP_OPEN(open)
WRAP_OPEN(open64)

/* What an open is called whose flags the compiler does not know. */
#define WRAP_OPEN_2(name, plain)          \
    int __wrap_##name(const char *, int); \
    int __wrap_##name(const char *path, int flags) { return __wrap_##plain(path, flags); }
WRAP_OPEN_2(__open_2, open)
WRAP_OPEN_2(__open64_2, open64)

#define WRAP_OPENAT(name)                                                              \
    int __real_##name(int directory, const char *path, int flags, ...);                \
    int __wrap_##name(int directory, const char *path, int flags, ...);                \
    int __wrap_##name(int directory, const char *path, int flags, ...)                 \
    {                                                                                  \
        TAKE_MODE(flags, mode)                                                         \
        return fails(Call::openat) ? -1 : __real_##name(directory, path, flags, mode); \
    }
WRAP_OPENAT(openat)
WRAP_OPENAT(openat64)

#define WRAP_OPENAT_2(name, plain)             \
    int __wrap_##name(int, const char *, int); \
    int __wrap_##name(int directory, const char *path, int flags) { return __wrap_##plain(directory, path, flags); }
WRAP_OPENAT_2(__openat_2, openat)
WRAP_OPENAT_2(__openat64_2, openat64)

long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...);
long __wrap_syscall(long number, ...)
{
    long argument[6];
    va_list list;
    va_start(list, number);
    for (long &value : argument)
        value = va_arg(list, long);
    va_end(list);
    if ((number == SYS_openat2 && fails(Call::openat2)) || (number == SYS_pidfd_open && fails(Call::pidfd_open)))
        return -1;
    return __real_syscall(number, argument[0], argument[1], argument[2], argument[3], argument[4], argument[5]);
}

}  // extern "C"
