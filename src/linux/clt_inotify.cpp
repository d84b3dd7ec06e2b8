#include "linux/clt_inotify.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "linux/kp_binding.h"
#include "log.h"

int32_t clt_inotify_room;

namespace
{

constexpr char kFile[] = "linux/clt_inotify.c";
constexpr char kEvent[] = "Ki";

/* Zero while there is no source. The instance is atomic: kp_inotify_enable runs without the monitor lock. */
struct {
    std::atomic<void *> instance;
    int32_t *fds; /* made by the library, freed by us */
    int32_t fd_count;
} state;

/* Chooses the probe for the running kernel. */
int choose_probe()
{
    FMON_LOG(3, kFile, "fmon tid = %d", static_cast<int>(syscall(SYS_gettid)));
    const struct kp_os_info *info;
    if (kp_os_info_get(&info) >= 0)
        return 0;
    FMON_LOG(2, kFile, "get os_info failed!");
    return -1;
}

/* This version has no probe definitions. The attempt still goes as far as the library's entry, so that a missing
 * library is reported as for any other call; where the entry exists, nothing is registered and the source fails. */
int register_probe()
{
    int32_t status = 0;
    return kp::entry(kp::EVT_REG, &status) ? -1 : status;
}

}  // namespace

int kp_inotify_init(int32_t *)
{
    kp_inotify_destroy();
    void *instance = kp::create_instance(kFile, "clt_inotify", &state.fds, &state.fd_count);
    if (!instance) {
        FMON_LOG(2, kFile, "create kprobe instance failed!"); /* once more, for the source as a whole */
        return -1;
    }
    /* Without a probe the instance would stay silent; refused here, directories are watched by inotify. */
    FMON_LOG(2, kFile, "register inotify event failed!");
    kp_inotify_destroy();
    return -1;
}

int get_inotify_event(void)
{
    if (choose_probe() < 0)
        FMON_LOG(2, kFile, "calculate kprobe cmd failed !");
    const int ret = register_probe();
    if (ret < 0)
        FMON_LOG(2, kFile, "register inotify event failed!");
    return ret;
}

void kp_inotify_enable(int on)
{
    if (void *instance = state.instance.load(std::memory_order_acquire))
        kp::event_enable(static_cast<uint8_t>(on), kEvent, instance);
}

int inotify_parse(int index)
{
    void *instance = state.instance.load(std::memory_order_acquire);
    if (!instance || index < 0 || index >= state.fd_count)
        return 0;
    return kp::event_parse(index, instance);
}

int kp_inotify_destroy(void)
{
    state.instance.store(nullptr, std::memory_order_release);
    free(state.fds);
    state.fds = nullptr;
    state.fd_count = 0;
    return 0;
}

int clt_inotify_active(void) { return state.instance.load(std::memory_order_acquire) != nullptr; }
