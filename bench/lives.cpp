/*
 * lives.cpp: what `fmon watch` knows of processes that live for a moment, and what knowing it costs.
 *
 * usage: fmon_lives STAGE [PROCESSES]    STAGE: an installation tree of fmon; as root; PROCESSES: 20,000
 *
 * - lives: one after the other, each of which writes one file and ends, after a millisecond or so
 * - storm: the same by four processes at once, as fast as they can, with a writer that needs no shared library
 * Counted are the files whose event has the right name, command line and parent; the processor time of the watcher a
 * process, and its memory after a tenth of them and at the end; how much longer the processes took with it.
 */
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "watcher.h"

namespace fs = std::filesystem;

namespace
{

constexpr double kLimit = 30; /* seconds to get ready */
const std::vector<std::string> kReady = {"\"established\""};

std::string g_base; /* for everything that is written */

struct Storm {
    const char *name, *writer; /* beside this program */
    int makers;
};
constexpr Storm kStorms[] = {{"lives", "fmon_writer", 1}, {"storm", "fmon_writer_static", 4}};

struct Result {
    double seconds;
    long kib_early, kib;
    int events, right;
    double cpu;
};

std::string beside_this(const std::string &name)
{
    return fs::read_symlink("/proc/self/exe").parent_path().string() + "/" + name;
}

bool spawn_writer(const std::string &program, const std::string &file)
{
    const char *const arguments[] = {"writer", file.c_str(), nullptr};
    pid_t pid = 0;
    int status = -1;
    return posix_spawn(&pid, program.c_str(), nullptr, nullptr, const_cast<char *const *>(arguments), environ) == 0 &&
           waitpid(pid, &status, 0) == pid && status == 0;
}

/* One of `makers`, as a process: makes every `makers`-th file of those from `first` to `last`. */
pid_t start_maker(const Storm &storm, const std::string &directory, int first, int last)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const std::string program = beside_this(storm.writer);
    for (int i = first; i < last; i += storm.makers)
        if (!spawn_writer(program, directory + "/f" + std::to_string(i)))
            _exit(1);
    _exit(0);
}

/* Adds to `parents` the pid that made each file. */
double make_files(const Storm &storm, const std::string &directory, int first, int last, std::map<int, pid_t> &parents)
{
    const double start = now_seconds();
    std::vector<pid_t> makers;
    for (int i = 0; i < storm.makers; i++) {
        makers.push_back(start_maker(storm, directory, first + i, last));
        for (int file = first + i; file < last; file += storm.makers)
            parents[file] = makers.back();
    }
    for (const pid_t maker : makers)
        waitpid(maker, nullptr, 0);
    return now_seconds() - start;
}

bool has(const std::string &line, const std::string &text) { return line.find(text) != std::string::npos; }

/* Files by number, of which an event was reported; true: and rightly. */
std::map<int, bool> read_events(const Storm &storm, const std::string &out, const std::string &directory,
                                const std::map<int, pid_t> &parents)
{
    std::map<int, bool> seen;
    const std::string path = "\"path\":\"" + directory + "/f";
    std::ifstream lines(out);
    const std::string name = std::string("\"name\":\"") + std::string(storm.writer).substr(0, 15) + "\"";
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find(path);
        if (at == std::string::npos)
            continue;
        const int file = atoi(line.c_str() + at + path.size());
        const auto parent = parents.find(file);
        const bool right = parent != parents.end() && has(line, name) &&
                           has(line, "\"cmdline\":\"writer " + directory + "/f" + std::to_string(file) + "\"") &&
                           has(line, "\"ppid\":" + std::to_string(parent->second) + ",");
        const auto known = seen.emplace(file, right).first;
        known->second = known->second && right;
    }
    return seen;
}

Result measure(const Storm &storm, const std::string &stage, int count)
{
    const std::string directory = g_base + "/" + storm.name;
    fs::create_directories(directory);
    Watcher watcher({stage + "/bin/fmon", "watch", "-q", "-e", "close_write", "--format", "json", "--set",
                     "rate_limit=0", directory},
                    g_base, 0);
    Result result = {};
    if (watcher.wait_ready(kReady, kLimit) < 0) {
        fprintf(stderr, "fmon watch did not start: %s\n", watcher.errors().c_str());
        return result;
    }
    std::map<int, pid_t> parents;
    const double before = watcher.cpu_seconds();
    result.seconds = make_files(storm, directory, 0, count / 10, parents);
    watcher.wait_quiet();
    result.kib_early = watcher.resident_kib();
    result.seconds += make_files(storm, directory, count / 10, count, parents);
    watcher.wait_quiet();
    result.cpu = watcher.cpu_seconds() - before;
    result.kib = watcher.resident_kib();
    watcher.stop();
    for (const auto &[file, right] : read_events(storm, watcher.out(), directory, parents)) {
        result.events++;
        result.right += right;
    }
    fs::remove_all(directory);
    return result;
}

double measure_alone(const Storm &storm, int count)
{
    const std::string directory = g_base + "/alone";
    std::map<int, pid_t> parents;
    fs::create_directories(directory);
    const double seconds = make_files(storm, directory, 0, count, parents);
    fs::remove_all(directory);
    return seconds;
}

void report(const Storm &storm, const std::string &stage, int count)
{
    const double alone = measure_alone(storm, count);
    const Result with = measure(storm, stage, count);
    printf(
        "%-6s %d processes, %.0f/s alone, %.0f/s watched; events %d, right %d (%.2f %%); %.0f us of processor a "
        "process; %ld KiB, then %ld KiB\n",
        storm.name, count, count / alone, count / with.seconds, with.events, with.right, 100.0 * with.right / count,
        with.cpu / count * 1e6, with.kib_early, with.kib);
    fflush(stdout);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || geteuid() != 0) {
        fprintf(stderr, "usage (as root): fmon_lives STAGE [PROCESSES]\n");
        return 2;
    }
    char name[] = "/dev/shm/fmon-livesXXXXXX";
    if (!mkdtemp(name))
        return 2;
    g_base = name;
    const int count = argc > 2 ? atoi(argv[2]) : 20000;
    for (const Storm &storm : kStorms)
        report(storm, argv[1], count);
    fs::remove_all(g_base);
    return 0;
}
