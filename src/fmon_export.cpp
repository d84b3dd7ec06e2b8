/* The functions that the agent's other modules call, on any of their threads. */

#include "fmon_shell.h"

#include <cstddef>

#include "fmon.h"
#include "linux/fmon_linux.h"
#include "linux/probe/clt_file.h"
#include "linux/probe/clt_inotify.h"
#include "orx_base.h"

namespace
{

constexpr char kContainerRoot[] = "/rootfs/var/lib/docker/containers";
constexpr size_t kContainerPathSize = 260;

/* The next-call time stays what the slot held last. Kept: who deletes its instance during a pause and makes a new one
 * in its place does not get round the pause. */
void append_row(int32_t id, fmon_client_cb cb)
{
    struct shell_row *row = &fmon_shell.rows[fmon_shell.row_count];
    row->id = id;
    row->cb = cb;
    fmon_shell.row_count++;
}

/* Index of the first row of that instance, -1. */
int find_row(uint32_t id)
{
    for (int i = 0; i < fmon_shell.row_count; i++)
        if (fmon_shell.rows[i].id == static_cast<int32_t>(id))
            return i;
    return -1;
}

/* The slot freed at the end keeps its contents. */
void remove_row(int index)
{
    for (int i = index; i + 1 < fmon_shell.row_count; i++)
        fmon_shell.rows[i] = fmon_shell.rows[i + 1];
    fmon_shell.row_count--;
}

/* The row goes, and with it the callback; the next start destroys the instance. */
int delete_while_closed(uint32_t id)
{
    {
        const ShellRows rows;
        const int index = find_row(id);
        if (rows && index >= 0)
            remove_row(index);
        if (rows)
            return index < 0 ? -1 : FMON_ENOTINIT;
    }
    return _orx_fmon_del_instance(id); /* it has been opened meanwhile */
}

}  // namespace

/* ---- instances ---- */

int _orx_fmon_create_instance(const char *name, fmon_client_cb cb)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    const ShellRows rows;
    if (fmon_shell.row_count >= FMON_MAX_INSTANCES)
        return -1;
    const int id = fmon_create_instance(name);
    if (id >= 0)
        append_row(id, cb);
    return id;
}

int _orx_fmon_del_instance(uint32_t id)
{
    const ShellLock lock;
    if (!lock)
        return delete_while_closed(id);
    const ShellRows rows;
    const int index = find_row(id);
    if (index < 0)
        return -1;
    const int ret = fmon_destroy_instance(static_cast<int>(id));
    remove_row(index);
    return ret;
}

int callback_func(struct event *) { return 0; }

/* ---- watches ---- */

int _orx_fmon_add_watch(uint32_t id, const char *path, uint32_t mask, uint32_t flags, uint32_t max_depth,
                        uint32_t max_subdirs)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    return fmon_add_watch(static_cast<int>(id), path, mask, flags, max_depth, max_subdirs);
}

int _orx_fmon_del_watch(uint32_t id, const char *path)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    return fmon_del_watch(static_cast<int>(id), path);
}

int _orx_fmon_spare(uint32_t id, const char *path)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    return fmon_spare(static_cast<int>(id), path);
}

int _orx_fmon_resync(const char *path, uint32_t what)
{
    const ShellLock lock;
    if (!lock || !fmon.inited)
        return FMON_ENOTINIT;
    return path[0] == '/' ? fmon_linux_resync(path, what) : int{FMON_EINVAL};
}

int _orx_fmon_global_watch(uint32_t id, uint32_t mask, uint32_t add)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    const int instance = static_cast<int>(id);
    return add ? fmon_add_global_watch(instance, mask) : fmon_del_global_watch(instance, mask);
}

int _orx_fmon_global_update(uint32_t id)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    return fmon_update_global_watch(static_cast<int>(id));
}

void _clt_file_enable(uint32_t flag)
{
    const int on = static_cast<int>(flag & 0xff);
    kp_inotify_enable(on);
    kpnotify_enable(on);
}

/* ---- diagnosis ---- */

int _orx_fmon_losses(struct fmon_losses *out)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    if (!fmon.inited)
        return FMON_ENOTINIT;
    out->unknown_wd = fmlnx.unknown_wd_count;
    out->inotify_overflow = fmlnx.ino_overflow;
    out->fanotify_overflow = fmlnx.fan_overflow;
    return 0;
}

int _orx_fmon_dump(uint32_t type, void *arg)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    return fmon_dump(type, arg);
}

int _orx_get_container_path(char *out260)
{
    orx_str_snprintf(out260, kContainerPathSize, "%s/*", kContainerRoot);
    return 0;
}
