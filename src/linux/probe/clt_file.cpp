#include "linux/probe/clt_file.h"

#include <cstdlib>
#include <cstring>

#include "linux/probe/fetch_text.h"
#include "linux/probe/kp_binding.h"
#include "linux/probe/mount_filter.h"
#include "log.h"
#include "watch_map.h"

struct clt_file_state clt_file;
int32_t clt_file_room;

namespace
{

constexpr char kFile[] = "linux/clt_file.c";

/* ---- the probes ---- */

/* Before 4.9 the kernel had no other function that all creations of a file pass. */
const char *create_point(const struct kp_os_info *kernel)
{
    const bool old = kernel->major < 4 || (kernel->major == 4 && kernel->minor < 9);
    return old ? "vfs_create" : "security_inode_create";
}
const char *unlink_point(const struct kp_os_info *) { return "vfs_unlink"; }
const char *parent_point(const struct kp_os_info *) { return "__fsnotify_parent"; }
const char *rename_point(const struct kp_os_info *) { return "vfs_rename"; }
const char *link_point(const struct kp_os_info *) { return "vfs_link"; }

/* Where a probe's definition is stored: not in the order of registration. */
enum { DEF_CREATE, DEF_LINK, DEF_DELETE, DEF_CLOSE_WRITE, DEF_MOVED_FROM, DEF_MOVED_TO };

/* A probe a row, in the order of their registration. `dentry` is where the function has the dentry that is reported:
 * of a rename the old or the new one, of a link the existing one. `more` is fetched behind the record's fixed fields
 * and `condition` goes behind the common filter. */
struct probe_row {
    int def;
    uint32_t event;
    const char *name;
    const char *(*point)(const struct kp_os_info *);
    const char *dentry64, *dentry32;
    const char *more64, *more32;
    const char *condition;
    kp_record_cb record;
    const char *refused;
};

constexpr probe_row kProbes[CLT_FILE_PROBES] = {
    {DEF_CREATE, FMON_CREATE, "Kc", create_point, "%si", "%dx", nullptr, nullptr, nullptr, read_kp_crt_event,
     "register create file cmd failed!"},
    {DEF_DELETE, FMON_DELETE, "Ku", unlink_point, "%si", "%dx", nullptr, nullptr, nullptr, read_kp_del_event,
     "register delete file cmd failed!"},
    /* the kernel's own event mask and the inode's mode: closes of regular files only, after writing */
    {DEF_CLOSE_WRITE, FMON_CLOSE_WRITE, "Km", parent_point, "%si", "%dx", "m=%dx:u32 f=+0(+48(%si)):u16",
     "m=%cx:u32 f=+0(+36(%dx)):u16", "m==8&&f>=32768&&f<=36863", read_kp_writeclose_event,
     "register close_write file cmd failed!"},
    {DEF_MOVED_FROM, FMON_MOVED_FROM, "Krf", rename_point, "%si", "%dx", nullptr, nullptr, nullptr,
     read_kp_movefrom_event, "register rename from file cmd failed!"},
    {DEF_MOVED_TO, FMON_MOVED_TO, "Krt", rename_point, "%cx", "+4(%sp)", nullptr, nullptr, nullptr,
     read_kp_moveto_event, "register rename to file cmd failed!"},
    /* the line speaks of close_write: log readers know it so */
    {DEF_LINK, FMON_LINK, "Kl", link_point, "%di", "%ax", nullptr, nullptr, nullptr, read_kp_link_event,
     "register close_write file cmd failed!"},
};

/* Kept beyond the registration, since definitions go on pointing to them; a library copies what it needs. */
char common_filter[MOUNT_FILTER_SIZE];
char close_write_filter[MOUNT_FILTER_SIZE];

const char *filter_of(const probe_row &probe)
{
    if (!probe.condition)
        return common_filter;
    /* Without mounts it begins with "&&", and with many it is cut off: a library refuses both. Kept. */
    orx_str_snprintf(close_write_filter, sizeof(close_write_filter), "%s&&%s", common_filter, probe.condition);
    FMON_LOG(4, kFile, "real_filter = %s", close_write_filter);
    return close_write_filter;
}

void make_fetch_text(const probe_row &probe, bool is_64, char out[FETCH_TEXT_SIZE])
{
    fetch_text_make(is_64, clt_file.mnt_id_offset, clt_file.s_mounts_offset, is_64 ? probe.dentry64 : probe.dentry32,
                    out);
    const char *more = is_64 ? probe.more64 : probe.more32;
    if (!more)
        return;
    const size_t length = strlen(out);
    orx_str_snprintf(out + length, FETCH_TEXT_SIZE - length, " %s", more);
}

void define_probe(const probe_row &probe, const struct kp_os_info *kernel, struct kp_probe_def *def)
{
    def->c0 = '0';
    def->kind = 'p';
    def->filter.u = reinterpret_cast<uintptr_t>(filter_of(probe));
    orx_str_strlcpy(def->point, probe.point(kernel), sizeof(def->point));
    orx_str_strlcpy(def->name, probe.name, sizeof(def->name));
}

/* The registration's status; -1: the kernel is not known, or it is older than any that has these functions. */
int register_probe(const probe_row &probe, struct kp_probe_def *def, void *instance)
{
    const struct kp_os_info *kernel;
    if (kp_os_info_get(&kernel) < 0) {
        FMON_LOG(2, kFile, "get os_info failed!");
        kp::note_trouble(&fmon_account.file_probes, FMON_WHY_KERNEL);
        return -1;
    }
    if (kernel->major < 3)
        return -1;
    define_probe(probe, kernel, def);
    char fetch[FETCH_TEXT_SIZE];
    make_fetch_text(probe, kernel->arch == KP_ARCH_X86_64, fetch);
    def->fetch.u = reinterpret_cast<uintptr_t>(fetch);
    const int32_t status = kp::evt_reg(instance, def, probe.record);
    def->fetch.u = 0;
    FMON_LOG(3, kFile, "krpopbe mode = %d", clt_file.mode);
    return status;
}

/* Null: the kind has no probe. */
struct kp_probe_def *probe_of(uint32_t event)
{
    for (const probe_row &probe : kProbes)
        if (probe.event == event)
            return &clt_file.probes[probe.def];
    return nullptr;
}

/* ---- start ---- */

int start_failed(const char *message, int status, uint32_t reason)
{
    FMON_LOG(2, kFile, "%s", message);
    account_trouble(&fmon_account.file_probes, reason, status, 0, message);
    kp_notify_destroy();
    return status;
}

/* What must be known before anything is asked of the library. */
int prepare()
{
    struct os_info info;
    int ret = get_os_info(&info);
    if (ret < 0)
        return start_failed("main get_os_info error", ret, FMON_WHY_OTHER);
    ret = init_file_offset_conf(info);
    if (ret < 0)
        return start_failed("load offset config error", ret, FMON_WHY_CONFIG);
    ret = mount_filter_make(common_filter);
    if (ret < 0)
        return start_failed("maybe noy support global event", ret, FMON_WHY_MOUNTS);
    return 0;
}

int register_all(void *instance)
{
    for (const probe_row &probe : kProbes) {
        const int ret = register_probe(probe, &clt_file.probes[probe.def], instance);
        if (ret < 0)
            return start_failed(probe.refused, ret, FMON_WHY_PROBE);
    }
    return 0;
}

}  // namespace

