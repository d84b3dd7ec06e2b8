/*
 * The wrapped calls. __real_X is the C library's X (with a sanitizer, the sanitizer's).
 */
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "testlib/fault.h"
#include "testlib/fault_switch.h"

using testlib::Call;
using testlib::injected_error;
using testlib::redirected;

namespace
{

std::atomic<bool> redirecting{false};
std::atomic<bool> types_hidden{false};
std::atomic<void *(*)(const char *, int)> dlopen_replacement{nullptr};
std::atomic<void *(*)(void *, const char *)> dlsym_replacement{nullptr};
std::atomic<int (*)(void *)> uname_replacement{nullptr};

struct State {
    std::mutex mutex;
    std::map<std::string, std::string> redirects;
    std::set<void *> test_handles;
};

/* Never destroyed: calls come in until the process is gone. */
State &state()
{
    static State *const object = new State;
    return *object;
}

/* A replacement may call the C library's function by its ordinary name. */
thread_local bool in_replacement = false;
struct ReplacementScope {
    ReplacementScope() { in_replacement = true; }
    ~ReplacementScope() { in_replacement = false; }
};

}  // namespace

namespace testlib
{

void replace_dlopen(void *(*fn)(const char *path, int flags)) { dlopen_replacement = fn; }
void replace_dlsym(void *(*fn)(void *handle, const char *symbol)) { dlsym_replacement = fn; }
void replace_uname(int (*fn)(void *utsname)) { uname_replacement = fn; }
void hide_entry_types(bool on) { types_hidden = on; }

void redirect_path(const std::string &path, const std::string &target)
{
    std::lock_guard<std::mutex> guard(state().mutex);
    state().redirects[path] = target;
    redirecting = true;
}

void clear_redirects()
{
    std::lock_guard<std::mutex> guard(state().mutex);
    state().redirects.clear();
    redirecting = false;
}

const char *redirected(const char *path)
{
    if (!redirecting || !path)
        return path;
    std::lock_guard<std::mutex> guard(state().mutex);
    auto found = state().redirects.find(path);
    return found == state().redirects.end() ? path : found->second.c_str();
}

bool is_test_handle(void *handle)
{
    std::lock_guard<std::mutex> guard(state().mutex);
    return state().test_handles.count(handle) != 0;
}

}  // namespace testlib

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
WRAP(nullptr, void *, calloc, (size_t n, size_t size), (n, size))
WRAP(nullptr, void *, realloc, (void *old, size_t size), (old, size))
WRAP(-1, int, inotify_init, (void), ())
WRAP(-1, int, inotify_add_watch, (int fd, const char *path, uint32_t mask), (fd, path, mask))
WRAP(-1, int, inotify_rm_watch, (int fd, int wd), (fd, wd))
WRAP(-1, int, select, (int n, fd_set *r, fd_set *w, fd_set *e, struct timeval *t), (n, r, w, e, t))
WRAP(-1, ssize_t, read, (int fd, void *buf, size_t size), (fd, buf, size))
WRAP(-1, ssize_t, readlink, (const char *path, char *buf, size_t size), (path, buf, size))
WRAP(nullptr, char *, realpath, (const char *path, char *out), (path, out))
WRAP(-1, int, stat, (const char *path, struct stat *st), (path, st))
WRAP(-1, int, lstat, (const char *path, struct stat *st), (path, st))
WRAP(-1, int, fstat, (int fd, struct stat *st), (fd, st))
WRAP(-1, int, statx, (int fd, const char *path, int flags, unsigned mask, struct statx *out),
     (fd, path, flags, mask, out))
WRAP_AS(-1, int, stat, stat64, (const char *path, struct stat64 *st), (path, st))
WRAP_AS(-1, int, lstat, lstat64, (const char *path, struct stat64 *st), (path, st))
WRAP_AS(-1, int, fstat, fstat64, (int fd, struct stat64 *st), (fd, st))
WRAP(-1, int, fstatat, (int fd, const char *path, struct stat *st, int flags), (fd, path, st, flags))
WRAP_AS(-1, int, fstatat, fstatat64, (int fd, const char *path, struct stat64 *st, int flags), (fd, path, st, flags))
WRAP(-1, int, open_by_handle_at, (int fd, struct file_handle *handle, int flags), (fd, handle, flags))
WRAP(-1, int, name_to_handle_at, (int fd, const char *path, struct file_handle *handle, int *mount, int flags),
     (fd, path, handle, mount, flags))
WRAP(-1, int, fstatfs, (int fd, struct statfs *st), (fd, st))
WRAP_AS(-1, int, fstatfs, fstatfs64, (int fd, struct statfs64 *st), (fd, st))
WRAP(nullptr, DIR *, fdopendir, (int fd), (fd))
WRAP(-1, int, eventfd, (unsigned value, int flags), (value, flags))
WRAP(-1, int, poll, (struct pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
WRAP(nullptr, DIR *, opendir, (const char *path), (redirected(path)))
WRAP(nullptr, FILE *, fopen, (const char *path, const char *mode), (redirected(path), mode))
WRAP_AS(nullptr, FILE *, fopen, fopen64, (const char *path, const char *mode), (redirected(path), mode))
WRAP(nullptr, char *, fgets, (char *buf, int size, FILE *file), (buf, size, file))

/* ---- directory entries ---- */

#define WRAP_READDIR(name, type)                       \
    type *__real_##name(DIR *dir);                     \
    type *__wrap_##name(DIR *dir);                     \
    type *__wrap_##name(DIR *dir)                      \
    {                                                  \
        if (int err = injected_error(Call::readdir)) { \
            errno = err;                               \
            return nullptr;                            \
        }                                              \
        type *entry = __real_##name(dir);              \
        if (entry && types_hidden)                     \
            entry->d_type = DT_UNKNOWN;                \
        return entry;                                  \
    }
WRAP_READDIR(readdir, struct dirent)
WRAP_READDIR(readdir64, struct dirent64)

/* ---- threads: the result is the error ---- */

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *arg);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *arg);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *arg)
{
    const int err = injected_error(Call::pthread_create);
    return err ? err : __real_pthread_create(thread, attributes, body, arg);
}

