/*
 * Container paths. Inside a container the kernel's paths are those of the mount that an event came from; the agent's
 * container library says whose mount it is. Without the library every mount counts as the host's.
 */
#include <cstring>

#include "agent_library.h"
#include "dcache.h"
#include "orx_base.h"
#include "orx_sensitivedir.h"

namespace
{

/* The line on a missing entry names another one than is looked up; log readers know it in this form. */
constinit struct agent_library sensitive_dir = {
    .path = "@/../lib/liborx_sensitive_dir.6.so",
    .log_file = "dcache.c",
    .module = "fmon module",
    .symbol = "sensitivedir symbol: _orx_get_container_info",
    .names = {"_orx_get_container_mount"},
    .entries = {},
    .handle = {},
};

/* The only two places that know the record. */
int32_t mount_pid(const struct orx_container_mount *record) { return record->pid; }
const char *mount_label(const struct orx_container_mount *record) { return record->label; }

/* Mounts that the library was asked for in this pass, in vain. It may have waited for news of each: the next event of
 * the same mount must not wait again, with the monitor lock held. */
enum { STRANGERS = 64, STRANGER_SIZE = 16 };
struct {
    bool in_pass;
    int count;
    char ids[STRANGERS][STRANGER_SIZE];
} pass;

bool asked_in_vain(const char *id)
{
    for (int i = 0; i < pass.count; i++)
        if (strcmp(pass.ids[i], id) == 0)
            return true;
    return false;
}

void note_stranger(const char *id)
{
    const size_t size = strlen(id) + 1;
    if (pass.in_pass && pass.count < STRANGERS && size <= STRANGER_SIZE)
        memcpy(pass.ids[pass.count++], id, size);
}

const struct orx_container_mount *find_mount(const char *container_id)
{
    if (asked_in_vain(container_id))
        return nullptr;
    using get_mount_fn = decltype(&_orx_get_container_mount);
    const auto get_mount = reinterpret_cast<get_mount_fn>(agent_library_entry(&sensitive_dir, 0));
    const struct orx_container_mount *record = get_mount ? get_mount(container_id) : nullptr;
    if (get_mount && !record)
        note_stranger(container_id);
    return record;
}

}  // namespace

void container_pass(bool begins)
{
    pass.in_pass = begins;
    pass.count = 0;
}

void container_path_get(const char *path, const char *container_id, const char **source, char *out, int out_size)
{
    if (!path || !container_id || !source || !out || !*container_id)
        return;
    /* A negative size would be a huge one to the formatter. */
    const size_t size = out_size > 0 ? static_cast<size_t>(out_size) : 0;
    const struct orx_container_mount *record = find_mount(container_id);
    if (record) {
        orx_str_snprintf(out, size, "/proc/%d/root%s", mount_pid(record), path);
        *source = mount_label(record);
    } else {
        orx_str_snprintf(out, size, "/rootfs%s", path);
        *source = "host";
    }
}
