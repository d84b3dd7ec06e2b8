/*
 * kernel_double.h: what the kernel-probe library sees of a kernel, made up: tracefs, perf events, the files that it
 * reads. A probe that the library defines is run by hit(), over memory that the test has filled.
 *
 * Programs are linked with --wrap for each name in wrapped.txt. While no double lives, calls go to the machine's kernel
 * (but see testlib/fault.h). Paths that the double knows are /sys/kernel/tracing/... and those given to file().
 */
#ifndef TESTLIB_KERNEL_DOUBLE_H
#define TESTLIB_KERNEL_DOUBLE_H

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "testlib/kernel_double/fake_files.h"
#include "testlib/kernel_double/fake_perf.h"
#include "testlib/kernel_double/kernel_memory.h"

namespace testlib
{

/* A function is called. */
struct Hit {
    std::string point;
    std::vector<uint64_t> arguments;
    uint32_t pid = 77, tid = 78;
    int cpu = 0;
    uint64_t time = 0; /* 0: now */
};

struct KernelHooks {
    /* Called when the library calls stat() or open() with a path. */
    std::function<void(const std::string &)> on_stat, on_open;
    /* Called when a perf event has been told something, such as PERF_EVENT_IOC_ENABLE. */
    std::function<void(unsigned long request)> on_control;
};

class KernelDouble : public KernelHooks
{
public:
    explicit KernelDouble(bool is_64_bit = true, const std::string &release_text = "6.1.0-50-amd64");
    ~KernelDouble();
    KernelDouble(const KernelDouble &) = delete;
    KernelDouble &operator=(const KernelDouble &) = delete;

    /* The one that lives; null: none. */
    static KernelDouble *living();

    const bool is_64;
    std::string release, machine; /* as uname() gives them */
    KernelMemory memory;
    FakePerf perf;

    /* What `path` holds from now on. Lower files of tracefs too, such as "/sys/kernel/tracing/README". */
    void file(const std::string &path, const std::string &text) { files_.put(path, text); }
    void no_file(const std::string &path) { files_.remove(path); }
    std::string tracing(const std::string &below = "") const { return "/sys/kernel/tracing/" + below; }

    /* Two CPUs, one mount of device 0:20 with id 23, BTF of a 6.1 kernel, everything that a probe may be placed at. */
    void default_files();

    /* Definitions whose text has this word in it are refused with the kernel's words. */
    void refuse(const std::string &word, const std::string &why);

    /* The definitions in force, "p:GROUP/EVENT POINT ARGS". */
    std::vector<std::string> definitions();
    int id_of(const std::string &event);                /* the first event whose name begins so; -1: none */
    int defined() const { return next_id_ - kFirstId; } /* so far, with those that are gone */

    /* Runs the probes at a function, the one that was defined last at first. Returns how many records came of it. */
    int hit(const Hit &hit);

    /* The inotify instance that a descriptor stands for, and an open file that points to it. A probe at inotify_ioctl
     * is hit when the descriptor is asked how much waits in it. */
    uint64_t group_of(int fd);
    uint64_t file_of(int fd);
    uint64_t one_group = 0; /* of every descriptor, where it is not 0 */

    /* As on a kernel before 5.14: a fetch that fails is found in kprobe_profile as a missed hit. */
    bool faults_are_misses = false;

    /* ---- for the wrapped calls ---- */
    std::string real_path(const char *path) { return files_.real_path(path); }
    void opened(const std::string &path, int fd);
    void asked(int fd);
    void closed(int fd);
    bool is_control(int fd);
    int command(int fd, const std::string &text); /* 0 or a negative errno */

private:
    struct Definition {
        std::string text, group, event, point;
        std::vector<Fetch> fetches;
        int id;
        uint64_t hits = 0, faults = 0;
        std::vector<unsigned char> raw; /* what the last record left in the ring's memory */
    };
    int define(const std::string &text);
    int remove(const std::string &name);
    int fail(const std::string &why);
    void write_list();
    void write_profile();
    std::string format_of(const Definition &definition) const;
    uint32_t head() const { return 8 + static_cast<uint32_t>(memory.word()); }

    FakeFiles files_;
    std::mutex lock_;
    std::map<int, std::string> control_; /* kprobe_events and filter files that are open */
    std::map<std::string, std::string> refused_;
    std::vector<Definition> definitions_;
    std::map<int, uint64_t> groups_;
    static constexpr int kFirstId = 1500;
    int next_id_ = kFirstId;
};

/* CLOCK_MONOTONIC goes on by that much, in nanoseconds. */
void pass_time(int64_t ns);
int64_t time_passed(); /* so far, in all of the process's life */

/* Whether this thread is in the double's own code: what it allocates is no concern of the library's. */
bool in_kernel();

}  // namespace testlib

#endif