/* ---- closing: Linux gives the descriptor back whatever close() answers, so the failing one does too ---- */

int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd)
{
    int err = injected_error(Call::close);
    int result = __real_close(fd);
    if (!err)
        return result;
    errno = err;
    return -1;
}

int __real_closedir(DIR *dir);
int __wrap_closedir(DIR *dir);
int __wrap_closedir(DIR *dir)
{
    int err = injected_error(Call::closedir);
    int result = __real_closedir(dir);
    if (!err)
        return result;
    errno = err;
    return -1;
}

/* ---- variadic calls: the further arguments are fetched only where the call has them ---- */

#define WRAP_OPEN(name)                                             \
    int __real_##name(const char *path, int flags, ...);            \
    int __wrap_##name(const char *path, int flags, ...);            \
    int __wrap_##name(const char *path, int flags, ...)             \
    {                                                               \
        if (int err = injected_error(Call::open)) {                 \
            errno = err;                                            \
            return -1;                                              \
        }                                                           \
        if (!(flags & O_CREAT) && (flags & O_TMPFILE) != O_TMPFILE) \
            return __real_##name(redirected(path), flags);          \
        va_list list;                                               \
        va_start(list, flags);                                      \
        mode_t mode = va_arg(list, mode_t);                         \
        va_end(list);                                               \
        return __real_##name(redirected(path), flags, mode);        \
    }
WRAP_OPEN(open)
WRAP_OPEN(open64)

/* The module never makes files, so that there is no mode. */
#define WRAP_OPENAT(name)                                   \
    int __real_##name(int fd, const char *path, int flags); \
    int __wrap_##name(int fd, const char *path, int flags); \
    int __wrap_##name(int fd, const char *path, int flags)  \
    {                                                       \
        if (int err = injected_error(Call::openat)) {       \
            errno = err;                                    \
            return -1;                                      \
        }                                                   \
        return __real_##name(fd, path, flags);              \
    }
WRAP_OPENAT(openat)
WRAP_OPENAT(openat64)

/* Like the C library's own fcntl: one word, taken whether the command has an argument or not. */
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

int __real_prctl(int option, ...);
int __wrap_prctl(int option, ...);
int __wrap_prctl(int option, ...)
{
    unsigned long args[4];
    va_list list;
    va_start(list, option);
    for (unsigned long &arg : args)
        arg = va_arg(list, unsigned long);
    va_end(list);
    if (int err = injected_error(Call::prctl)) {
        errno = err;
        return -1;
    }
    return __real_prctl(option, args[0], args[1], args[2], args[3]);
}

/* ---- calls that a test may replace ---- */

int __real_uname(struct utsname *name);
int __wrap_uname(struct utsname *name);
int __wrap_uname(struct utsname *name)
{
    if (int err = injected_error(Call::uname)) {
        errno = err;
        return -1;
    }
    auto replacement = uname_replacement.load();
    if (!replacement || in_replacement)
        return __real_uname(name);
    ReplacementScope scope;
    return replacement(name);
}

/* A failing dlopen or dlsym leaves a text for dlerror(), as a real one does. */
void *__real_dlopen(const char *path, int flags);
void *__wrap_dlopen(const char *path, int flags);
void *__wrap_dlopen(const char *path, int flags)
{
    if (int err = injected_error(Call::dlopen)) {
        void *none = __real_dlopen("/nonexistent/testlib-fault.so", RTLD_LAZY);
        errno = err;
        return none;
    }
    auto replacement = dlopen_replacement.load();
    if (!replacement || in_replacement)
        return __real_dlopen(path, flags);
    ReplacementScope scope;
    void *handle = replacement(path, flags);
    std::lock_guard<std::mutex> guard(state().mutex);
    if (handle)
        state().test_handles.insert(handle);
    return handle;
}

static int counted_fanotify_init(unsigned flags, unsigned event_flags)
{
    if (int err = injected_error(Call::fanotify_init)) {
        errno = err;
        return -1;
    }
    return fanotify_init(flags, event_flags);
}

static int counted_fanotify_mark(int fd, unsigned flags, uint64_t mask, int dirfd, const char *path)
{
    if (int err = injected_error(Call::fanotify_mark)) {
        errno = err;
        return -1;
    }
    return fanotify_mark(fd, flags, mask, dirfd, path);
}

void *__real_dlsym(void *handle, const char *symbol);
void *__wrap_dlsym(void *handle, const char *symbol);
void *__wrap_dlsym(void *handle, const char *symbol)
{
    if (int err = injected_error(Call::dlsym)) {
        void *none = __real_dlsym(RTLD_DEFAULT, "testlib_fault_no_such_symbol");
        errno = err;
        return none;
    }
    auto replacement = dlsym_replacement.load();
    if (replacement && !in_replacement) {
        ReplacementScope scope;
        return replacement(handle, symbol);
    }
    if (!strcmp(symbol, "fanotify_init"))
        return reinterpret_cast<void *>(counted_fanotify_init);
    if (!strcmp(symbol, "fanotify_mark"))
        return reinterpret_cast<void *>(counted_fanotify_mark);
    return __real_dlsym(handle, symbol);
}

} /* extern "C" */
