/*
 * peers.cpp: `fmon watch` beside `inotifywait -m`, from outside, on the same trees and the same changes.
 *
 * usage: fmon_peers STAGE [DIRECTORIES [FILES]]    STAGE: an installation tree of fmon; as root
 *
 * The two take turns. Processor time is the watcher's own, user and system, from the first change until it has fallen
 * quiet. An event is counted by kind: a record of fmon that joins "create,delete" of one path counts as two.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "limits.h"
#include "tree.h"
#include "watcher.h"

namespace
{

constexpr int kRounds = 3;
constexpr int kChurnDirectories = 100;
/* Files that exist at a time: more than the kernel's queues hold, so that no watcher is so late that a file is gone
 * when it asks for the file's path. */
constexpr int kAlive = 20000;
constexpr uid_t kNobody = 65534;
constexpr double kLimit = 300; /* seconds to watch a tree */

/* The churn is on a file system in memory, where changes come fastest and a disk does not blur the figures. */
constexpr char kMemory[] = "/dev/shm";

const std::vector<std::string> kReady = {"Watches established", "fmon: watching "};

struct contestant {
    const char *name;
    bool is_fmon;
    uid_t uid;
};
constexpr contestant kInotifywait = {"inotifywait", false, 0};
constexpr contestant kInotifywaitNobody = {"inotifywait, not root", false, kNobody};
constexpr contestant kFmon = {"fmon", true, 0};
constexpr contestant kFmonNobody = {"fmon, not root", true, kNobody};
std::string stage;   /* fmon's installation tree */
std::string scratch; /* the watchers' output */

std::vector<std::string> command_of(const contestant &who, const std::string &events, const std::string &root)
{
    std::vector<std::string> command;
    if (who.is_fmon) {
        command = {stage + "/bin/fmon",
                   "watch",
                   "-r",
                   "--set",
                   "rate_limit=0",
                   "--format",
                   "text",
                   "-e",
                   events.empty() ? "all" : events};
    } else {
        command = {"inotifywait", "-m", "-r"};
        if (!events.empty())
            command.insert(command.end(), {"-e", events});
    }
    command.push_back(root);
    return command;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

/* ---- watching a large tree ---- */

struct placing {
    std::vector<double> wall, cpu;
    long kib = 0;
};

bool place_once(const contestant &who, const std::string &events, const std::string &root, placing *result)
{
    Watcher watcher(command_of(who, events, root), scratch, who.uid);
    const double wall = watcher.wait_ready(kReady, kLimit);
    if (wall < 0) {
        printf("  %-24s did not get ready: %s\n", who.name, watcher.errors().c_str());
        return false;
    }
    result->wall.push_back(wall);
    result->cpu.push_back(watcher.cpu_seconds());
    result->kib = watcher.resident_kib();
    watcher.stop();
    sleep(1); /* the kernel takes the marks down in the background */
    return true;
}

void print_placing(const contestant &who, const placing &mine, const placing &peer)
{
    const double wall = median(mine.wall), cpu = median(mine.cpu);
    printf("  %-24s %7.2f s %8.2f s cpu %8.1f MiB   x%.2f wall, x%.2f cpu, x%.2f memory\n", who.name, wall, cpu,
           static_cast<double>(mine.kib) / 1024, wall / median(peer.wall), cpu / median(peer.cpu),
           static_cast<double>(mine.kib) / static_cast<double>(peer.kib));
}

void compare_placing(const BenchTree &tree, const char *title, const std::string &events,
                     const std::vector<contestant> &all)
{
    printf("%s\n", title);
    std::vector<placing> results(all.size());
    for (int round = 0; round < kRounds; round++) {
        for (size_t i = 0; i < all.size(); i++) {
            if (!place_once(all[i], events, tree.root(), &results[i]))
                return;
        }
    }
    for (size_t i = 0; i < all.size(); i++)
        print_placing(all[i], results[i], results[0]);
}

/* ---- churn ---- */

struct churn_result {
    double cpu = 0, wall = 0;
    uint64_t lines = 0, kinds = 0;
    bool loss = false;
};

std::string file_path(const std::string &root, int number)
{
    return root + "/d" + std::to_string(number % kChurnDirectories) + "/file" + std::to_string(number);
}

/* Creates, writes, closes and deletes `files` files as fast as it can. */
void churn(const std::string &root, int files)
{
    for (int i = 0; i < files + kAlive; i++) {
        if (i < files) {
            const int fd = open(file_path(root, i).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
            if (fd < 0 || write(fd, "0123456789abcdef", 16) != 16) {
                perror("churn");
                exit(2);
            }
            close(fd);
        }
        if (i >= kAlive)
            unlink(file_path(root, i - kAlive).c_str());
    }
}

bool is_kind(std::string word)
{
    static const char *const names[] = {"create", "delete", "modify", "close_write", "open", "access", "close_nowrite"};
    std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::tolower(c); });
    return std::find(std::begin(names), std::end(names), word) != std::end(names);
}

bool tells_loss(const std::string &text)
{
    for (const char *word : {"loss", "lost", "OVERFLOW", "verflow"}) {
        if (text.find(word) != std::string::npos)
            return true;
    }
    return false;
}

