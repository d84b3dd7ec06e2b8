/*
 * backend.h: the real Linux backend under test without root: the kernel's inotify, a fanotify made of paper, and no
 * kernel-probe library.
 */
#ifndef TESTLIB_BACKEND_H
#define TESTLIB_BACKEND_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fmon.h"
#include "testlib/hardened.h"
#include "testlib/records.h"

namespace testlib
{

/* What fanotify_mark was asked for, in order. */
struct MarkCall {
    int fd;
    unsigned flags;
    uint64_t mask;
    int dirfd;
    std::string path;
    bool operator==(const MarkCall &) const = default;
};

/* While it lives, fanotify_init and fanotify_mark are found here, and libraries are not found. */
class PaperFanotify
{
public:
    PaperFanotify();
    ~PaperFanotify();
    PaperFanotify(const PaperFanotify &) = delete;
    PaperFanotify &operator=(const PaperFanotify &) = delete;

    bool has_init = true, has_mark = true; /* whether the symbols are found */
    int init_errors[2] = {0, 0};           /* errno of the 1st and 2nd fanotify_init, 0: success */
    int mark_error = 0;                    /* errno of every fanotify_mark, 0: success */
    int fail_mark_at = 0;                  /* only the nth (1-based) fails with mark_error; 0: all */
    std::vector<MarkCall> marks;           /* accepted and refused ones */
    int init_calls = 0;
    /* The group of whole file systems is the read end of a pipe; its marks are noted under the names of what they are
     * on.
     */
    int fs_init_error = 0, fs_mark_error = 0; /* errno of it, 0: success */
    bool fs_marks_gone = false;               /* to take bits of one away: ENOENT */
    uint64_t fs_refused_bits = 0;             /* of a mark: EINVAL */
    int fs_group = -1, fs_feed = -1;          /* the pipe, until the next such group */
    uint64_t fs_mask_of(const std::string &path, bool system) const;
    uint64_t fs_ignored_of(const std::string &path) const; /* by an ignore mark */

    unsigned event_flags = ~0U; /* how the latest fanotify_init was told to open events' files */

    /* The kernel-probe library: null, it cannot be loaded; else it answers for each of its symbols (null: missing). */
    void *(*probe_symbol)(const char *symbol) = nullptr;

    uint64_t mask_of(int fd, const std::string &path) const; /* what is marked now */

private:
    uint64_t mask_of_type(const std::string &path, unsigned type) const;
};

/* A started monitor on the real backend, hardened where the program is run so or the test says so; stopped, with its
 * instances destroyed, at the end. */
class LinuxMonitor
{
public:
    explicit LinuxMonitor(int max_events = 1000, int max_dentries = 10000, bool hardened = testlib::hardened());
    ~LinuxMonitor();
    PaperFanotify fanotify;
    int result; /* of fmon_init */

    int add(const std::string &path, uint32_t mask, uint32_t flags, uint32_t depth = 0, uint32_t subdirs = 0);
    int del(const std::string &path);
    int id;
    int id2; /* a second instance */

    /* Waits (at most 2 s) until the inotify descriptor has something, then makes one read pass over it. */
    bool pump();
    bool has_input() const; /* of inotify: what a call causes stands there when the call returns */
    void pump_all();        /* while it has */
    /* Feeds bytes to the reader of that position and makes one pass. */
    void feed(int position, const std::string &bytes);
    /* "path:kinds" of every event queued for the first instance, taken off. */
    std::vector<std::string> events(int instance = 0);
};

/* The kernel's view of the inotify descriptor: watch descriptor -> mask. */
std::map<int, uint32_t> kernel_watches();
int wd_of(const std::string &path);            /* as cached; -1: none, -2: no dentry */
uint32_t kernel_mask(const std::string &path); /* 0: not watched */
bool cached(const std::string &path);

}  // namespace testlib

#endif
