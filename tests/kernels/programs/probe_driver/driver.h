/*
 * driver.h: what the cases of probe_driver share: the library as the monitor loads it, and the monitor's own
 * definitions.
 */
#ifndef GUEST_PROBE_DRIVER_H
#define GUEST_PROBE_DRIVER_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "guest_program.h"
#include "kp_thread_utils.h"

double seconds();

// ---- the library ----

struct Library {
    decltype(&_kp_ins_crt) create;
    decltype(&_os_info_get) os_info;
    decltype(&_kp_evt_reg) add;
    decltype(&kp_event_parse) parse;
    decltype(&_kp_event_enable) enable;
    decltype(&_kp_event_filter) filter;
    decltype(&_cache_clean) clean;
    decltype(&kp_loss_counts) losses;
    decltype(&kp_ins_del) remove;
    decltype(&kp_unavailable) unavailable;
};
extern Library kp;
extern "C" int error_output_level;  // lines above are not shown
extern std::string last_line;       // of the library's log

void load_library();
const kp_os_info *kernel();

// An instance and its descriptors.
struct Source {
    void *handle = nullptr;
    int32_t *fds = nullptr, count = 0;

    explicit Source(const char *name);
    ~Source();
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;

    // Reads until nothing has come for so long.
    int drain(int quiet_ms = 100);
    kp_losses losses() const;
};

// ---- probes ----

struct ProbeRow {
    const char *name, *point, *dentry64, *dentry32, *more64, *more32, *condition;
    kp_record_cb callback;
};
extern const ProbeRow kProbes[6];

int add_probe(void *handle, const char *name, const char *point, const std::string &fetch, const std::string &filter,
              kp_record_cb callback);
std::string fetch_of(const ProbeRow &probe);
int add_create_probe(void *handle, const std::string &filter);
void add_all(void *handle, const std::string &filter);
void enable_all(void *handle, char on);

// What the probes reported, in the order of arrival.
struct FileEvent {
    std::string kind, path;
    uint32_t pid;
};
extern std::vector<FileEvent> seen;
extern bool counting;  // paths are not wanted
extern uint64_t counted;

// ---- places ----

int mount_id_of(const std::string &path);
void make_mount(const std::string &path);
void touch(const std::string &path);
void create_many(const std::string &directory, int who, int n);
std::string mounts_filter(const std::vector<int> &ids);
std::string text_of(const char *bytes, size_t room);

// Our definitions in the kernel.
int definitions();
int open_descriptors();

// Runs in a process of its own, which is gone before anything is read.
template <typename Body>
uint32_t in_child(Body &&body)
{
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    int status;
    waitpid(pid, &status, 0);
    if (status != 0)
        result("child", false, "status " + std::to_string(status));
    return static_cast<uint32_t>(pid);
}

// Exactly these, in this order, all of one process.
void expect(const std::string &name, const std::vector<std::string> &wanted, uint32_t pid);

// All probes on a mount of its own.
struct FileCase {
    Source source{"clt_file"};
    std::string place, id;  // id: "MOUNTID:", as paths begin
    explicit FileCase(const std::string &where);
    ~FileCase();
    FileCase(const FileCase &) = delete;
    FileCase &operator=(const FileCase &) = delete;
};

// The create probe alone, on a mount of its own; records are counted.
struct CountCase {
    Source source{"clt_file"};
    std::string place, filter;
    explicit CountCase(const std::string &where);
    ~CountCase();
    CountCase(const CountCase &) = delete;
    CountCase &operator=(const CountCase &) = delete;
};

// ---- cases ----

void case_files();
void case_names();
void case_mounts();
void case_inotify();
void case_many();
void case_clean();
void case_disturbed();
void case_cost();
void case_cost_parts();
void case_latency();
void case_ends();
void case_cycles();
void case_forks();
void case_bad_input();
void case_watched_tracefs();
int hold(int fd);

#endif