int init_kpnotify(int32_t *descriptors_out)
{
    kp_notify_destroy();
    kp::forget_trouble();
    int ret = prepare();
    if (ret < 0)
        return ret;
    void *instance = kp::create_instance(kFile, "clt_file", &clt_file.fds, &clt_file.fd_count);
    if (!instance) {
        kp::note_trouble(&fmon_account.file_probes, FMON_WHY_INSTANCE);
        return start_failed("create kprobe instance failed!", -1, FMON_WHY_INSTANCE);
    }
    ret = register_all(instance);
    if (ret < 0)
        return ret;
    clt_file.instance.store(instance, std::memory_order_release);
    return kp::copy_descriptors(clt_file.fds, clt_file.fd_count, clt_file_room, descriptors_out);
}

int kp_notify_destroy(void)
{
    clt_file.instance.store(nullptr, std::memory_order_release);
    free(clt_file.fds);
    clt_file.fds = nullptr;
    clt_file.fd_count = 0;
    clt_file.mode = 0;
    clt_file.s_mounts_offset = 0;
    clt_file.mnt_id_offset = 0;
    memset(clt_file.probes, 0, sizeof(clt_file.probes));
    return 0;
}

void enable_event(uint32_t event_bit, int on)
{
    void *instance = clt_file.instance.load(std::memory_order_acquire);
    const struct kp_probe_def *def = probe_of(event_bit);
    /* The byte goes on as it came: '1' and '0' from global watches, 1 and 0 from the agent's switch. */
    if (instance && def && def->name[0] != '\0')
        kp::event_enable(static_cast<uint8_t>(on), def->name, instance);
}

void kpnotify_enable(int on)
{
    if (watch_map)
        enable_event(watch_map[0], on);
}

void enable_filter(uint32_t event_bit)
{
    /* Made even when no probe takes it: that is what refreshes the mount table. */
    char filter[MOUNT_FILTER_SIZE];
    if (mount_filter_make(filter) < 0) {
        FMON_LOG(2, kFile, "maybe noy support global event");
        account_trouble(&fmon_account.file_probes, FMON_WHY_MOUNTS, -1, 0, nullptr);
        return;
    }
    void *instance = clt_file.instance.load(std::memory_order_acquire);
    const struct kp_probe_def *def = event_bit == FMON_CREATE ? probe_of(event_bit) : nullptr;
    if (instance && def && def->name[0] != '\0')
        kp::event_filter(def->name, filter, instance);
}

int kpnotify_parse(int index)
{
    void *instance = clt_file.instance.load(std::memory_order_acquire);
    if (!instance || index < 0 || index >= clt_file.fd_count)
        return 0;
    return kp::event_parse(index, instance);
}

void kpnotify_losses(struct fmon_loss_counts *out)
{
    struct kp_losses now = {};
    if (kp::losses_total(&now) < 0)
        return;
    out->probes_ring = now.ring;
    out->probes_queue = now.queue;
    out->probes_cleaned = now.cleaned;
    out->probes_unreadable = now.unreadable;
    out->probes_missed = now.missed;
}

void clean_global_event(void)
{
    FMON_LOG(4, kFile, "events is too much ,we clean the global event");
    if (void *instance = clt_file.instance.load(std::memory_order_acquire))
        kp::cache_clean(instance);
}
