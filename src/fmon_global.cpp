/*
 * System-wide watches: which instance wants which kinds from the whole system.
 *
 * The backend is only given the union. What an instance asked for stays in its slot even after its death, until the
 * slot is taken again; until then the dead one's kinds go on being asked of the backend.
 */
#include "fmon.h"
#include "linux/fmon_linux.h"
#include "linux/mount.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "fmon.c";

/* The limits of the watch on a mount point. */
constexpr uint32_t kMountDepth = 12, kMountSubdirs = 12;

/* Watches every mount for close_write, which costs less than the system-wide source. 0, or the codes joined by OR: only
 * whether it is 0 counts. */
int watch_mounts(int id)
{
    int result = 0;
    FMON_LIST_EACH (node, &fmlnx.mounts) {
        const char *mount = FMON_RECORD(node, struct mount_entry, link)->mount;
        FMON_LOG(3, kFile, "we watch the mount point:%s", mount);
        result |= fmon_add_watch(id, mount, FMON_CLOSE_WRITE, FMON_MOUNT | FMON_PID, kMountDepth, kMountSubdirs);
    }
    return result;
}

/* What is left for the system-wide source of a mask with close_write. */
uint32_t mask_beside_mounts(int id, uint32_t mask)
{
    if (watch_mounts(id) == 0) {
        FMON_LOG(3, kFile, "fmon use fanotify to watch globale close_write event");
        return mask & ~static_cast<uint32_t>(FMON_CLOSE_WRITE);
    }
    FMON_LOG(2, kFile, "maybe some mount point is not correct!");
    return mask;
}

uint32_t union_of_global_masks(uint32_t instances)
{
    uint32_t mask = 0;
    for (int id = 0; id < FMON_MAX_INSTANCES; id++)
        if (instances & instance_bit(id))
            mask |= fmon.instances[id].global_mask;
    return mask;
}

}  // namespace

int fmon_add_global_watch(int id, uint32_t mask)
{
    int result = fmon_check_instance(id);
    if (result < 0)
        return result;
    const bool by_mounts = (mask & FMON_CLOSE_WRITE) && !fmon_linux_global_has_contents();
    result = fmon_method.add_global(by_mounts ? mask_beside_mounts(id, mask) : mask);
    if (result != 0) {
        /* Only this one mount watch is taken back, whoever added it; the others go on reporting. */
        fmon_del_watch(id, "/");
        return result;
    }
    fmon.global_instance_mask |= instance_bit(id);
    fmon.global_event_mask |= mask;
    fmon.instances[id].global_mask |= mask;
    return 0;
}

int fmon_del_global_watch(int id, uint32_t mask)
{
    /* As it was before: an instance that leaves the set here still counts with what it has left. */
    uint32_t instances = fmon.global_instance_mask;
    int result = fmon_check_instance(id);
    if (result < 0)
        return result;
    fmon.instances[id].global_mask &= ~mask;
    if (!fmon.instances[id].global_mask)
        fmon.global_instance_mask &= ~instance_bit(id);
    if (mask & FMON_CLOSE_WRITE)
        fmon_del_watch(id, "/");
    return fmon_method.del_global(union_of_global_masks(instances));
}

int fmon_update_global_watch(int id)
{
    int result = fmon_check_instance(id);
    if (result < 0)
        return result;
    result = fmon_method.update_global(id);
    if (result != 0)
        FMON_LOG(1, kFile, "update global mnt fail\n");
    return result;
}