void count_line(const std::string &line, churn_result *result)
{
    result->lines++;
    for (size_t at = 0; at < line.size();) {
        const size_t end = std::min(line.find_first_of(" ,", at), line.size());
        result->kinds += is_kind(line.substr(at, end - at)) ? 1 : 0;
        at = end + 1;
    }
    result->loss |= tells_loss(line);
}

bool churn_once(const contestant &who, const std::string &events, int files, churn_result *result)
{
    const BenchTree tree(1, access(kMemory, W_OK) == 0 ? kMemory : nullptr);
    for (int i = 0; i < kChurnDirectories; i++) {
        const std::string path = tree.root() + "/d" + std::to_string(i);
        mkdir(path.c_str(), 0777);
    }
    Watcher watcher(command_of(who, events, tree.root()), scratch, who.uid);
    if (watcher.wait_ready(kReady, kLimit) < 0) {
        printf("  %-24s did not get ready: %s\n", who.name, watcher.errors().c_str());
        return false;
    }
    watcher.wait_quiet();
    const double cpu = watcher.cpu_seconds(), start = now_seconds();
    churn(tree.root(), files);
    result->wall = now_seconds() - start;
    watcher.wait_quiet();
    result->cpu = watcher.cpu_seconds() - cpu;
    watcher.stop();
    result->loss = tells_loss(watcher.errors());
    std::ifstream out(watcher.out());
    for (std::string line; std::getline(out, line);)
        count_line(line, result);
    return true;
}

/* The kernel drops what a watcher is too slow for, and reports that; whether the watcher passes that on is its affair.
 */
const char *loss_text(bool reported, bool missing)
{
    if (reported)
        return "LOSS, told";
    return missing ? "LOSS, not told" : "no loss";
}

void print_churn(const contestant &who, const std::vector<churn_result> &rounds, double raw, double peer_cpu)
{
    std::vector<double> cpu, wall, seen;
    bool reported = false;
    for (const churn_result &round : rounds) {
        cpu.push_back(round.cpu);
        wall.push_back(round.wall);
        seen.push_back(100.0 * static_cast<double>(round.kinds) / raw);
        reported |= round.loss;
    }
    const double least = *std::min_element(seen.begin(), seen.end());
    printf("  %-24s %6.3f us cpu an event (x%.2f), %8llu events in %8llu lines, at least %5.1f %% seen, %.1f s, %s\n",
           who.name, median(cpu) * 1e6 / raw, median(cpu) / peer_cpu,
           static_cast<unsigned long long>(rounds.back().kinds), static_cast<unsigned long long>(rounds.back().lines),
           least, median(wall), loss_text(reported, least < 100));
}

/* `kinds`: how many of the wanted kinds happen to each file. */
void compare_churn(const char *title, const std::string &events, int kinds, int files,
                   const std::vector<contestant> &all)
{
    printf("%s\n", title);
    std::vector<std::vector<churn_result>> results(all.size());
    for (int round = 0; round < kRounds; round++) {
        for (size_t i = 0; i < all.size(); i++) {
            churn_result result;
            if (!churn_once(all[i], events, files, &result))
                return;
            results[i].push_back(result);
        }
    }
    std::vector<double> peer;
    for (const churn_result &round : results[0])
        peer.push_back(round.cpu);
    for (size_t i = 0; i < all.size(); i++)
        print_churn(all[i], results[i], static_cast<double>(files) * kinds, median(peer));
}

/* ---- both ---- */

/* A copy of the installation tree that any user can reach: it works from anywhere. */
void copy_stage(const std::string &from, const std::string &to)
{
    namespace fs = std::filesystem;
    fs::copy(from, to, fs::copy_options::recursive);
    fs::permissions(to + "/var/log/agent/fmon", fs::perms::all);
    stage = to;
}

void compare_all(int directories, int files)
{
    const MarkLimits limits(2L * directories);
    {
        const BenchTree tree(directories);
        printf("-- watching %d directories (inotifywait = 1)\n", directories);
        compare_placing(tree, "created and deleted files only: inotify on both sides", "create,delete",
                        {kInotifywait, kFmon});
        compare_placing(tree, "all kinds: as root fmon also marks every directory for fanotify", "",
                        {kInotifywait, kFmon, kFmonNobody});
    }
    printf("-- churn of %d files: create, write, close, delete (inotifywait = 1)\n", files);
    compare_churn("create,delete: inotify on both sides", "create,delete", 2, files, {kInotifywait, kFmon});
    compare_churn("create,modify,close_write,delete: as root fmon takes two of them from fanotify, with the process",
                  "create,modify,close_write,delete", 4, files, {kInotifywait, kFmon});
    compare_churn("the same without root: inotify on both sides", "create,modify,close_write,delete", 4, files,
                  {kInotifywaitNobody, kFmonNobody});
    compare_churn("all kinds", "", 5, files, {kInotifywait, kFmon});
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || geteuid() != 0) {
        fprintf(stderr, "usage (as root): %s STAGE [DIRECTORIES [FILES]]\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const BenchTree place(1);
    scratch = place.root();
    copy_stage(argv[1], scratch + "/stage");
    compare_all(argc > 2 ? atoi(argv[2]) : 100000, argc > 3 ? atoi(argv[3]) : 200000);
    return 0;
}
