#include "linux/probe/clt_inotify.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "linux/probe/inotify_probe.h"
#include "linux/probe/kp_binding.h"
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
    int mode;
    struct kp_probe_def probe;
    std::atomic<int32_t> registered; /* 0: not tried; below: the registration's status; above: done */
} state;

/* Kept beyond the registration, since the definition goes on pointing to it. */
char filter[256];

/* Leaves out what the monitor's thread and the library's own process do, and what is no directory's event. */
void make_filter(int tid, uint32_t library_pid)
{
    orx_str_snprintf(filter, sizeof(filter), "common_pid!=%d&&common_pid!=%d&&w!=0", tid,
                     static_cast<int>(library_pid));
}

/* Fills the definition for the running kernel, but for its fetch text. -1: the kernel is not known. */
int choose_probe(char fetch[INOTIFY_FETCH_SIZE])
{
    const int tid = static_cast<int>(syscall(SYS_gettid));
    FMON_LOG(3, kFile, "fmon tid = %d", tid);
    const struct kp_os_info *kernel;
    if (kp_os_info_get(&kernel) < 0) {
        FMON_LOG(2, kFile, "get os_info failed!");
        return -1;
    }
    const struct inotify_probe chosen = inotify_probe_choose(kernel, &state.mode);
    inotify_probe_fetch(&chosen, state.mode, fetch);
    make_filter(tid, kernel->pid);
    state.probe.c0 = '1';
    state.probe.kind = 'p';
    state.probe.filter.u = reinterpret_cast<uintptr_t>(filter);
    orx_str_strlcpy(state.probe.point, chosen.point, sizeof(state.probe.point));
    orx_str_strlcpy(state.probe.name, kEvent, sizeof(state.probe.name));
    FMON_LOG(3, kFile, "kprobe mode = %d", state.mode);
    return 0;
}

int register_probe(const char *fetch)
{
    void *instance = state.instance.load(std::memory_order_acquire);
    if (!instance)
        return -1;
    state.probe.fetch.u = reinterpret_cast<uintptr_t>(fetch);
    const int ret = kp::evt_reg(instance, &state.probe, read_kp_inotify_event);
    state.probe.fetch.u = 0;
    return ret;
}

}  // namespace

int kp_inotify_init(int32_t *descriptors_out)
{
    kp_inotify_destroy();
    kp::forget_trouble();
    void *instance = kp::create_instance(kFile, "clt_inotify", &state.fds, &state.fd_count);
    if (!instance) {
        FMON_LOG(2, kFile, "create kprobe instance failed!"); /* once more, for the source as a whole */
        kp::note_trouble(&fmon_account.inotify_probe, FMON_WHY_INSTANCE);
    }
    if (!instance || clt_inotify_room <= 0) {
        account_source_refused(&fmon_account.inotify_probe, FMON_WHY_OTHER, -1, 0, nullptr);
        kp_inotify_destroy();
        return -1;
    }
    state.instance.store(instance, std::memory_order_release);
    return kp::copy_descriptors(state.fds, state.fd_count, clt_inotify_room, descriptors_out);
}

int get_inotify_event(void)
{
    char fetch[INOTIFY_FETCH_SIZE] = "";
    if (choose_probe(fetch) < 0)
        FMON_LOG(2, kFile, "calculate kprobe cmd failed !"); /* and the library is asked all the same */
    const int ret = register_probe(fetch);
    if (ret < 0)
        FMON_LOG(2, kFile, "register inotify event failed!");
    state.registered = ret < 0 ? ret : 1;
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
    state.mode = 0;
    state.registered = 0;
    memset(&state.probe, 0, sizeof(state.probe));
    return 0;
}

int clt_inotify_active(void) { return state.instance.load(std::memory_order_acquire) != nullptr; }

void clt_inotify_look(struct fmon_source *source)
{
    const int32_t registered = state.registered;
    if (!clt_inotify_active() || registered == 0)
        return;
    if (registered > 0)
        account_source_on(source);
    else
        account_source_refused(source, FMON_WHY_PROBE, registered, 0, "register inotify event failed!");
}

int clt_inotify_mode(void) { return state.mode; }
