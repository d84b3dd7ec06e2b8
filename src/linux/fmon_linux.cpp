#include "linux/fmon_linux.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "fmon_status.h"
#include "linux/fs/fs_source.h"
#include "linux/inode_index.h"
#include "linux/inotify.h"
#include "linux/mount.h"
#include "linux/probe/clt_file.h"
#include "linux/probe/clt_inotify.h"
#include "linux/probe/kp_binding.h"
#include "linux/rate_ctrl.h"
#include "list.h"
#include "log.h"

struct fmlnx_t fmlnx;

struct fmon_method_t fmon_method = {
    .name = "Linux (fanotify/inotify)",
    .pre_init = fmon_linux_pre_init,
    .init = fmon_linux_init,
    .deinit = fmon_linux_deinit,
    .check_watch = fmon_check_watch,
    .add_watch = fmon_linux_add_watch,
    .del_watch = fmon_linux_del_watch,
    .get_selectable_fds = fmon_linux_get_selectable_fds,
    .read_event = fmon_linux_read_event,
    .dump = fmon_linux_dump,
    .rate_ctrl = fmon_linux_rate_ctrl,
    .punish_unexpected_watch = fmon_linux_punish_unexpected_watch,
    .add_global = fmon_linux_add_global,
    .del_global = fmon_linux_del_global,
    .update_global = fmon_linux_update_global,
};

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

/* inotify and the two fanotify descriptors. */
constexpr int32_t kPlainFds = 3;

/* Positions beyond the computed number: the fanotify pair behind a full set of probe sources. */
constexpr int32_t kSlack = 2;

/* And one for the source of whole file systems, which probe sources must not get. */
int32_t fs_slack() { return fmon.fs_keys.events ? 1 : 0; }

/* The reader without probes looks at the first three positions only: whatever the library offers is then left alone, so
 * that these are inotify and the fanotify pair. */
bool reader_knows_probes() { return fmon_method.read_event != fmon_linux_read_event2; }

/* How many positions the descriptor array has; also chooses the reader. */
int32_t decide_fd_num()
{
    const struct kp_os_info *info = nullptr;
    kp::forget_trouble();
    if (kp_os_info_get(&info) < 0 || !info) {
        FMON_LOG(2, kFile, "maybe not support kprobe!");
        kp::note_trouble(&fmon_account.inotify_probe, FMON_WHY_KERNEL);
        kp::note_trouble(&fmon_account.file_probes, FMON_WHY_KERNEL);
        fmlnx.kp_global = 0;
        /* For the life of the process: a later start that finds the library keeps the simpler reader. */
        fmon_method.read_event = fmon_linux_read_event2;
        return kPlainFds;
    }
    if (info->major == 2 || (info->major == 3 && info->minor <= 9)) {
        FMON_LOG(3, kFile, "kprobe not support multi-instance!");
        return 4;
    }
    return (info->count + 1) * 2;
}

void free_arrays()
{
    free(fmlnx.fds);
    free(fmlnx.period_start);
    free(fmlnx.delay);
    free(fmlnx.io_count);
    free(fmlnx.selectable);
    fmlnx.fds = fmlnx.selectable = nullptr;
    fmlnx.period_start = fmlnx.delay = fmlnx.io_count = nullptr;
}

/* What an earlier run left: the stop keeps these blocks, the next start takes them back. What the table's entries and
 * the mounts' links point to is gone and is not looked at. */
void release_earlier_run()
{
    free_arrays();
    free(fmlnx.seq.entries);
    inode_index_release();
    mount_release(&fmlnx.mounts);
}

