/*
 * Placing a recursive watch on 100,000 directories, beside a bare loop of the system calls without which it cannot be
 * done: a walk with opendir and readdir, and inotify_add_watch and fanotify_mark for each directory. The two take
 * turns, so that both meet the machine in the same state. Needs root.
 */
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "fmon.h"
#include "limits.h"
#include "tree.h"

namespace
{

constexpr int kDirectories = 100000;
constexpr int kRounds = 5;

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/* The kernel takes marks down in the background; the next round must not pay for the last one. */
void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(300)); }

/* ---- the bare loop ---- */

/* What all events on a directory tree come down to. */
constexpr uint32_t kInotifyMask = (FMON_ALL_EVENTS & ~0x3bu) | IN_DONT_FOLLOW;
constexpr uint64_t kFanotifyMask = 0x3b | FAN_ONDIR | FAN_EVENT_ON_CHILD;

struct bare_fds {
    int inotify, fanotify;
};

void mark_bare(const bare_fds &fds, const char *path)
{
    if (fanotify_mark(fds.fanotify, FAN_MARK_ADD | FAN_MARK_DONT_FOLLOW | FAN_MARK_ONLYDIR, kFanotifyMask, AT_FDCWD,
                      path) < 0 ||
        inotify_add_watch(fds.inotify, path, kInotifyMask) < 0) {
        perror(path);
        exit(2);
    }
}

/* Marks the directory whose path the buffer holds and what is below; returns how many. */
int walk_bare(const bare_fds &fds, char *path, size_t length)
{
    mark_bare(fds, path);
    int count = 1;
    DIR *dir = opendir(path);
    while (const struct dirent *entry = readdir(dir)) {
        if (entry->d_type != DT_DIR || entry->d_name[0] == '.')
            continue;
        const size_t name = strlen(entry->d_name);
        path[length] = '/';
        memcpy(path + length + 1, entry->d_name, name + 1);
        count += walk_bare(fds, path, length + 1 + name);
        path[length] = '\0';
    }
    closedir(dir);
    return count;
}

double place_bare(const std::string &root)
{
    const bare_fds fds = {inotify_init(), fanotify_init(0, 0)};
    char path[4096];
    memcpy(path, root.c_str(), root.size() + 1);
    const auto start = Clock::now();
    const int count = walk_bare(fds, path, root.size());
    const double seconds = seconds_since(start);
    if (count != kDirectories)
        fprintf(stderr, "bare loop: %d directories\n", count);
    close(fds.fanotify);
    close(fds.inotify);
    return seconds;
}

/* ---- the module ---- */

struct placed {
    double place, remove; /* seconds */
    double bytes;         /* of user memory, a directory */
};

size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

bool place_module(const std::string &root, placed *out)
{
    const size_t heap = heap_in_use();
    if (fmon_init(10000, DCACHE_MAX_ENTRIES, 30000) != 0)
        return false;
    const int id = fmon_create_instance("bench");
    const auto start = Clock::now();
    const int result = fmon_add_watch(id, root.c_str(), FMON_ALL_EVENTS, FMON_DIR | FMON_RECURSIVE, 0, 0);
    out->place = seconds_since(start);
    const bool whole = result == 0 && fmon.dcache.count >= kDirectories;
    out->bytes = static_cast<double>(heap_in_use() - heap) / kDirectories;

    const auto middle = Clock::now();
    fmon_del_watch(id, root.c_str());
    out->remove = seconds_since(middle);
    fmon_destroy_instance(id);
    fmon_deinit();
    return whole;
}

/* ---- both ---- */

double micros_a_directory(const std::vector<double> &seconds) { return median(seconds) * 1e6 / kDirectories; }

void report(benchmark::State &state, const std::vector<double> &bare, const std::vector<placed> &rounds)
{
    std::vector<double> place, remove, ratio;
    for (size_t i = 0; i < rounds.size(); i++) {
        place.push_back(rounds[i].place);
        remove.push_back(rounds[i].remove);
        ratio.push_back(rounds[i].place / bare[i]);
    }
    state.counters["fmon_us"] = micros_a_directory(place);
    state.counters["bare_us"] = micros_a_directory(bare);
    state.counters["ratio"] = median(ratio);
    state.counters["remove_us"] = micros_a_directory(remove);
    state.counters["bytes"] = rounds.front().bytes;
}

/* The columns are medians: microseconds a directory of the module and of the bare loop, the ratio of the two within a
 * round, microseconds to take a directory's watch away again, and heap bytes a directory. */
void place_recursive(benchmark::State &state)
{
    const MarkLimits limits(2 * kDirectories);
    if (geteuid() != 0 || !limits.enough()) {
        state.SkipWithError("needs root: fanotify, and fs.inotify.max_user_watches to be raised");
        return;
    }
    const BenchTree tree(kDirectories);
    place_bare(tree.root()); /* fills the kernel's caches */
    settle();
    std::vector<double> bare;
    std::vector<placed> rounds;
    for (auto _ : state) {
        bare.push_back(place_bare(tree.root()));
        settle();
        placed round = {};
        if (!place_module(tree.root(), &round)) {
            state.SkipWithError("the module did not watch the whole tree");
            return;
        }
        settle();
        state.SetIterationTime(round.place);
        rounds.push_back(round);
    }
    report(state, bare, rounds);
}
BENCHMARK(place_recursive)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
