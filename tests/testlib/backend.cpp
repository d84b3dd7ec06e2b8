#include "testlib/backend.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "event.h"
#include "linux/fmon_linux.h"
#include "linux/inotify.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"

extern "C" void *__real_dlsym(void *, const char *);

namespace testlib
{

namespace
{

PaperFanotify *paper;

constexpr unsigned kReportDirectory = 0x400, kIgnore = 0x400; /* of an init, of a mark */

/* The reader's end belongs to whoever asked for it. */
int paper_group()
{
    int ends[2];
    if (paper->fs_feed >= 0)
        close(paper->fs_feed);
    paper->fs_feed = -1;
    if (paper->fs_init_error) {
        errno = paper->fs_init_error;
        return -1;
    }
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0)
        return -1;
    paper->fs_feed = ends[1];
    return paper->fs_group = ends[0];
}

std::string name_of(int fd)
{
    char name[4096];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), name, sizeof(name));
    return std::string(name, length > 0 ? static_cast<size_t>(length) : 0);
}

int paper_fs_mark(int fd, unsigned flags, uint64_t mask, int dirfd)
{
    int error = (flags & FAN_MARK_ADD) && (mask & paper->fs_refused_bits) ? EINVAL : 0;
    if ((flags & FAN_MARK_ADD) && paper->fs_mark_error)
        error = paper->fs_mark_error;
    if ((flags & FAN_MARK_REMOVE) && paper->fs_marks_gone)
        error = ENOENT;
    if (error) {
        errno = error;
        return -1;
    }
    paper->marks.push_back({fd, flags, mask, dirfd, name_of(dirfd)});
    return 0;
}

int paper_init(unsigned flags, unsigned event_flags)
{
    if (flags & kReportDirectory)
        return paper_group();
    paper->event_flags = event_flags;
    int error = paper->init_errors[paper->init_calls++ & 1];
    if (error) {
        errno = error;
        return -1;
    }
    return open("/dev/null", O_RDONLY);
}

/* A mark on an open object is noted as one on its name. */
MarkCall as_named(int fd, unsigned flags, uint64_t mask, int dirfd, const char *path)
{
    char name[4096];
    ssize_t length = strncmp(path, "/proc/self/fd/", 14) == 0 ? readlink(path, name, sizeof(name)) : -1;
    if (length < 0)
        return {fd, flags, mask, dirfd, path};
    return {fd, flags | FAN_MARK_DONT_FOLLOW, mask, dirfd, std::string(name, static_cast<size_t>(length))};
}

int paper_mark(int fd, unsigned flags, uint64_t mask, int dirfd, const char *path)
{
    if (fd == paper->fs_group && !path)
        return paper_fs_mark(fd, flags, mask, dirfd);
    paper->marks.push_back(as_named(fd, flags, mask, dirfd, path ? path : ""));
    int nth = static_cast<int>(paper->marks.size());
    if (paper->mark_error && (paper->fail_mark_at == 0 || paper->fail_mark_at == nth)) {
        errno = paper->mark_error;
        return -1;
    }
    return 0;
}

void *paper_dlsym(void *handle, const char *symbol)
{
    if (strcmp(symbol, "fanotify_init") == 0)
        return paper->has_init ? reinterpret_cast<void *>(paper_init) : nullptr;
    if (strcmp(symbol, "fanotify_mark") == 0)
        return paper->has_mark ? reinterpret_cast<void *>(paper_mark) : nullptr;
    return handle == paper ? paper->probe_symbol(symbol) : __real_dlsym(handle, symbol);
}

void *paper_dlopen(const char *, int)
{
    errno = ENOENT;
    return paper->probe_symbol ? paper : nullptr;
}

}  // namespace

PaperFanotify::PaperFanotify()
{
    paper = this;
    replace_dlsym(paper_dlsym);
    replace_dlopen(paper_dlopen);
}

PaperFanotify::~PaperFanotify()
{
    replace_dlsym(nullptr);
    replace_dlopen(nullptr);
    if (fs_feed >= 0)
        close(fs_feed);
    paper = nullptr;
}

uint64_t PaperFanotify::fs_mask_of(const std::string &path, bool system) const
{
    return mask_of_type(path, system ? unsigned{FAN_MARK_FILESYSTEM} : 0);
}