/* The five arrays, zeroed. The text of the probe library decides fd_num, so its sources are given their room. */
int make_arrays(int32_t capacity)
{
    size_t n = static_cast<size_t>(checked_add(capacity, fs_slack()));
    fmlnx.fds = static_cast<int32_t *>(calloc(n, sizeof(int32_t)));
    fmlnx.period_start = static_cast<uint32_t *>(calloc(n, sizeof(uint32_t)));
    fmlnx.delay = static_cast<uint32_t *>(calloc(n, sizeof(uint32_t)));
    fmlnx.io_count = static_cast<uint32_t *>(calloc(n, sizeof(uint32_t)));
    fmlnx.selectable = static_cast<int32_t *>(calloc(n, sizeof(int32_t)));
    FMON_LOG(3, kFile, "total %d fd to select", fmlnx.fd_num);
    if (fmlnx.fds && fmlnx.period_start && fmlnx.delay && fmlnx.io_count && fmlnx.selectable)
        return 0;
    FMON_LOG(1, kFile, "fmon_linux_init malloc failed ");
    account_monitor_ended("fmon_linux_init malloc failed", FMON_ENOMEM, 0);
    free_arrays();
    return FMON_ENOMEM;
}

int open_inotify(int32_t capacity)
{
    clt_inotify_room = reader_knows_probes() ? capacity - kSlack : 0;
    int k = init_inotify(fmlnx.fds);
    fmlnx.inotify_num = k;
    if (k >= 0) {
        if (checked_add(k, 2) > fmlnx.fd_num)
            fmlnx.fd_num = k + 2;
        account_source_on(&fmon_account.inotify);
        return 0;
    }
    const int error = errno;
    FMON_LOG(1, kFile, "init inotify failed: %s\n", strerror(error));
    account_source_refused(&fmon_account.inotify, FMON_WHY_SYSTEM, FMON_LINUX_EINOINIT, error, nullptr);
    account_monitor_ended("init inotify failed", FMON_LINUX_EINOINIT, error);
    free_arrays();
    mount_release(&fmlnx.mounts);
    return FMON_LINUX_EINOINIT;
}

void open_fanotify()
{
    int32_t k = fmlnx.inotify_num;
    for (int j = 0; j < 2; j++) {
        int fd = init_fanotify();
        int error = errno;
        struct fmon_source *source = j == FAN_FD_FILE ? &fmon_account.fanotify : &fmon_account.mounts;
        if (fd < 0)
            account_source_refused(source, FMON_WHY_SYSTEM, fd, fd == FMON_LINUX_ENOFAN ? ENOSYS : error, nullptr);
        else
            account_source_on(source);
        fmlnx.fds[k + j] = fd;
        FMON_LOG(3, kFile, "fanotify fd:%d", fd);
        if (fd < 0) {
            /* The number printed is that of slot j, not of the slot that failed: log readers know the line so. */
            FMON_LOG(3, kFile, "init fanotify failed: %d %s\n", fmlnx.fds[j], strerror(error));
            fmlnx.fds[k + j] = -1;
        }
        fmlnx.fan_fd[j] = fmlnx.fds[k + j];
    }
}

/* The probe sources of system-wide events, in the positions behind fanotify. */
void open_global()
{
    int32_t first = fmlnx.inotify_num + 2;
    int32_t slots = fmlnx.fd_num - first;
    for (int32_t i = 0; i < slots; i++)
        fmlnx.fds[first + i] = -1;
    /* The library that would fill them is the host's affair: inside a container they stay unusable. */
    if (g_container_flag) {
        account_trouble(&fmon_account.file_probes, FMON_WHY_CONTAINER, 0, 0, nullptr);
        return;
    }

    fmlnx.kp_global = 1;
    clt_file_room = reader_knows_probes() ? slots : 0;
    const bool started = init_kpnotify(&fmlnx.fds[first]) >= 0;
    if (started && reader_knows_probes()) {
        account_source_on(&fmon_account.file_probes);
        return;
    }
    account_source_refused(&fmon_account.file_probes, FMON_WHY_OTHER, 0, 0, nullptr);
    kp_notify_destroy();
    fmlnx.kp_global = 0;
    FMON_LOG(1, kFile, "init kpnotify failed");
    FMON_LOG(4, kFile, "kp_fd_num:%d, fd_num:%d, cur_fd_num:%d", fmlnx.inotify_num, fmlnx.fd_num, first);
    /* Only as many positions as there are inotify sources become -1. The others stay 0, which log readers know and the
     * monitor's thread passes over: no descriptor of the monitor has that number. */
    for (int32_t i = 0; i < slots; i++)
        fmlnx.fds[first + i] = i < fmlnx.inotify_num ? -1 : 0;
}

