// How probes end, whoever ends, and what cannot be had.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/mount.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "driver.h"

// One that is killed, and the next start of the library.
static void case_killed()
{
    fflush(stdout);
    int ready[2];
    if (pipe(ready) < 0)
        stop("pipe");
    const pid_t child = fork();
    if (child == 0) {
        execlp("probe_driver", "probe_driver", "hold", std::to_string(ready[1]).c_str(), nullptr);
        _exit(127);
    }
    close(ready[1]);
    char byte;
    if (read(ready[0], &byte, 1) != 1)
        stop("the other process");
    const int held = definitions();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    kernel();  // the first call
    result("ends.killed", held == 6 && definitions() == 0,
           std::to_string(held) + " held, " + std::to_string(definitions()) + " left");
}

static void case_starts_and_ends()
{
    {
        const Source first("clt_file");
    }  // what stays open for ever is open now
    const int before = open_descriptors();
    const double began = seconds();
    constexpr int kCycles = 20;
    for (int i = 0; i < kCycles; i++) {
        const Source source("clt_file");
        add_all(source.handle, "mnt==1");
    }
    char words[100];
    snprintf(words, sizeof(words), "%d definitions and %d descriptors more, %.0f ms a cycle", definitions(),
             open_descriptors() - before, (seconds() - began) * 1000 / kCycles);
    result("ends.cycles", definitions() == 0 && open_descriptors() == before, words);
}

void case_ends()
{
    case_killed();
    case_starts_and_ends();

    // The monitor has no call for the end of an instance: the same name again is one.
    Source old("clt_file");
    const Source next("clt_file");
    result("ends.again", kp.parse(0, old.handle) < 0 && kp.parse(0, next.handle) == 0);
    old.handle = nullptr;
}

// For case_killed: holds probes until it is killed.
int hold(int fd)
{
    const Source source("clt_file");
    for (const ProbeRow &probe : kProbes)
        add_probe(source.handle, probe.name, probe.point, fetch_of(probe), "mnt==1", probe.callback);
    enable_all(source.handle, 1);
    if (write(fd, "r", 1) != 1)
        return 1;
    pause();
    return 0;
}

void case_bad_input()
{
    const Source source("clt_file");
    int32_t *fds, count;
    result("bad.null", !kp.create(nullptr, &fds, &count) && kp.os_info(nullptr) < 0 && kp.parse(0, nullptr) < 0 &&
                           kp.enable(1, "Kc", nullptr) < 0 && kp.filter("Kc", "", nullptr) < 0 &&
                           kp.clean(nullptr) < 0 && kp.add(nullptr, nullptr, nullptr) < 0 &&
                           kp.add(source.handle, nullptr, kProbes[0].callback) < 0);
    result("bad.unknown", kp.enable(1, "Kx", source.handle) < 0 && kp.filter("Kx", "mnt==1", source.handle) < 0 &&
                              kp.parse(-1, source.handle) < 0 && kp.parse(source.count, source.handle) < 0 &&
                              kp.parse(0, reinterpret_cast<void *>(0x7777)) < 0);
    const auto refused = [&](const char *point, const std::string &fetch, const std::string &filter) {
        return add_probe(source.handle, "Kc", point, fetch, filter, kProbes[0].callback) < 0;
    };
    error_output_level = 0;
    result("bad.texts", refused("no_such_function", "x=%di", "") && refused("vfs_unlink", "x", "") &&
                            refused("vfs_unlink", "x=%nonsense", "") && refused("vfs_unlink", "x=%di", "y==1") &&
                            refused("vfs_unlink", "x=" + std::string(5000, '+'), "") &&
                            refused("vfs_unlink", "x=%di", "&&m==8") && refused("a b", "x=%di", "") &&
                            refused("vfs_unlink", "x=+1(" + std::string(80, '1') + "(%di))", ""));
    result("bad.nothing_left", definitions() == 0);
    result("bad.plain",
           add_probe(source.handle, "own", "vfs_unlink", "a=%ax b=%dx:u16", "", kProbes[0].callback) >= 0 &&
               definitions() == 1);
}

