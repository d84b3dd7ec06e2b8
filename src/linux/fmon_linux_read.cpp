/* Reading the descriptors that are ready, and what each kernel record means for the tree. */
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "checked.h"
#include "event.h"
#include "linux/event_path.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_source.h"
#include "linux/probe/clt_file.h"
#include "linux/probe/clt_inotify.h"
#include "linux/rate_ctrl.h"
#include "linux/record.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

enum { SELECTABLE_READY = -1, SELECTABLE_OUT = -2, MOUNT_ID_SIZE = 16 };

/* Numbers of renames that no other source gives. */
constexpr uint64_t kMoveOfInotify = uint64_t{1} << 32;

/* One byte more than is ever read: the name of the last record can be terminated in place. */
char read_buffer[FMON_LINUX_READ_BUFFER + 1];
char fanotify_path[DCACHE_PATH_MAX];

/* ---- inotify ---- */

/* Of an entry the record says it, of what has the watch the dentry. */
struct fmon_raw known_of(struct dentry *d, const struct raw_inotify *record, const char *name)
{
    const bool is_dir = name ? (record->mask & IN_ISDIR) != 0 : !(d->owner_bits & DENTRY_FILE);
    return {is_dir ? uint32_t{FMON_DIR_YES} : uint32_t{FMON_DIR_NO},
            record->cookie ? kMoveOfInotify | record->cookie : 0};
}

/* A record for a watch descriptor: 1 when it reached a dentry. */
int handle_watched(struct fmon *monitor, const struct raw_inotify *record, const char *name, int fd,
                   fmon_event_cb callback)
{
    uint64_t value = seq_get(&fmlnx.seq, record->wd);
    if (value == 0) {
        FMON_LOG(1, kFile, "can't find dentry\n");
        fmon_linux_unknown_wd(record->wd, name);
        return 0;
    }
    if (value == SEQ_POISON) {
        FMON_LOG(2, kFile, "this dentry is put in poison\n");
        return 0;
    }
    struct dentry *d = fmon_linux_live_dentry(record->wd);
    uint32_t kinds = record->mask & FMON_ALL_EVENTS;
    if (!name)
        kinds = fmon_linux_told(d, kinds);
    if (kinds != 0) {
        FMON_LOG(4, kFile, "inotify event: %s [%s] (%s)\n", dentry_path(d), name ? name : "", event_str(kinds));
        monitor->raw = known_of(d, record, name);
        callback(monitor, d, name, kinds, 0, fd, nullptr);
    }
    fmon_linux_keep_tree(record->wd, record->mask, name);
    return 1;
}

int handle_inotify_record(struct fmon *monitor, const struct raw_inotify *record, const char *text, int fd,
                          fmon_event_cb callback)
{
    FMON_LOG(4, kFile, "inotify read an event: wd %d, event 0x%x, name %s\n", record->wd, record->mask, text);
    if (record->mask & IN_Q_OVERFLOW) {
        FMON_LOG(3, kFile, "inotify event overflow\n");
        fmlnx.read_status |= READ_INOTIFY_OVERFLOW;
        fmlnx.ino_overflow++;
        return 0;
    }
    if (record->mask & IN_IGNORED) {
        fmon_linux_ignored(record->wd);
        return 0;
    }
    return handle_watched(monitor, record, text[0] != '\0' ? text : nullptr, fd, callback);
}

/* `position`: whose reads are counted. Returns the records handled. */
int read_inotify(struct fmon *monitor, int fd, int position, fmon_event_cb callback)
{
    ssize_t got = read(fd, read_buffer, FMON_LINUX_READ_BUFFER);
    if (got <= 0) {
        FMON_LOG(1, kFile, "read inotify failed: %s\n", strerror(errno));
        return 0;
    }
    fmlnx.io_count[position]++;

    int handled = 0;
    size_t size = static_cast<size_t>(got);
    struct raw_inotify record;
    for (size_t at = 0; inotify_record_at(read_buffer, size, at, &record); at += record.size) {
        /* The kernel pads names with NULs; one that fills its field ends where the next record begins. */
        char *end = read_buffer + at + record.size;
        char saved = *end;
        *end = '\0';
        handled =
            checked_add(handled, handle_inotify_record(monitor, &record, record.len ? record.name : "", fd, callback));
        *end = saved;
    }
    return handled;
}

/* ---- fanotify ---- */