/* Behind all others, whose positions stay what they are. */
void open_file_systems()
{
    const int fd = fs_source_start();
    fmon.fs_fd = 0;
    fmon.fs_global = 0;
    if (fd < 0)
        return;
    fmlnx.fs_position = fmlnx.fd_num++;
    fmlnx.fds[fmlnx.fs_position] = fd;
    fmon.fs_fd = fd;
}

/* Its descriptor is closed by its owner. */
void close_file_systems()
{
    fs_source_stop();
    if (fmlnx.fs_position)
        fmlnx.fds[fmlnx.fs_position] = -1;
    fmon.fs_fd = 0;
    fmon.fs_global = 0;
}

}  // namespace

int fmon_linux_pre_init(void) { return 0; }

int fmon_linux_init(struct fmon *)
{
    if (fmlnx.initialised)
        return FMON_EEXIST;
    release_earlier_run();
    memset(&fmlnx, 0, sizeof(fmlnx));
    list_init(&fmlnx.mounts);
    fmlnx.event_fd = -1;
    fmlnx.by_descriptor = fmon.hardened && access("/proc/self/fd", X_OK) == 0;
    get_mountinfo(&fmlnx.mounts);

    fmlnx.fd_num = decide_fd_num();
    int32_t capacity = checked_add(fmlnx.fd_num > kPlainFds ? fmlnx.fd_num : kPlainFds, kSlack);
    int result = make_arrays(capacity);
    if (result < 0)
        return result;
    result = open_inotify(capacity);
    if (result < 0)
        return result;
    open_fanotify();
    open_global();
    open_file_systems();

    FMON_LOG(3, kFile, "fmon watct these fds");
    for (int32_t i = 0; i < fmlnx.fd_num; i++)
        FMON_LOG(3, kFile, "fd[%d] = %d", i, fmlnx.fds[i]);
    fmlnx.max_events_per_pass = FMON_LINUX_PASS_LIMIT;
    fmlnx.initialised = 1;
    return 0;
}

void fmon_linux_deinit(void)
{
    if (!fmlnx.initialised)
        return;
    close_file_systems();
    /* 0 is an unfilled position, never a descriptor of ours; the inotify one is closed by its owner, once. */
    for (int32_t i = 0; i < fmlnx.fd_num; i++) {
        if (fmlnx.fds[i] > 0 && fmlnx.fds[i] != inotify_descriptor())
            close(fmlnx.fds[i]);
    }
    inotify_free();
    inode_index_release();
    fmlnx.initialised = 0;
}

int fmon_linux_get_selectable_fds(int32_t **out_fds, uint32_t *out_timeout_ms)
{
    *out_fds = fmlnx.selectable;
    int result = 0;
    uint32_t min_delay = 0;
    for (int32_t i = 0; i < fmlnx.fd_num; i++) {
        bool usable = fmlnx.delay[i] == 0 && fmlnx.fds[i] >= 0;
        fmlnx.selectable[i] = usable ? fmlnx.fds[i] : -2;
        if (usable)
            result = i + 1;
        /* A position left out only because it has no descriptor (delay 0) takes back the delay found before it. Kept:
         * the wait then lasts the caller's full time-out. */
        else if (min_delay == 0 || fmlnx.delay[i] < min_delay)
            min_delay = fmlnx.delay[i];
    }
    if (min_delay != 0)
        *out_timeout_ms = min_delay;
    return result;
}

void fmon_linux_dump(uint32_t, void *) { fs_source_dump(); }

void _dump_file_list(void) {}
