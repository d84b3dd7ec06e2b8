/* The source's part of a dump: the source of each watch, marked file systems, the table, and what waits. */
#include <sys/sysmacros.h>

#include <cinttypes>

#include "event.h"
#include "linux/fs/fs_served.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fs/fs_dump.cpp";

constexpr const char *kHow[] = {"its mark", "its mark, apart", "marks on directories", "left out"};
static_assert(sizeof(kHow) / sizeof(kHow[0]) == FS_BELOW_LEFT_OUT + 1, "a word for each");

/* Where the file system is mounted, the first such place; "?": nowhere that is seen from here. */
const char *point_of(const struct fs_system *system)
{
    for (size_t i = 0; i < fs_source.mounts.count; i++) {
        const struct fs_mount *mount = &fs_source.mounts.all[i];
        if (makedev(mount->major, mount->minor) == system->dev)
            return mount->point;
    }
    return "?";
}

void dump_state()
{
    struct fs_counts counts;
    fs_engine_counts(fs_source.engine, &counts);
    FMON_LOG(4, kFile, "  table: %u of %u directories, %u anchors, %u ignored\n", counts.directories, counts.limit,
             counts.anchors, counts.ignored);
    FMON_LOG(4, kFile, "  waiting: %zu of %zu bytes, %zu of them records as they were read\n",
             static_cast<size_t>(fs_source.queue.memory), fs_source.queue.limit, fs_source.arena.size);
    FMON_LOG(4, kFile, "  records: %" PRIu64 ", asked: %" PRIu64 "\n", counts.records, counts.asked);
    FMON_LOG(4, kFile, "  lost: overflows %" PRIu64 ", thrown away %" PRIu64 ", unresolved %" PRIu64 "\n",
             fs_source.counters.overflows, fs_source.counters.dropped, fs_source.counters.unresolved);
}

void dump_system(const struct fs_system *system)
{
    FMON_LOG(4, kFile, "  [S] %s (%u:%u), id %x %x, bits %" PRIx64 ", users %u\n", point_of(system), major(system->dev),
             minor(system->dev), static_cast<unsigned>(system->fsid[0]), static_cast<unsigned>(system->fsid[1]),
             system->bits, system->users);
}

void dump_below(struct fs_root *root)
{
    FMON_LIST_EACH (node, &root->below) {
        const struct fs_below *below = FMON_RECORD(node, struct fs_below, link);
        FMON_LOG(4, kFile, "    [M] %s (%s)%s\n", below->point, kHow[below->how],
                 below->displaced ? ", displaced" : "");
    }
}

void dump_root(struct fs_root *root)
{
    FMON_LOG(4, kFile, "  [W] %s (%s), event %s%s%s\n", root->path, root->system ? "filesystem" : "only mounts below",
             event_str(root->kinds), root->recursive ? ", with all below" : "", root->displaced ? ", displaced" : "");
    dump_below(root);
}

/* Watches that the source does not serve. */
void dump_others()
{
    for (struct instance &instance : fmon.instances) {
        if (!instance.name[0])
            continue;
        FMON_LIST_EACH (node, &instance.watches) {
            const struct watch *w = FMON_RECORD(node, struct watch, inst_link);
            if (!w->fs)
                FMON_LOG(4, kFile, "  [W] %s (%s)\n", w->path, w->dentry ? "marks" : "not placed");
        }
    }
}

}  // namespace

void fs_source_dump(void)
{
    if (!fmon.fs_keys.events)
        return;
    FMON_LOG(4, kFile, "\nFile systems:\n");
    if (fs_source_ready()) {
        const FsLock lock;
        dump_state();
        FMON_LIST_EACH (node, &fs_source.systems)
            dump_system(FMON_RECORD(node, struct fs_system, link));
        FMON_LIST_EACH (node, &fs_source.roots)
            dump_root(FMON_RECORD(node, struct fs_root, link));
    }
    dump_others();
}
