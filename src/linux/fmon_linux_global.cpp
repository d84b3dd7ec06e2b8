/* System-wide kinds, switched at the probe sources. */

#include "linux/fmon_linux.h"
#include "linux/fs/fs_source.h"
#include "linux/probe/clt_file.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/fmon_linux.c";

/* The kinds that a probe can report from the whole system, in the order in which they are switched. */
constexpr uint32_t kGlobalKinds[] = {FMON_CLOSE_WRITE, FMON_MOVED_FROM, FMON_MOVED_TO, FMON_DELETE, FMON_CREATE};

/* Where probes cannot be used, events of whole file systems can. `kinds`: all that are wanted. */
bool served(uint32_t kinds) { return fmlnx.kp_global != 1 && fs_source_global(kinds) == 0; }

/* Not in a container, nor where the probe library is missing or did not start. */
bool supported()
{
    if (fmlnx.kp_global == 1)
        return true;
    FMON_LOG(2, kFile, "not support global event");
    return false;
}

/* Turns the kinds in `mask` on or off. Other bits have no probe and change nothing. */
void switch_kinds(uint32_t mask, int on)
{
    for (const uint32_t kind : kGlobalKinds) {
        if (mask & kind)
            enable_event(kind, on);
    }
}

}  // namespace

bool fmon_linux_global_has_contents(void) { return fmlnx.kp_global != 1 && fs_source_ready(); }

int fmon_linux_add_global(uint32_t mask)
{
    if (served(fmon.global_event_mask | mask))
        return 0;
    if (!supported())
        return -1;
    switch_kinds(mask, '1');
    return 0;
}

int fmon_linux_del_global(uint32_t mask)
{
    if (served(mask))
        return 0;
    if (!supported())
        return -1;
    switch_kinds(~mask, '0');
    return 0;
}

/* Only the create probe filters by mount and by watched place. */
int fmon_linux_update_global(int)
{
    if (fmon.fs_global) {
        fs_source_look_at_mounts();
        return 0;
    }
    if (!supported())
        return -1;
    enable_filter(FMON_CREATE);
    return 0;
}
