/* The wrapped calls of wrapped.txt: each fails where a test's Fault says so, and is the C library's otherwise. A write
 * that is told to fail with ENOSPC writes half before: a disk is full in the middle. */
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <system_error>
#include <thread>

#include "testlib/fault_switch.h"

using testlib::Call;
using testlib::injected_error;

namespace
{

/* Whether the call fails; errno says how. */
bool fails(Call call)
{
    const int error = injected_error(call);
    if (error != 0)
        errno = error;
    return error != 0;
}

/* Calls with a size in the middle of what they do when a full disk stops them. */
template <typename Write>
ssize_t write_half(Call call, size_t size, Write write)
{
    if (!fails(call))
        return write(size);
    if (errno == ENOSPC && size > 1)
        write(size / 2);
    return -1;
}

}  // namespace

extern "C" {

#define WRAP(result, call, name, parameters, arguments) \
    result __real_##name parameters;                    \
    result __wrap_##name parameters;                    \
    result __wrap_##name parameters { return fails(Call::call) ? -1 : __real_##name arguments; }

WRAP(ssize_t, pread, pread, (int fd, void *buffer, size_t size, off_t offset), (fd, buffer, size, offset))
WRAP(ssize_t, pread, pread64, (int fd, void *buffer, size_t size, off64_t offset), (fd, buffer, size, offset))
WRAP(ssize_t, pread, __pread_chk, (int fd, void *buffer, size_t size, off_t offset, size_t room),
     (fd, buffer, size, offset, room))
WRAP(ssize_t, pread, __pread64_chk, (int fd, void *buffer, size_t size, off64_t offset, size_t room),
     (fd, buffer, size, offset, room))
WRAP(int, ftruncate, ftruncate, (int fd, off_t size), (fd, size))
WRAP(int, ftruncate, ftruncate64, (int fd, off64_t size), (fd, size))
WRAP(int, fsync, fsync, (int fd), (fd))
WRAP(int, fdatasync, fdatasync, (int fd), (fd))
WRAP(int, fstatat, fstatat, (int fd, const char *path, struct stat *st, int flags), (fd, path, st, flags))
WRAP(int, fstatat, fstatat64, (int fd, const char *path, struct stat64 *st, int flags), (fd, path, st, flags))
WRAP(int, unlinkat, unlinkat, (int fd, const char *path, int flags), (fd, path, flags))
WRAP(int, mkdirat, mkdirat, (int fd, const char *path, mode_t mode), (fd, path, mode))
WRAP(int, flock, flock, (int fd, int operation), (fd, operation))
WRAP(ssize_t, getrandom, getrandom, (void *buffer, size_t size, unsigned flags), (buffer, size, flags))
WRAP(int, rename, rename, (const char *from, const char *to), (from, to))
WRAP(int, fchmod, fchmod, (int fd, mode_t mode), (fd, mode))
WRAP(int, pipe2, pipe2, (int *ends, int flags), (ends, flags))
WRAP(int, memfd_create, memfd_create, (const char *name, unsigned flags), (name, flags))
WRAP(int, signalfd, signalfd, (int fd, const sigset_t *signals, int flags), (fd, signals, flags))
WRAP(int, socket, socket, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(int, connect, connect, (int fd, const struct sockaddr *address, socklen_t size), (fd, address, size))
WRAP(int, bind, bind, (int fd, const struct sockaddr *address, socklen_t size), (fd, address, size))
WRAP(int, listen, listen, (int fd, int backlog), (fd, backlog))
WRAP(int, accept4, accept4, (int fd, struct sockaddr *address, socklen_t *size, int flags), (fd, address, size, flags))
WRAP(ssize_t, send, send, (int fd, const void *bytes, size_t size, int flags), (fd, bytes, size, flags))
WRAP(ssize_t, sendmsg, sendmsg, (int fd, const struct msghdr *message, int flags), (fd, message, flags))

int __real_posix_spawn(pid_t *child, const char *path, const posix_spawn_file_actions_t *files,
                       const posix_spawnattr_t *attributes, char *const arguments[], char *const variables[]);
int __wrap_posix_spawn(pid_t *child, const char *path, const posix_spawn_file_actions_t *files,
                       const posix_spawnattr_t *attributes, char *const arguments[], char *const variables[]);
int __wrap_posix_spawn(pid_t *child, const char *path, const posix_spawn_file_actions_t *files,
                       const posix_spawnattr_t *attributes, char *const arguments[], char *const variables[])
{
    const int error = injected_error(Call::posix_spawn);
    return error ? error : __real_posix_spawn(child, path, files, attributes, arguments, variables);
}

ssize_t __real_write(int fd, const void *bytes, size_t size);
ssize_t __wrap_write(int fd, const void *bytes, size_t size);
ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    return write_half(Call::write, size, [&](size_t some) { return __real_write(fd, bytes, some); });
}

#define WRAP_PWRITE(name, offset_type)                                                                              \
    ssize_t __real_##name(int fd, const void *bytes, size_t size, offset_type offset);                              \
    ssize_t __wrap_##name(int fd, const void *bytes, size_t size, offset_type offset);                              \
    ssize_t __wrap_##name(int fd, const void *bytes, size_t size, offset_type offset)                               \
    {                                                                                                               \
        return write_half(Call::pwrite, size, [&](size_t some) { return __real_##name(fd, bytes, some, offset); }); \
    }
WRAP_PWRITE(pwrite, off_t)
WRAP_PWRITE(pwrite64, off64_t)

#define WRAP_FCNTL(name)                                                       \
    int __real_##name(int fd, int command, ...);                               \
    int __wrap_##name(int fd, int command, ...);                               \
    int __wrap_##name(int fd, int command, ...)                                \
    {                                                                          \
        va_list list;                                                          \
        va_start(list, command);                                               \
        void *const argument = va_arg(list, void *);                           \
        va_end(list);                                                          \
        return fails(Call::fcntl) ? -1 : __real_##name(fd, command, argument); \
    }
WRAP_FCNTL(fcntl)
WRAP_FCNTL(fcntl64)

/* std::thread's, which calls pthread_create from where no call is wrapped. The state is a std::unique_ptr, handed over
 * by its address. */
#define THREAD_START(prefix) \
    prefix##_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE
void THREAD_START(__real_)(std::thread *thread, void *state, void (*depend)());
void THREAD_START(__wrap_)(std::thread *thread, void *state, void (*depend)());
void THREAD_START(__wrap_)(std::thread *thread, void *state, void (*depend)())
{
    if (const int error = injected_error(Call::pthread_create); error != 0)
        throw std::system_error(error, std::generic_category());
    THREAD_START(__real_)(thread, state, depend);
}

}  // extern "C"
