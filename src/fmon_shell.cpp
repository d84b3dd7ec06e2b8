#include "fmon_shell.h"

#include <cstdlib>
#include <cstring>

#include "fmon.h"
#include "fmon_status.h"
#include "log.h"
#include "orx_event_loop.h"
#include "text.h"

int32_t g_container_flag;

struct fmon_shell fmon_shell = {
    .run_state = FMON_STOPPED,
    .max_events = 10000,
    .max_dentries = 8000,
    .tbd_interval = 30000, /* ms */
    .rate_limit = 10,
    .rate_interval = 200, /* ms */
    .rate_log = 0,
    .hardened = 0,
    .fs_events = 0,
    .fs_memory_kib = 0,
    .fs_queue = 0,
    .fs_ignore = 0,
    .fs_directories = 65536,
    .fs_memory = 64, /* MiB */
    .fs_rest = 2,    /* ms */
    .lock = nullptr,
    .closed = false,
    .inside = 0,
    .row_count = 0,
    .rows = {},
};

namespace
{

constexpr char kFile[] = "fmon_shell.c";
constexpr char kConfig[] = "@/../config/fmon.ini";
constexpr char kSection[] = "fmon";

/* Twice this, which rate control may compute, still is a signed 32-bit number. */
constexpr uint32_t kCountMax = 1000000000;

/* MiB; in bytes still a 32-bit number. */
constexpr int32_t kFsMemoryMax = 2048;
constexpr int32_t kFsRestMax = 100;
constexpr uint32_t kFsIgnoreMax = 1024;

/* A missing key, and a value of 0 or below, leave the current value. */
void read_positive(void *ini, const char *key, int32_t *value)
{
    const char *text = orx_ini_file_get(ini, kSection, key);
    const int32_t number = text ? text_to_int(text) : 0;
    if (number > 0)
        *value = number;
}

/* Here 0 means something, so a text that is no number must not pass for it: it leaves the current value. */
void read_count(void *ini, const char *key, uint32_t *value)
{
    uint32_t number;
    const char *text = orx_ini_file_get(ini, kSection, key);
    if (text && text_to_count(text, kCountMax, &number))
        *value = number;
}

void read_fs_keys(void *ini)
{
    read_count(ini, "fs_events", &fmon_shell.fs_events);
    read_positive(ini, "fs_directories", &fmon_shell.fs_directories);
    read_positive(ini, "fs_memory", &fmon_shell.fs_memory);
    read_count(ini, "fs_memory_kib", &fmon_shell.fs_memory_kib);
    read_count(ini, "fs_queue", &fmon_shell.fs_queue);
    read_positive(ini, "fs_rest", &fmon_shell.fs_rest);
    read_count(ini, "fs_ignore", &fmon_shell.fs_ignore);
}

void load_config()
{
    char path[260] = "";
    orx_dirutils_path_transform(kConfig, path, sizeof(path));
    void *ini = orx_ini_file_load(path);
    if (!ini)
        return;
    read_positive(ini, "max_events", &fmon_shell.max_events);
    read_positive(ini, "max_dentries", &fmon_shell.max_dentries);
    read_positive(ini, "tbd_interval", &fmon_shell.tbd_interval);
    read_count(ini, "rate_limit", &fmon_shell.rate_limit);
    read_count(ini, "rate_interval", &fmon_shell.rate_interval);
    read_count(ini, "rate_log", &fmon_shell.rate_log);
    read_count(ini, "hardened", &fmon_shell.hardened);
    read_fs_keys(ini);
    orx_ini_file_free(ini);
}

/* Stored only when it changes: a monitor that runs already reads it on its own thread. */
void detect_container()
{
    const int32_t flag = container_detect();
    if (flag != g_container_flag)
        g_container_flag = flag;
}

/* Disabled for the life of the process: an agent that retries would meet the same refusal each time. */
int disable()
{
    fmon_shell.run_state = FMON_DISABLED;
    return -1;
}

bool has_row(int id)
{
    for (int i = 0; i < fmon_shell.row_count; i++)
        if (fmon_shell.rows[i].id == id)
            return true;
    return false;
}

/* An instance that its client gave up while the monitor was stopped: nobody would ever take its events. */
void destroy_rowless()
{
    const ShellRows rows;
    for (int id = 0; id < FMON_MAX_INSTANCES; id++)
        if (fmon.instances[id].name[0] != '\0' && !has_row(id))
            fmon_destroy_instance(id);
}

uint32_t fs_memory_kib()
{
    constexpr uint32_t kMost = uint32_t{kFsMemoryMax} * 1024;
    const uint32_t kib = fmon_shell.fs_memory_kib;
    if (kib > 0)
        return kib < kMost ? kib : kMost;
    return fmon_shell.fs_memory < kFsMemoryMax ? static_cast<uint32_t>(fmon_shell.fs_memory) * 1024 : kMost;
}

uint32_t fs_rest_ms()
{
    return static_cast<uint32_t>(fmon_shell.fs_rest < kFsRestMax ? fmon_shell.fs_rest : kFsRestMax);
}

uint32_t fs_ignored() { return fmon_shell.fs_ignore < kFsIgnoreMax ? fmon_shell.fs_ignore : kFsIgnoreMax; }

int start_core()
{
    fmon.hardened = fmon_shell.hardened;
    fmon.fs_keys = {fmon_shell.fs_events, static_cast<uint32_t>(fmon_shell.fs_directories),
                    fs_memory_kib(),      fmon_shell.fs_queue,
                    fs_rest_ms(),         fs_ignored()};
    if (fmon_init(fmon_shell.max_events, fmon_shell.max_dentries, fmon_shell.tbd_interval) < 0) {
        disable();
        FMON_LOG(1, kFile, "fmon init failed\n");
        shell_lock_destroy();
        return -1;
    }
    destroy_rowless();
    if (fmon_rate_ctrl(fmon_shell.rate_limit, fmon_shell.rate_interval, fmon_shell.rate_log) < 0)
        FMON_LOG(1, kFile, "fmon rate ctrl fail\n");
    return 0;
}

/* The lock and the core. -1: disabled. */
int start_locked()
{
    const ShellClosed closed;
    fmon_shell.lock = th_mutex_init();
    return fmon_shell.lock ? start_core() : disable();
}

/* A thread that cannot be made leaves the monitor started with nobody to read it: clients are served, without events,
 * and a later start finds it running. */
void start_thread()
{
    void *handle = nullptr;
    if (cl_ev_create_isolated_thread(&handle, nullptr, fmon_thread, nullptr) >= 0)
        return;
    FMON_LOG(1, kFile, "create file monitor thread failed\n");
    const ShellLock lock;
    account_monitor_ended("create file monitor thread failed", -1, 0);
}

}  // namespace

int orx_fmon_init(uint32_t, void *)
{
    detect_container();
    if (fmon_shell.run_state > FMON_STOPPED) {
        FMON_LOG(4, kFile, "orx_fmon thread already runing.");
        return 0;
    }
    if (fmon_shell.run_state < FMON_STOPPED) {
        FMON_LOG(2, kFile, "maybe not support inotify");
        return 0;
    }
    fmon_shell.run_state = FMON_RUNNING;
    FMON_LOG(3, kFile, "orx_fmon plugin init");
    load_config();
    if (start_locked() < 0)
        return -1;
    start_thread();
    return 0;
}
