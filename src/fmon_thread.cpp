/* The monitor thread: waits, reads, hands events to the clients' callbacks, and takes everything down at its end. */

#include "fmon_shell.h"

#include <sys/prctl.h>

#include <cerrno>
#include <cstring>

#include "fmon.h"
#include "fmon_status.h"
#include "linux/probe/clt_file.h"
#include "linux/probe/clt_inotify.h"
#include "log.h"
#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_event_loop.h"
#include "select_set.h"

namespace
{

constexpr char kFile[] = "fmon_shell.c";
constexpr char kLogDir[] = "@/../var/log/agent/fmon";
constexpr int kLogFiles = 5;
constexpr uint32_t kWaitMs = 1000; /* longest wait: retries, throttled descriptors and pauses are looked at then */
constexpr uint32_t kPumpMs = 1000; /* the host's event loop gets a turn this often */

/* What the thread keeps from turn to turn. */
struct monitor_loop {
    SelectSet ready;
    uint32_t last_pump = 0;
};

uint32_t now_ms() { return static_cast<uint32_t>(timer_ticks2ms(timer_get_ticks())); }

void begin_thread()
{
    char path[512] = "";
    orx_dirutils_path_transform(kLogDir, path, sizeof(path));
    autolog_init(path, kLogFiles);
    prctl(PR_SET_NAME, "fmon");
    get_inotify_event();
    timer_init();
}

/* Entries to look at: none when the core refuses, as after a failed start. */
int selectable_fds(int32_t **fds, uint32_t *timeout_ms)
{
    const ShellLock lock;
    const int n = fmon_get_selectable_fds(fds, timeout_ms);
    return n > 0 ? n : 0;
}

/* 0 in the array marks a slot that was never filled: no descriptor of the monitor has that number, while the agent's
 * standard input, closed or at its end, would end the loop or keep it spinning. */
void collect(SelectSet *set, const int32_t *fds, int n)
{
    set->clear();
    for (int i = 0; i < n; i++)
        if (fds[i] > 0)
            set->add(fds[i]); /* no memory: this one waits for a later turn */
}

/* An entry of -1 says to the backend that this descriptor can be read. */
void mark_ready(const SelectSet &set, int32_t *fds, int n)
{
    for (int i = 0; i < n; i++) {
        if (fds[i] > 0 && set.has(fds[i])) {
            FMON_LOG(4, kFile, "fds[%d] is ready", i);
            fds[i] = -1;
        }
    }
}

/* The time of this turn. */
uint32_t run_and_deliver()
{
    const ShellLock lock;
    const uint32_t now = now_ms();
    const int ret = fmon_run(now);
    if (ret != 0)
        FMON_LOG(1, kFile, "fmon run failed: %d\n", ret);
    shell_deliver(now);
    return now;
}

void pump_host_loop(uint32_t *last_pump, uint32_t now)
{
    if (now >= *last_pump && now - *last_pump <= kPumpMs)
        return;
    cl_ev_loop_nowait(1);
    cl_event_loop_once();
    *last_pump = now;
}

/* One turn; false with errno: select failed and will fail again. */
bool turn(struct monitor_loop *loop)
{
    int32_t *fds = nullptr;
    uint32_t timeout_ms = kWaitMs;
    const int n = selectable_fds(&fds, &timeout_ms);
    collect(&loop->ready, fds, n);
    const int ready = loop->ready.wait(timeout_ms);
    if (ready < 0)
        return errno == EINTR;
    if (ready > 0)
        mark_ready(loop->ready, fds, n);
    pump_host_loop(&loop->last_pump, run_and_deliver());
    return true;
}

void take_down(int error)
{
    const ShellClosed closed;
    shell_lock_destroy();
    fmon_deinit();
    account_monitor_ended("select failed", 0, error);
    cl_event_loop();
    kp_inotify_destroy();
    kp_notify_destroy();
    FMON_LOG(3, kFile, "orx_fmon close");
    autolog_deinit();
}

/* Instances and their rows stay for the next start, which may begin when the state says so. */
void end_thread(int error)
{
    FMON_LOG(1, kFile, "select failed: %s\n", strerror(error));
    take_down(error);
    fmon_shell.run_state = FMON_STOPPED;
}

/* Time wraps every 49 days: "later" is what lies less than half the range ahead. */
bool paused(const struct shell_row &row, uint32_t now)
{
    return row.next_call != 0 && static_cast<int32_t>(row.next_call - now) > 0;
}

/* 0 stands for no pause: one that ends there is a millisecond longer. */
void pause_until(struct shell_row *row, uint32_t when) { row->next_call = when != 0 ? when : 1; }

void deliver_row(struct shell_row *row, int index, uint32_t now)
{
    while (struct event *ev = fmon_peek_event(row->id)) {
        FMON_LOG(4, kFile, "inst %d cb happened", index);
        const int32_t pause = row->cb ? row->cb(ev) : 0;
        if (pause > 0) {
            pause_until(row, now + static_cast<uint32_t>(pause));
            return;
        }
        fmon_drop_event(row->id);
    }
}

}  // namespace

void shell_deliver(uint32_t now)
{
    for (int i = 0; i < fmon_shell.row_count; i++) {
        struct shell_row *row = &fmon_shell.rows[i];
        if (paused(*row, now))
            continue;
        row->next_call = 0; /* an expired pause must not look like a coming one half a range later */
        deliver_row(row, i, now);
    }
}

int fmon_thread(void *)
{
    begin_thread();
    struct monitor_loop loop;
    while (turn(&loop)) {
    }
    end_thread(errno);
    return 0;
}
