/*
 * The wrapped calls. __real_X is the C library's X (with a sanitizer, the sanitizer's).
 */
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "testlib/fault_switch.h"
#include "testlib/kernel_double/kernel_double.h"
#include "testlib/kernel_double/library_thread.h"

using testlib::Call;
using testlib::injected_error;
using testlib::KernelDouble;

namespace
{

/* What the double itself does goes to the machine's kernel. */
thread_local bool inside = false;
struct Inside {
    Inside() { inside = true; }
    ~Inside() { inside = false; }
};

/* Null: none lives, or it is the one that calls. */
KernelDouble *kernel() { return inside ? nullptr : KernelDouble::living(); }

std::string redirected(const char *path)
{
    KernelDouble *const double_ = kernel();
    const Inside scope;
    return double_ ? double_->real_path(path) : path;
}

int answer(int status)
{
    if (status >= 0)
        return status;
    errno = -status;
    return -1;
}

}  // namespace

bool testlib::in_kernel() { return inside; }

extern "C" {

/* WRAP(result on failure, type, name, (parameters), (arguments)): fails as told or passes on. */
#define WRAP_AS(bad, type, call, name, params, args) \
    type __real_##name params;                       \
    type __wrap_##name params;                       \
    type __wrap_##name params                        \
    {                                                \
        if (int err = injected_error(Call::call)) {  \
            errno = err;                             \
            return bad;                              \
        }                                            \
        return __real_##name args;                   \
    }
#define WRAP(bad, type, name, params, args) WRAP_AS(bad, type, name, name, params, args)

WRAP(nullptr, void *, malloc, (size_t size), (size))
WRAP(-1, ssize_t, read, (int fd, void *buf, size_t size), (fd, buf, size))
/* What read is called where the compiler knows the buffer's size. */
WRAP_AS(-1, ssize_t, read, __read_chk, (int fd, void *buf, size_t size, size_t room), (fd, buf, size, room))
WRAP(-1, int, eventfd, (unsigned value, int flags), (value, flags))
WRAP(-1, int, epoll_create1, (int flags), (flags))
WRAP(-1, int, epoll_ctl, (int fd, int op, int target, struct epoll_event *event), (fd, op, target, event))
WRAP(-1, int, inotify_init1, (int flags), (flags))
WRAP(-1, int, inotify_add_watch, (int fd, const char *path, uint32_t mask), (fd, path, mask))
WRAP(-1, int, access, (const char *path, int mode), (redirected(path).c_str(), mode))

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*run)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*run)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*run)(void *), void *argument)
{
    if (int err = injected_error(Call::pthread_create))
        return err;
    return __real_pthread_create(thread, attr, run, argument);
}

#define WRAP_STAT(name, type)                             \
    int __real_##name(const char *path, struct type *st); \
    int __wrap_##name(const char *path, struct type *st); \
    int __wrap_##name(const char *path, struct type *st)  \
    {                                                     \
        if (int err = injected_error(Call::stat)) {       \
            errno = err;                                  \
            return -1;                                    \
        }                                                 \
        const int result = __real_##name(path, st);       \
        KernelDouble *const double_ = kernel();           \
        if (double_ && double_->on_stat) {                \
            const Inside scope;                           \
            double_->on_stat(path);                       \
        }                                                 \
        return result;                                    \
    }
WRAP_STAT(stat, stat)
WRAP_STAT(stat64, stat64)

/* ---- time ---- */

int __real_clock_gettime(clockid_t clock, struct timespec *now);
int __wrap_clock_gettime(clockid_t clock, struct timespec *now);
int __wrap_clock_gettime(clockid_t clock, struct timespec *now)
{
    const int result = __real_clock_gettime(clock, now);
    if (clock == CLOCK_MONOTONIC) {
        const int64_t ns = now->tv_nsec + testlib::time_passed();
        now->tv_sec += static_cast<time_t>(ns / 1000000000);
        now->tv_nsec = static_cast<long>(ns % 1000000000);
    }
    return result;
}

int __real_nanosleep(const struct timespec *time, struct timespec *left);
int __wrap_nanosleep(const struct timespec *time, struct timespec *left);
int __wrap_nanosleep(const struct timespec *time, struct timespec *left)
{
    const testlib::Rest rest(-1);
    return __real_nanosleep(time, left);
}

int __real_epoll_wait(int epoll, struct epoll_event *events, int count, int ms);
int __wrap_epoll_wait(int epoll, struct epoll_event *events, int count, int ms);
int __wrap_epoll_wait(int epoll, struct epoll_event *events, int count, int ms)
{
    const testlib::Rest rest(epoll);
    return __real_epoll_wait(epoll, events, count, ms);
}

/* ---- files ---- */

#define WRAP_OPEN(name)                                                      \
    int __real_##name(const char *path, int flags, ...);                     \
    int __wrap_##name(const char *path, int flags, ...);                     \
    int __wrap_##name(const char *path, int flags, ...)                      \
    {                                                                        \
        mode_t mode = 0;                                                     \
        if ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE) {         \
            va_list list;                                                    \
            va_start(list, flags);                                           \
            mode = va_arg(list, mode_t);                                     \
            va_end(list);                                                    \
        }                                                                    \
        KernelDouble *const double_ = kernel();                              \
        if (int err = inside ? 0 : injected_error(Call::open)) {             \
            errno = err;                                                     \
            return -1;                                                       \
        }                                                                    \
        const int fd = __real_##name(redirected(path).c_str(), flags, mode); \
        const int error = errno;                                             \
        const Inside scope;                                                  \
        if (double_ && fd >= 0)                                              \
            double_->opened(path, fd);                                       \
        if (double_ && double_->on_open)                                     \
            double_->on_open(path);                                          \
        errno = error;                                                       \
        return fd;                                                           \
    }
