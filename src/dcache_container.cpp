/*
 * Container paths. Inside a container the kernel's paths are those of the mount that an event came from; the agent's
 * container library tells whose mount it is. Without the library every mount counts as the host's.
 */
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

const struct orx_container_mount *find_mount(const char *container_id)
{
    using get_mount_fn = decltype(&_orx_get_container_mount);
    const auto get_mount = reinterpret_cast<get_mount_fn>(agent_library_entry(&sensitive_dir, 0));
    return get_mount ? get_mount(container_id) : nullptr;
}

}  // namespace

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
