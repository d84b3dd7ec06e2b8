/* Records of the inotify probe: an event of a directory that the monitor watches, or of anybody else's. */
#include <sys/inotify.h>

#include <cstring>

#include "event.h"
#include "linux/fmon_linux.h"
#include "linux/probe/clt_inotify.h"
#include "linux/probe/inotify_probe.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/clt_inotify.c";

/* As the library hands it on, in every build, at any address. The name has the room that the mode says, and no NUL when
 * it fills it. */
struct [[gnu::packed]] inotify_record {
    uint64_t inode;
    int32_t wd;
    uint32_t mask;
    char name[];
};
static_assert(offsetof(struct inotify_record, wd) == 8 && offsetof(struct inotify_record, mask) == 12);
constexpr size_t kHead = offsetof(struct inotify_record, name);
static_assert(kHead == 16);

/* The dentry that the record is about; null: none, or none any more. */
struct dentry *find_dentry(struct inotify_record *record)
{
    const uint64_t value = seq_get(&fmlnx.seq, record->wd);
    if (value == 0) {
        record->name[15] = '\0';
        FMON_LOG(4, kFile, "can't find dentry, filename:%s\n", record->name);
        fmon_linux_unknown_wd(record->wd, record->name[0] != '\0' ? record->name : nullptr);
        return nullptr;
    }
    if (value == SEQ_POISON) {
        FMON_LOG(2, kFile, "this dentry is put in poison\n");
        return nullptr;
    }
    struct dentry *d = reinterpret_cast<struct dentry *>(static_cast<uintptr_t>(value));
    if (owner_of(d)->ino == record->inode)
        return d;
    /* The descriptor was given to another directory, or it is one of another process. */
    FMON_LOG(4, kFile, "wd:%d,i_ino:%lu", record->wd, static_cast<unsigned long>(owner_of(d)->ino));
    return nullptr;
}

void report(struct dentry *d, const struct inotify_record *record, const char *name, uint32_t pid)
{
    const uint32_t kinds = record->mask & FMON_ALL_EVENTS;
    if (kinds == 0)
        return;
    FMON_LOG(4, kFile, "inotify event: %s [%s] (%s)\n", dentry_path(d), name ? name : "", event_str(kinds));
    const bool is_dir = name ? (record->mask & IN_ISDIR) != 0 : !(d->owner_bits & DENTRY_FILE);
    fmon.raw = {is_dir ? uint32_t{FMON_DIR_YES} : uint32_t{FMON_DIR_NO}, 0};
    event_process(&fmon, d, name, kinds, pid, 0, nullptr);
}

}  // namespace

void read_kp_inotify_event(uint32_t pid, void *raw, uint32_t size)
{
    const size_t name_size = static_cast<size_t>(inotify_mode_name_size(clt_inotify_mode()));
    if (size < kHead + name_size)
        return;
    struct inotify_record *record = static_cast<struct inotify_record *>(raw);
    FMON_LOG(4, kFile, "pid:%d,inode:%lu,wd:%u,mask:%x", static_cast<int>(pid),
             static_cast<unsigned long>(record->inode), static_cast<unsigned>(record->wd), record->mask);
    /* Before the mask is looked at, unlike the inotify reader: that a watch is gone is taken only from a record of this
     * very directory, since the probe also sees every other process's descriptors. A poisoned entry therefore stays. */
    struct dentry *d = find_dentry(record);
    if (!d)
        return;
    const int32_t wd = record->wd;
    if (record->mask & IN_IGNORED) {
        fmon_linux_ignored(wd);
        return;
    }
    record->name[name_size - 1] = '\0';
    const char *name = record->name[0] != '\0' ? record->name : nullptr;
    report(d, record, name, pid);
    fmon_linux_keep_tree(wd, record->mask, name);
}