uint64_t PaperFanotify::fs_ignored_of(const std::string &path) const { return mask_of_type(path, kIgnore); }

uint64_t PaperFanotify::mask_of_type(const std::string &path, unsigned type) const
{
    uint64_t mask = 0;
    for (const auto &call : marks)
        if (call.fd == fs_group && call.path == path && (call.flags & (FAN_MARK_FILESYSTEM | kIgnore)) == type)
            mask = (call.flags & FAN_MARK_ADD) ? mask | call.mask : mask & ~call.mask;
    return mask;
}

uint64_t PaperFanotify::mask_of(int fd, const std::string &path) const
{
    uint64_t mask = 0;
    for (const auto &call : marks) {
        if (call.fd != fd || call.path != path)
            continue;
        if (call.flags & 1)
            mask |= call.mask;
        else
            mask &= ~call.mask;
    }
    return mask;
}

LinuxMonitor::LinuxMonitor(int max_events, int max_dentries, bool hardened)
{
    fmon.hardened = hardened;
    result = fmon_init(max_events, max_dentries, 1000);
    id = result == 0 ? fmon_create_instance("first") : -1;
    id2 = result == 0 ? fmon_create_instance("second") : -1;
    log_clear();
}

LinuxMonitor::~LinuxMonitor()
{
    for (int i = 0; i < FMON_MAX_INSTANCES; i++)
        fmon_destroy_instance(i);
    fmon_deinit();
    reset_host();
}

int LinuxMonitor::add(const std::string &path, uint32_t mask, uint32_t flags, uint32_t depth, uint32_t subdirs)
{
    return fmon_add_watch(id, path.c_str(), mask, flags, depth, subdirs);
}

int LinuxMonitor::del(const std::string &path) { return fmon_del_watch(id, path.c_str()); }

bool LinuxMonitor::pump()
{
    struct pollfd wait = {inotify_descriptor(), POLLIN, 0};
    if (poll(&wait, 1, 2000) <= 0)
        return false;
    fmlnx.selectable[0] = -1;
    fmon_linux_read_event2(&fmon, 0, event_process);
    return true;
}

bool LinuxMonitor::has_input() const
{
    int bytes = 0;
    return ioctl(inotify_descriptor(), FIONREAD, &bytes) == 0 && bytes > 0;
}

void LinuxMonitor::pump_all()
{
    while (has_input())
        pump();
}

void LinuxMonitor::feed(int position, const std::string &bytes)
{
    Pipe pipe;
    pipe.put(bytes);
    int32_t saved = fmlnx.fds[position];
    fmlnx.fds[position] = pipe.read_fd();
    fmlnx.selectable[position] = -1;
    fmon_linux_read_event2(&fmon, 0, event_process);
    fmlnx.fds[position] = saved;
}

std::vector<std::string> LinuxMonitor::events(int instance)
{
    std::vector<std::string> out;
    while (struct event *ev = fmon_peek_event(instance)) {
        out.push_back(std::string(ev->path) + ":" + event_str(ev->mask));
        fmon_drop_event(instance);
    }
    return out;
}

std::map<int, uint32_t> kernel_watches()
{
    std::map<int, uint32_t> out;
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/fdinfo/%d", inotify_descriptor());
    FILE *file = fopen(path, "r");
    if (!file)
        return out;
    char line[512];
    while (fgets(line, sizeof(line), file)) {
        int wd;
        unsigned mask;
        if (sscanf(line, "inotify wd:%x ino:%*x sdev:%*x mask:%x", reinterpret_cast<unsigned *>(&wd), &mask) == 2)
            out[wd] = mask;
    }
    fclose(file);
    return out;
}

int wd_of(const std::string &path)
{
    struct dentry *d = dcache_find(&fmon.dcache, path.c_str());
    return d ? owner_of(d)->wd : -2;
}

uint32_t kernel_mask(const std::string &path)
{
    auto watches = kernel_watches();
    auto found = watches.find(wd_of(path));
    return found == watches.end() ? 0 : found->second;
}

bool cached(const std::string &path) { return dcache_find(&fmon.dcache, path.c_str()) != nullptr; }

}  // namespace testlib
