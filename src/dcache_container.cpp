/*
 * Container paths. Inside a container the kernel's paths are those of the mount that an event came from; the agent's
 * container library tells whose mount it is. Without the library every mount counts as the host's.
 */
#include "dcache.h"

#include <cerrno>

#include "dll.h"
#include "log.h"
#include "orx_base.h"
#include "orx_sensitivedir.h"

namespace
{

constexpr char kFile[] = "dcache.c";
constexpr char kLibrary[] = "@/../lib/liborx_sensitive_dir.6.so";

typedef const struct orx_container_mount *(*get_mount_fn)(const char *id);

/* Found once, kept for the life of the process. */
get_mount_fn get_mount;

/* The only two places that know the record. */
int32_t mount_pid(const struct orx_container_mount *record) { return record->pid; }
const char *mount_label(const struct orx_container_mount *record) { return record->label; }

/* Null when the library or its entry is missing; the next call then tries again. */
get_mount_fn load_get_mount()
{
    if (get_mount)
        return get_mount;
    void *handle = dll_open(kLibrary);
    if (!handle) {
        FMON_LOG(1, kFile, "load fmon module failed, errno: %d\n", errno);
        return nullptr;
    }
    get_mount = reinterpret_cast<get_mount_fn>(dlsym(handle, "_orx_get_container_mount"));
    if (!get_mount) {
        /* The line names another entry than the one looked up; log readers know it in this form. */
        FMON_LOG(1, kFile, "load sensitivedir symbol: _orx_get_container_info failed, errno: %d\n", errno);
        orx_dll_close(handle);
    }
    return get_mount;
}

const struct orx_container_mount *find_mount(const char *container_id)
{
    get_mount_fn get = load_get_mount();
    return get ? get(container_id) : nullptr;
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
