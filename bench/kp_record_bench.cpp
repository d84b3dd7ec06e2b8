/*
 * Records of the kernel probes: from the library's buffer to a queued event, beside what the event itself costs.
 */
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "event.h"
#include "fmon.h"
#include "linux/fmon_linux.h"
#include "linux/mount.h"
#include "linux/probe/clt_file.h"
#include "linux/probe/clt_inotify.h"
#include "list.h"
#include "quiet_monitor.h"

namespace
{

constexpr uint32_t kPid = 4711;
constexpr int kDirs = 10; /* names between the mount's root and the file; the root is the eleventh directory */

/* An instance that wants every kind from the whole system. */
int system_wide_instance()
{
    const int id = fmon_create_instance("bench");
    fmon.instances[id].global_mask = FMON_ALL_EVENTS;
    fmon.global_instance_mask |= 1u << id;
    fmon.global_event_mask = FMON_ALL_EVENTS;
    return id;
}

/* The machine's own mount table; the entry that is found last. */
int32_t farthest_mount()
{
    list_init(&fmlnx.mounts);
    get_mountinfo(&fmlnx.mounts);
    if (list_empty(&fmlnx.mounts))
        return 0;
    return FMON_RECORD(fmlnx.mounts.prev, struct mount_entry, link)->mnt_id;
}

struct FileRecord {
    char bytes[420] = {};
    std::string path;
    explicit FileRecord(int32_t mount)
    {
        memcpy(bytes, &mount, sizeof(mount));
        bytes[4] = '/';
        const char *dir = search_mnt(mount);
        path = !dir || strcmp(dir, "/") == 0 ? "/" : dir + std::string("/");
        for (int k = 1; k <= kDirs; k++) {
            const std::string name = "directory-" + std::to_string(k);
            memcpy(bytes + 4 + 32 * k, name.data(), name.size());
            path += name + "/";
        }
        memcpy(bytes + 356, "report.txt", 10);
        path += "report.txt";
    }
};

/* A record is translated, queued for one instance, taken and freed. */
void kp_file_record(benchmark::State &state)
{
    bench::QuietMonitor monitor(10000);
    const int id = system_wide_instance();
    FileRecord record(farthest_mount());
    for (auto _ : state) {
        read_kp_crt_event(kPid, record.bytes, sizeof(record.bytes));
        fmon_drop_event(id);
    }
    read_kp_crt_event(kPid, record.bytes, sizeof(record.bytes));
    const struct event *ev = fmon_peek_event(id);
    if (!ev || ev->path != record.path)
        state.SkipWithError("another path came out");
    fmon_drop_event(id);
    mount_release(&fmlnx.mounts);
}
BENCHMARK(kp_file_record);

/* The same without the translation: the path is there. */
void kp_event_alone(benchmark::State &state)
{
    bench::QuietMonitor monitor(10000);
    const int id = system_wide_instance();
    const FileRecord record(farthest_mount());
    for (auto _ : state) {
        event_process(&fmon, nullptr, record.path.c_str(), FMON_CREATE, kPid, 0, nullptr);
        fmon_drop_event(id);
    }
    mount_release(&fmlnx.mounts);
}
BENCHMARK(kp_event_alone);

/* Nobody has asked for system-wide events: what is called then comes back at once. */
void kp_nothing_to_switch(benchmark::State &state)
{
    for (auto _ : state) {
        enable_event(FMON_CREATE, '0');
        clean_global_event();
        benchmark::DoNotOptimize(kpnotify_parse(0));
    }
}
BENCHMARK(kp_nothing_to_switch);

}  // namespace
