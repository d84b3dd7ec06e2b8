#include "linux/clt_file.h"

#include <cstdlib>
#include <cstring>

#include "linux/kp_binding.h"
#include "linux/mount.h"
#include "log.h"
#include "watch_map.h"

struct clt_file_state clt_file;
int32_t clt_file_room;

namespace
{

constexpr char kFile[] = "linux/clt_file.c";
constexpr size_t kFilterSize = 256;

/* A filter text under construction; what does not fit is cut off. */
class FilterText
{
public:
    explicit FilterText(char *out) : out_(out) { out_[0] = '\0'; }
    bool has_room() const { return len_ < kFilterSize - 1; }
    void put(const char *text)
    {
        orx_str_snprintf(out_ + len_, kFilterSize - len_, "%s", text);
        len_ += strlen(out_ + len_); /* hosts differ in what the call returns for a text that was cut off */
    }
    void put_mount(const char *joint, int32_t id)
    {
        char text[sizeof("||mnt==-2147483648")];
        orx_str_snprintf(text, sizeof(text), "%smnt==%d", joint, id);
        put(text);
    }

private:
    char *out_;
    size_t len_ = 0;
};

/* "(mnt==A||mnt==B||mnt==0)": the mounts watched as a whole, and records whose mount could not be read. */
int write_filter(const int32_t *ids, int count, char *out)
{
    FilterText filter(out);
    filter.put("(");
    filter.put_mount("", ids[0]);
    for (int i = 1; i < count && filter.has_room(); i++)
        filter.put_mount("||", ids[i]);
    if (filter.has_room())
        filter.put_mount("||", 0);
    if (!filter.has_room()) {
        FMON_LOG(2, kFile, "can't get common filter");
        return -1;
    }
    filter.put(")");
    FMON_LOG(3, kFile, "common_filter = %s", out);
    return 0;
}

/* The filter that all file probes share; left empty where no mount is watched. -1: too many mounts for its length. */
int common_filter(char *out)
{
    int32_t *ids = nullptr;
    out[0] = '\0';
    const int count = get_global_mnt(&ids);
    if (count <= 0) {
        FMON_LOG(2, kFile, "can't get mountonfo!");
        free(ids);
        return 0;
    }
    const int ret = write_filter(ids, count, out);
    free(ids);
    return ret;
}

int start_failed(const char *message, int status)
{
    FMON_LOG(2, kFile, "%s", message);
    kp_notify_destroy();
    return status;
}

/* 0 with an instance; else the collector is back to zero. */
int start_instance()
{
    void *instance = kp::create_instance(kFile, "clt_file", &clt_file.fds, &clt_file.fd_count);
    if (!instance)
        return start_failed("create kprobe instance failed!", -1);
    clt_file.instance.store(instance, std::memory_order_release);
    return 0;
}

}  // namespace

int init_kpnotify(int32_t *)
{
    kp_notify_destroy();
    struct os_info info;
    int ret = get_os_info(&info);
    if (ret < 0)
        return start_failed("main get_os_info error", ret);
    ret = init_file_offset_conf(info);
    if (ret < 0)
        return start_failed("load offset config error", ret);
    char filter[kFilterSize];
    ret = common_filter(filter);
    if (ret < 0)
        return start_failed("maybe noy support global event", ret);
    ret = start_instance();
    if (ret < 0)
        return ret;
    /* This version has no probe definitions: the collector ends as it does where the kernel refuses the first one. */
    return start_failed("register create file cmd failed!", -1);
}

int kp_notify_destroy(void)
{
    clt_file.instance.store(nullptr, std::memory_order_release);
    free(clt_file.fds);
    clt_file.fds = nullptr;
    clt_file.fd_count = 0;
    clt_file.s_mounts_offset = 0;
    clt_file.mnt_id_offset = 0;
    return 0;
}

/* No probe is registered that could be switched. */
void enable_event(uint32_t, int) {}

void kpnotify_enable(int on)
{
    if (watch_map)
        enable_event(watch_map[0], on);
}

void enable_filter(uint32_t)
{
    /* Built even while no probe takes it: that is what refreshes the mount table. */
    char filter[kFilterSize];
    if (common_filter(filter) < 0)
        FMON_LOG(2, kFile, "maybe noy support global event");
}

int kpnotify_parse(int index)
{
    void *instance = clt_file.instance.load(std::memory_order_acquire);
    if (!instance || index < 0 || index >= clt_file.fd_count)
        return 0;
    return kp::event_parse(index, instance);
}

void clean_global_event(void)
{
    FMON_LOG(4, kFile, "events is too much ,we clean the global event");
    if (void *instance = clt_file.instance.load(std::memory_order_acquire))
        kp::cache_clean(instance);
}