/* Whether the event's path can be reported; it is then in fanotify_path. */
bool find_path(struct fmon *monitor, const struct raw_fanotify *record, int fd)
{
    const bool marked = fd != fmlnx.fds[fmlnx.inotify_num + FAN_FD_MOUNT];
    const enum event_path found =
        event_path_find(record->fd, static_cast<uint32_t>(record->pid), marked, fanotify_path);
    if (found == EVENT_PATH_NONE)
        FMON_LOG(4, kFile, "read link failed, fd %d\n", record->fd);
    if (found == EVENT_PATH_NONE || found == EVENT_PATH_WHOLE)
        return found == EVENT_PATH_WHOLE;
    /* Of a mount whose namespace is gone the kernel reports what is below the mount, as if that were everything. */
    const bool nowhere = found == EVENT_PATH_OTHER && fanotify_path[1] == '\0';
    fmon_lost_path(monitor, nowhere ? "" : fanotify_path);
    /* The beginning of a path is the path of something else. Established: it is reported. */
    return found == EVENT_PATH_CUT && !monitor->hardened;
}

void handle_fanotify_record(struct fmon *monitor, const struct raw_fanotify *record, int fd, fmon_event_cb callback)
{
    if (record->mask & FAN_Q_OVERFLOW) {
        FMON_LOG(2, kFile, "fanotify overflow detected\n");
        fmlnx.fan_overflow++;
        fmlnx.read_status |= READ_FANOTIFY_OVERFLOW;
    } else if (record->fd < 0) {
        monitor->lost.unopened++;
    }
    if (!find_path(monitor, record, fd))
        return;
    uint32_t kinds = static_cast<uint32_t>(record->mask) & FMON_ALL_EVENTS;
    if (kinds == 0)
        return;
    FMON_LOG(4, kFile, "fanotify event: %s (%s) pid %d\n", fanotify_path, event_str(kinds), record->pid);
    char mount_id[MOUNT_ID_SIZE] = {};
    event_mount_id(record->fd, mount_id);
    fmlnx.event_fd = record->fd;
    monitor->raw = {event_path_dir(), 0};
    callback(monitor, nullptr, fanotify_path, kinds, static_cast<uint32_t>(record->pid), fd, mount_id);
    fmlnx.event_fd = -1;
}

/* The records of one read. False: they have another layout. */
bool handle_fanotify_records(struct fmon *monitor, size_t size, int fd, fmon_event_cb callback, int *looked_at)
{
    struct raw_fanotify record;
    for (size_t at = 0; fanotify_record_at(read_buffer, size, at, &record); at += record.event_len) {
        FMON_LOG(4, kFile, "get a fanotify event mask 0x%lx\n", static_cast<unsigned long>(record.mask));
        if (record.vers != FANOTIFY_VERSION) {
            /* What stands where its descriptor is expected must not be closed. */
            FMON_LOG(1, kFile, "metadata ver mismatach\n");
            return false;
        }
        handle_fanotify_record(monitor, &record, fd, callback);
        if (record.fd >= 0)
            close(record.fd);
        *looked_at = checked_add(*looked_at, 1);
    }
    return true;
}

/* Whether the next record may fare better than the one whose file could not be opened. */
bool concerns_one_file(int error) { return error != EMFILE && error != ENFILE && error != ENOMEM && error != EINTR; }

/* One read of at most `size` bytes. False: no further one is of use now. */
bool read_fanotify_once(struct fmon *monitor, int fd, size_t size, fmon_event_cb callback, int *looked_at)
{
    const ssize_t got = read(fd, read_buffer, size);
    const int error = errno;
    if (got > 0) {
        FMON_LOG(4, kFile, "read a fanotify event");
        return handle_fanotify_records(monitor, static_cast<size_t>(got), fd, callback, looked_at);
    }
    FMON_LOG(1, kFile, "read fanotify failed: %s\n", strerror(error));
    if (got < 0 && error != EINTR)
        monitor->lost.unopened++; /* the record is off the queue */
    return got < 0 && concerns_one_file(error);
}

bool more_waits(int fd)
{
    struct pollfd look = {fd, POLLIN, 0};
    return poll(&look, 1, 0) > 0 && (look.revents & POLLIN);
}

/* Returns the records looked at. The kernel takes a record off its queue before it opens the file, and ends the read
 * where that fails: with the error when the record is the first, else with what came before and without a word. A
 * hardened monitor therefore reads record by record, which takes no more than one free descriptor, too. */