// Pages that are resident.
static long resident()
{
    long size = 0, pages = 0;
    FILE *file = fopen("/proc/self/statm", "re");
    if (file && fscanf(file, "%ld %ld", &size, &pages) != 2)
        pages = 0;
    if (file)
        fclose(file);
    return pages;
}

void case_cycles()
{
    constexpr int kWarm = 20;
    const char *asked = getenv("CYCLES");
    const int cycles = asked ? atoi(asked) : 1000;
    constexpr long kPages = 256;  // a megabyte
    int descriptors = 0;
    long pages = 0;
    double began = 0;
    for (int i = 0; i < kWarm + cycles; i++) {
        if (i == kWarm) {
            descriptors = open_descriptors();
            pages = resident();
            began = seconds();
        }
        const Source source("clt_file");
        if (add_create_probe(source.handle, "mnt==1") < 0)
            return result("cycles.register", false, "in cycle " + std::to_string(i));
    }
    char words[120];
    snprintf(words, sizeof(words), "%d cycles: %d definitions, %d descriptors and %ld pages more, %.0f ms each", cycles,
             definitions(), open_descriptors() - descriptors, resident() - pages, (seconds() - began) * 1000 / cycles);
    result("cycles", definitions() == 0 && open_descriptors() == descriptors && resident() - pages < kPages, words);
}

// A child that goes on without exec has no probes, and harms none.
void case_forks()
{
    CountCase at("/m_forks");
    Source &source = at.source;
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        int32_t *fds, count;
        const bool refused = kp.parse(0, source.handle) <= 0 && !kp.create("other", &fds, &count) &&
                             kp.add(source.handle, nullptr, nullptr) < 0 && kp.enable(0, "Kc", source.handle) <= 0;
        touch("/m_forks/child");
        pause();
        _exit(!refused);
    }
    usleep(300000);
    in_child([] { touch("/m_forks/other"); });
    source.drain();
    result("forks.both", counted == 2, std::to_string(counted));
    in_child([] { exit(0); });
    result("forks.definitions", definitions() == 1, std::to_string(definitions()));
    touch("/m_forks/own");
    source.drain();
    result("forks.after", counted == 3, std::to_string(counted));
    kp.remove(source.handle);  // while the child lives
    source.handle = nullptr;
    result("forks.removed", definitions() == 0, std::to_string(definitions()));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

// Somebody marks the control files with fanotify and keeps what the events hold open until the probes are deleted:
// older kernels do not survive that for the files of a probe, so that the library must not open these.
void case_watched_tracefs()
{
    const int watcher = fanotify_init(FAN_CLASS_NOTIF | FAN_NONBLOCK | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC);
    if (fanotify_mark(watcher, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_OPEN | FAN_CLOSE, AT_FDCWD,
                      "/sys/kernel/tracing"))
        stop("fanotify_mark");
    const bool safe = kernel()->major > 6 || (kernel()->major == 6 && kernel()->minor >= 7);
    std::vector<int> held;
    {
        error_output_level = 0;
        Source source("clt_file");
        const bool refused = add_create_probe(source.handle, "nofield==1") < 0;
        const bool named = last_line.find("watches tracefs with fanotify") != std::string::npos;
        result("watched.refused", refused && named != safe, last_line);
        result("watched.defined", add_create_probe(source.handle, "mnt==1") >= 0);
        error_output_level = 2;
        alignas(8) char buffer[65536];
        for (ssize_t got; (got = read(watcher, buffer, sizeof(buffer))) > 0;) {
            auto *event = reinterpret_cast<fanotify_event_metadata *>(buffer);
            for (; FAN_EVENT_OK(event, got); event = FAN_EVENT_NEXT(event, got))
                held.push_back(event->fd);
        }
    }
    for (const int fd : held)
        close(fd);
    close(watcher);
    result("watched.ended", definitions() == 0 && !held.empty(), std::to_string(held.size()) + " files held");
}
