/*
 * fault_switch.h: the border between the switches (fault.cpp) and the wrapped calls (fault_wraps.cpp).
 */
#ifndef TESTLIB_FAULT_SWITCH_H
#define TESTLIB_FAULT_SWITCH_H

#include <string>

/* The calls that can fail; a table that the layout tool would reflow at every pass. */
/* clang-format off */
#define TESTLIB_CALLS(X) \
    X(malloc) X(calloc) X(realloc) X(inotify_init) X(inotify_add_watch) X(inotify_rm_watch) \
    X(fanotify_init) X(fanotify_mark) X(select) X(read) X(readlink) X(realpath) \
    X(stat) X(lstat) X(fstat) X(statx) X(opendir) X(readdir) X(closedir) \
    X(uname) X(prctl) X(dlopen) X(dlsym) X(close) X(fopen) \
    X(fgets) X(open) X(fcntl) X(poll) \
    X(access) X(write) X(mmap) X(ioctl) X(perf_event_open) X(eventfd) X(epoll_create1) X(epoll_ctl) \
    X(pthread_create) X(inotify_init1) \
    X(openat) X(openat2) X(pidfd_open) X(readlinkat) X(fdopendir) X(dup) \
    X(fstatat) X(open_by_handle_at) X(name_to_handle_at) X(fstatfs) \
    X(pwrite) X(pread) X(ftruncate) X(fsync) X(fdatasync) X(unlinkat) X(mkdirat) X(flock) X(getrandom) \
    X(rename) X(fchmod) X(pipe2) X(posix_spawn) X(memfd_create) X(socket) X(connect) X(bind) X(listen) \
    X(accept4) X(send) X(sendmsg) X(signalfd)
/* clang-format on */

namespace testlib
{

enum class Call : int {
#define X(name) name,
    TESTLIB_CALLS(X)
#undef X
};

/* Counts the call for every armed switch of that name; not 0: it must fail with this errno. */
int injected_error(Call call);

/* Where opens of `path` go; the path itself when it is not redirected. The text lives until clear_redirects. */
const char *redirected(const char *path);

/* Whether a dlopen replacement of a test made the handle, so that the C library must not see it. */
bool is_test_handle(void *handle);

}  // namespace testlib

#endif
