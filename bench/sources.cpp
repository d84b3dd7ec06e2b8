/*
 * sources.cpp: the two sources of `fmon watch`, marks on every directory and one mark a file system, beside each other
 * and beside inotifywait and fatrace.
 *
 * usage: fmon_sources STAGE [FILES [DIRECTORIES [DISK]]]    STAGE: an installation tree of fmon; as root
 *        fmon_sources --bare DIRECTORY                      reads the queue of one file-system mark and does nothing
 * with it
 *
 * - churn: FILES files (200,000) in ten directories, each created, written, closed and deleted at once, by a process of
 * its own whose processor time is compared with what it needs when nobody watches
 * - outside: the same beside watchers of an empty directory on the same file system
 * - placing: a tree of DIRECTORIES directories (1,000,000)
 * The churn is on the file system in memory, and on DISK, a directory, when there is one. All take turns; figures are
 * medians.
 */
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bare_reader.h"
#include "churn.h"
#include "limits.h"
#include "tree.h"
#include "watcher.h"

namespace
{

constexpr int kRounds = 3, kDirectories = 10;
constexpr double kLimit = 600; /* seconds to watch a tree */
constexpr char kMemory[] = "/dev/shm";

const std::vector<std::string> kReady = {"Watches established", "fmon: watching ", "bare: ready"};

struct contestant {
    std::string name;
    std::vector<std::string> command; /* the directory follows; empty: nobody watches */
    bool whole;                       /* fatrace: all of the directory's file system, and no word when it is ready */
};

struct result {
    std::vector<double> cpu, churn_cpu, wall, seen, named;
    std::vector<double> records; /* of the kernel's, where the watcher counts them */
    bool loss = false;
};

std::string scratch; /* the watchers' output */
std::string self;

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

double least(const std::vector<double> &values)
{
    return values.empty() ? 0 : *std::min_element(values.begin(), values.end());
}

contestant nobody() { return {"nobody", {}, false}; }

contestant bare() { return {"the queue is read, no more", {self, "--bare"}, false}; }

contestant fmon(const std::string &stage, const char *source, const char *events)
{
    return {
        std::string("fmon, ") + source,
        {stage + "/bin/fmon", "watch", "-r", "--source", source, "--probes", "off", "--format", "text", "-e", events},
        false};
}

/* The kernel is asked to be silent of loud directories outside. */
contestant ignoring(const std::string &stage, const char *name, const char *events)
{
    contestant who = fmon(stage, "filesystem", events);
    who.name = name;
    who.command.insert(who.command.end(), {"--set", "fs_ignore=64"});
    return who;
}

contestant inotifywait(const char *events) { return {"inotifywait", {"inotifywait", "-m", "-r", "-e", events}, false}; }

/* It looks at mounts of devices only, unless it is told to look at the one that it is on. */
contestant fatrace() { return {"fatrace", {"sh", "-c", "cd \"$0\" && exec fatrace -c -f W"}, true}; }

bool is_there(const std::string &program) { return system(("command -v " + program + " >/dev/null").c_str()) == 0; }

/* ---- churn ---- */

std::unique_ptr<Watcher> start(const contestant &who, const std::string &directory)
{
    std::vector<std::string> command = who.command;
    command.push_back(directory);
    auto watcher = std::make_unique<Watcher>(command, scratch, 0);
    if (who.whole) {
        sleep(1);
    } else if (watcher->wait_ready(kReady, kLimit) < 0) {
        printf("  %-28s did not get ready: %s\n", who.name.c_str(), watcher->errors().c_str());
        return nullptr;
    }
    watcher->wait_quiet();
    return watcher;
}

bool churn_alone(const std::string &root, int files, result &total)
{
    const ChurnCost cost = run_churn(root, kDirectories, files);
    total.churn_cpu.push_back(cost.cpu);
    total.wall.push_back(cost.wall);
    return true;
}

/* What the reader that does nothing else says in the end. */
void note_records(const std::string &errors, result &total)
{
    constexpr char kWord[] = "bare: ";
    const size_t at = errors.rfind(kWord);
    if (at != std::string::npos)
        total.records.push_back(atof(errors.c_str() + at + sizeof kWord - 1));
}

/* `watched`: a directory on the same file system; `kinds` that are due of each file. */
bool churn_beside(const contestant &who, const std::string &root, const std::string &watched, int files, unsigned kinds,
                  result &total)
{
    if (who.command.empty())
        return churn_alone(root, files, total);
    const std::unique_ptr<Watcher> watcher = start(who, watched);
    if (!watcher)
        return false;
    const double before = watcher->cpu_seconds();
    churn_alone(root, files, total);
    watcher->wait_quiet();
    total.cpu.push_back(watcher->cpu_seconds() - before);
    watcher->stop();
    note_records(watcher->errors(), total);
    ChurnReport report;
    report.read(watcher->out(), files);
    total.seen.push_back(100 * report.seen(kinds));
    total.named.push_back(report.lines ? 100.0 * static_cast<double>(report.named) / static_cast<double>(report.lines)
                                       : 0);
    total.loss |= report.loss || watcher->errors().find("loss") != std::string::npos;
    return true;
}

void print_churn(const contestant &who, const result &mine, const result &peer, const result &none, int files)
{
    const double per_file = 1e6 / files, cpu = median(mine.cpu);
    printf("  %-28s churn x%.2f (%.2f s)", who.name.c_str(), median(mine.churn_cpu) / median(none.churn_cpu),
           median(mine.churn_cpu));
    if (!mine.cpu.empty())
        printf("; %6.2f us cpu a file, x%.2f; seen %.1f %%, with a process %.0f %%%s", cpu * per_file,
               cpu / median(peer.cpu), least(mine.seen), least(mine.named), mine.loss ? ", LOSS reported" : "");
    if (!mine.cpu.empty() && !peer.records.empty())
        printf("; %.2f us a record", cpu * 1e6 / median(peer.records));
    printf("\n");
}

struct comparison {
    const char *title;
    unsigned kinds;              /* due of each file; 0: what is watched is an empty directory beside */
    std::vector<contestant> all; /* the second is the peer */
};

void compare(const comparison &what, const char *place, int files)
{
    printf("-- %s, on %s (the second = 1)\n", what.title, place ? place : "the disk");
    std::vector<result> results(what.all.size());
    for (int round = 0; round < kRounds; round++)
        for (size_t i = 0; i < what.all.size(); i++) {
            const BenchTree tree(1, place), beside(1, place);
            prepare_churn(tree.root(), kDirectories);
            if (!churn_beside(what.all[i], tree.root(), what.kinds ? tree.root() : beside.root(), files,
                              what.kinds ? what.kinds : unsigned{kCreated}, results[i]))
                return;
        }
    for (size_t i = 0; i < what.all.size(); i++)
        print_churn(what.all[i], results[i], results[1], results[0], files);
}

/* ---- placing ---- */

void place(const contestant &who, const std::string &root)
{
    std::vector<std::string> command = who.command;
    command.push_back(root);
    Watcher watcher(command, scratch, 0);
    const double wall = watcher.wait_ready(kReady, kLimit);
    if (wall < 0)
        printf("  %-28s did not get ready: %s\n", who.name.c_str(), watcher.errors().c_str());
    else
        printf("  %-28s %9.3f s until it says so, %8.3f s cpu, %8.1f MiB\n", who.name.c_str(), wall,
               watcher.cpu_seconds(), static_cast<double>(watcher.resident_kib()) / 1024);
    watcher.stop();
    sleep(2); /* the kernel takes the marks down in the background */
}

void compare_placing(const std::string &stage, int directories)
{
    const MarkLimits limits(2L * directories);
    const BenchTree tree(directories, kMemory);
    printf("-- watching %d directories on a file system in memory\n", directories);
    for (int round = 0; round < 2; round++) {
        place(inotifywait("create,delete,move,close_write"), tree.root());
        place(fmon(stage, "marks", "create,delete,moved_from,moved_to,close_write"), tree.root());
        place(fmon(stage, "filesystem", "create,delete,moved_from,moved_to,close_write"), tree.root());
    }
}

void compare_churns(const std::string &stage, const char *place, int files)
{
    constexpr char kNames[] = "create,delete,moved_from,moved_to,close_write", kContents[] = "modify,close_write";
    compare({"churn: create, delete, moves and close_write",
             kCreated | kClosed | kDeleted,
             {nobody(), inotifywait("create,delete,move,close_write"), fmon(stage, "marks", kNames),
              fmon(stage, "filesystem", kNames), bare()}},
            place, files);
    std::vector<contestant> writers = {nobody(), fatrace(), fmon(stage, "marks", kContents),
                                       fmon(stage, "filesystem", kContents)};
    if (is_there("fatrace"))
        compare({"churn: modify and close_write", kClosed, writers}, place, files);
    constexpr char kDefault[] = "create,delete,moved_from,moved_to,attrib,modify,close_write",
                   kNoAttrib[] = "create,delete,moved_from,moved_to,modify,close_write";
    compare({"a churn outside of what is watched",
             0,
             {nobody(), bare(), fmon(stage, "marks", kDefault), fmon(stage, "filesystem", kDefault),
              ignoring(stage, "fmon, ignoring", kDefault), ignoring(stage, "the same without attrib", kNoAttrib)}},
            place, files);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "--bare") == 0)
        return read_bare(argv[2]);
    if (argc < 2 || geteuid() != 0) {
        fprintf(stderr, "usage (as root): %s STAGE [FILES [DIRECTORIES [DISK]]]\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const BenchTree place(1);
    scratch = place.root();
    self = argv[0];
    const int files = argc > 2 ? atoi(argv[2]) : 200000, directories = argc > 3 ? atoi(argv[3]) : 1000000;
    if (files > 0) {
        compare_churns(argv[1], kMemory, files);
        if (argc > 4)
            compare_churns(argv[1], argv[4], files);
    }
    if (directories > 0)
        compare_placing(argv[1], directories);
    return 0;
}