WRAP_OPEN(open)
WRAP_OPEN(open64)

/* What an open is called whose flags the compiler does not know. */
#define WRAP_OPEN_2(name, plain)          \
    int __wrap_##name(const char *, int); \
    int __wrap_##name(const char *path, int flags) { return __wrap_##plain(path, flags); }
WRAP_OPEN_2(__open_2, open)
WRAP_OPEN_2(__open64_2, open64)

ssize_t __real_write(int fd, const void *bytes, size_t size);
ssize_t __wrap_write(int fd, const void *bytes, size_t size);
ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    KernelDouble *const double_ = kernel();
    if (!double_ || !double_->is_control(fd))
        return __real_write(fd, bytes, size);
    if (int err = injected_error(Call::write)) {
        errno = err;
        return -1;
    }
    const Inside scope;
    const int status = double_->command(fd, std::string(static_cast<const char *>(bytes), size));
    return status < 0 ? answer(status) : static_cast<ssize_t>(size);
}

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd)
{
    if (KernelDouble *const double_ = kernel()) {
        const Inside scope;
        double_->closed(fd);
        double_->perf.closed(fd);
    }
    return __real_close(fd);
}

#define WRAP_FCNTL(name)                             \
    int __real_##name(int fd, int cmd, ...);         \
    int __wrap_##name(int fd, int cmd, ...);         \
    int __wrap_##name(int fd, int cmd, ...)          \
    {                                                \
        va_list list;                                \
        va_start(list, cmd);                         \
        void *arg = va_arg(list, void *);            \
        va_end(list);                                \
        if (int err = injected_error(Call::fcntl)) { \
            errno = err;                             \
            return -1;                               \
        }                                            \
        return __real_##name(fd, cmd, arg);          \
    }
WRAP_FCNTL(fcntl)
WRAP_FCNTL(fcntl64)

int __real_uname(struct utsname *name);
int __wrap_uname(struct utsname *name);
int __wrap_uname(struct utsname *name)
{
    if (int err = injected_error(Call::uname)) {
        errno = err;
        return -1;
    }
    const int result = __real_uname(name);
    if (const KernelDouble *const double_ = kernel()) {
        strncpy(name->release, double_->release.c_str(), sizeof(name->release) - 1);
        strncpy(name->machine, double_->machine.c_str(), sizeof(name->machine) - 1);
    }
    return result;
}

/* ---- perf ---- */

#define WRAP_MMAP(name, offset_type)                                                             \
    void *__real_##name(void *at, size_t size, int prot, int flags, int fd, offset_type offset); \
    void *__wrap_##name(void *at, size_t size, int prot, int flags, int fd, offset_type offset); \
    void *__wrap_##name(void *at, size_t size, int prot, int flags, int fd, offset_type offset)  \
    {                                                                                            \
        KernelDouble *const double_ = kernel();                                                  \
        const bool is_perf = double_ && fd >= 0 && double_->perf.has(fd);                        \
        if (int err = injected_error(Call::mmap)) {                                              \
            errno = err;                                                                         \
            return MAP_FAILED;                                                                   \
        }                                                                                        \
        if (!is_perf)                                                                            \
            return __real_##name(at, size, prot, flags, fd, offset);                             \
        void *map = __real_##name(at, size, prot, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);           \
        if (map != MAP_FAILED)                                                                   \
            double_->perf.mapped(fd, map, size);                                                 \
        return map;                                                                              \
    }
WRAP_MMAP(mmap, off_t)
WRAP_MMAP(mmap64, off64_t)

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list list;
    va_start(list, request);
    void *argument = va_arg(list, void *);
    va_end(list);
    if (int err = injected_error(Call::ioctl)) {
        errno = err;
        return -1;
    }
    KernelDouble *const double_ = kernel();
    if (!double_)
        return __real_ioctl(fd, request, argument);
    const Inside scope;
    if (request == FIONREAD) {
        double_->asked(fd);
        return __real_ioctl(fd, request, argument);
    }
    const int status = double_->perf.control(fd, request, argument);
    if (double_->on_control)
        double_->on_control(request);
    return answer(status);
}

long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...);
long __wrap_syscall(long number, ...)
{
    long args[6];
    va_list list;
    va_start(list, number);
    for (long &arg : args)
        arg = va_arg(list, long);
    va_end(list);
    KernelDouble *const double_ = kernel();
    if (number != SYS_perf_event_open)
        return __real_syscall(number, args[0], args[1], args[2], args[3], args[4], args[5]);
    if (int err = injected_error(Call::perf_event_open)) {
        errno = err;
        return -1;
    }
    if (!double_)
        return __real_syscall(number, args[0], args[1], args[2], args[3], args[4], args[5]);
    const Inside scope;
    return answer(double_->perf.open(*reinterpret_cast<const perf_event_attr *>(args[0]), static_cast<int>(args[2]),
                                     static_cast<int>(args[3])));
}

} /* extern "C" */
