/*
 * fault.h: makes a named system or allocation call fail.
 *
 * Test programs are linked with --wrap for each name in fault_names.txt, so that the module's own calls come here
 * first. Calls are counted from the moment a Fault is armed, on the thread that armed it only (ThreadScope::kAll for
 * others). Names: malloc calloc realloc, inotify_init inotify_add_watch inotify_rm_watch, fanotify_init fanotify_mark
 * (found through dlsym), select read readlink realpath stat lstat fstat statx opendir readdir closedir uname prctl
 * dlopen dlsym close fopen fgets open fcntl poll openat fstatat open_by_handle_at name_to_handle_at eventfd
 * fstatfs fdopendir pthread_create. Tests of the kernel-probe library
 * (see kernel_double/) have instead:
 * malloc read close open fcntl uname stat inotify_add_watch, and access write mmap ioctl perf_event_open eventfd
 * epoll_create1 epoll_ctl pthread_create inotify_init1. Tests of the container library (container_world/): calloc read
 * open openat openat2 pidfd_open readlinkat fdopendir dup fstat eventfd pthread_create. Tests of outputs with calls
 * that fail (disk_wraps/) have these and write pwrite pread ftruncate fsync fdatasync fstatat unlinkat mkdirat flock
 * fcntl getrandom rename fchmod pipe2 posix_spawn memfd_create socket connect bind listen accept4 send sendmsg
 * signalfd.
 */
#ifndef TESTLIB_FAULT_H
#define TESTLIB_FAULT_H

#include <cerrno>
#include <functional>
#include <string>

namespace testlib
{

enum class ThreadScope { kMine, kAll };

/* While it lives, the nth (1-based) call of `name` fails with `err`; with `count` > 1 the ones after it too. */
class Fault
{
public:
    explicit Fault(const char *name, int nth = 1, int err = ENOMEM, int count = 1,
                   ThreadScope scope = ThreadScope::kMine);
    ~Fault();
    Fault(const Fault &) = delete;
    Fault &operator=(const Fault &) = delete;
    bool hit() const;  /* the call was reached */
    int calls() const; /* calls of that name while it lived */

private:
    int slot_;
};

/* Counts calls of `name` without failing any. */
class CallCount
{
public:
    explicit CallCount(const char *name);
    ~CallCount();
    CallCount(const CallCount &) = delete;
    CallCount &operator=(const CallCount &) = delete;
    int calls() const;

private:
    int slot_;
};

/* Runs `body(fault)` with the 1st, 2nd, ... call of `name` failing, until a run is not hit. Returns how many runs were
 * hit; `limit` runs at most (then the test fails). */
int fail_each(const char *name, int err, const std::function<void(Fault &)> &body, int limit = 2000);

/* Replaces a wrapped call by a function of the test's while it lives: dlopen, dlsym, uname. Null removes. */
void replace_dlopen(void *(*fn)(const char *path, int flags));
void replace_dlsym(void *(*fn)(void *handle, const char *symbol));
void replace_uname(int (*fn)(void *utsname));
/* Opens of exactly `path` (open, fopen, opendir) go to `target` instead, until the map is cleared. */
void redirect_path(const std::string &path, const std::string &target);
void clear_redirects();
/* d_type of every directory entry is reported as DT_UNKNOWN. */
void hide_entry_types(bool on);

}  // namespace testlib

#endif