int read_fanotify(struct fmon *monitor, int fd, fmon_event_cb callback)
{
    int looked_at = 0;
    if (!monitor->hardened) {
        read_fanotify_once(monitor, fd, FMON_LINUX_READ_BUFFER, callback, &looked_at);
        return looked_at;
    }
    constexpr int kReads = int{FMON_LINUX_READ_BUFFER} / int{FANOTIFY_HEADER};
    for (int n = 0; n < kReads && (n == 0 || more_waits(fd)); n++)
        if (!read_fanotify_once(monitor, fd, FANOTIFY_HEADER, callback, &looked_at))
            break;
    return looked_at;
}

/* ---- a pass ---- */

bool ready(int32_t position) { return position < fmlnx.fd_num && fmlnx.selectable[position] == SELECTABLE_READY; }

/* One busy source must not take the thread: the pass ends. Established: what the probe library still holds is given up.
 * Hardened, it is kept, the library having a limit of its own, and the positions that were not reached come first. */
void give_way(struct fmon *monitor, int32_t position)
{
    if (monitor->hardened)
        fmlnx.next_first = position + 1;
    else
        clean_global_event();
}

void begin_pass()
{
    fmlnx.read_status = 0;
    fmlnx.events_this_pass = 0;
    container_pass(true);
}

/* Nothing stays marked ready beyond its pass: while the event table is full the selection is not made anew, and a
 * stale mark would make a later pass wait in a read, with the monitor lock held. */
void end_pass(struct fmon *monitor, uint32_t now_ms)
{
    for (int32_t i = 0; i < fmlnx.fd_num; i++) {
        if (fmlnx.selectable[i] == SELECTABLE_READY)
            fmlnx.selectable[i] = SELECTABLE_OUT;
    }
    fmlnx.events_this_pass = 0;
    container_pass(false);
    fs_source_heed_news(monitor, now_ms);
    fmon_linux_check_places(now_ms);
    fmon_linux_sweep_marks(now_ms);
    rate_ctrl(monitor, now_ms);
}

/* An inotify-type position: a probe source, or the plain descriptor where no probe instance could be made. */
int read_inotify_source(struct fmon *monitor, int32_t position, fmon_event_cb callback)
{
    if (!clt_inotify_active())
        return read_inotify(monitor, fmlnx.fds[position], position, callback);
    fmlnx.io_count[position]++;
    return inotify_parse(position);
}

int read_position(struct fmon *monitor, int32_t position, fmon_event_cb callback)
{
    int32_t k = fmlnx.inotify_num;
    if (position < k)
        return read_inotify_source(monitor, position, callback);
    fmlnx.io_count[position]++;
    if (position == fmlnx.fs_position) {
        fs_source_read(monitor, callback); /* has a limit of its own */
        return 0;
    }
    return position > k + 1 ? kpnotify_parse(position - k - 2) : read_fanotify(monitor, fmlnx.fds[position], callback);
}

}  // namespace

int fmon_linux_read_event(struct fmon *monitor, uint32_t now_ms, fmon_event_cb callback)
{
    begin_pass();
    const int32_t first = fmlnx.next_first;
    fmlnx.next_first = 0;
    for (int32_t n = 0; n < fmlnx.fd_num; n++) {
        const int32_t i = (first + n) % fmlnx.fd_num;
        if (ready(i))
            fmlnx.events_this_pass = checked_add(fmlnx.events_this_pass, read_position(monitor, i, callback));
        if (fmlnx.events_this_pass > fmlnx.max_events_per_pass) {
            give_way(monitor, i);
            break;
        }
    }
    end_pass(monitor, now_ms);
    return 0;
}

int fmon_linux_read_event2(struct fmon *monitor, uint32_t now_ms, fmon_event_cb callback)
{
    begin_pass();
    FMON_LOG(4, kFile, "fmon read event2");
    /* Fixed positions and no limit of a pass. Only the inotify reader counts its reads, so only it is throttled. */
    if (ready(0))
        read_inotify(monitor, fmlnx.fds[0], 0, callback);
    if (ready(1))
        read_fanotify(monitor, fmlnx.fds[1], callback);
    if (ready(2))
        read_fanotify(monitor, fmlnx.fds[2], callback);
    if (fmlnx.fs_position && ready(fmlnx.fs_position))
        fs_source_read(monitor, callback);
    end_pass(monitor, now_ms);
    return 0;
}
