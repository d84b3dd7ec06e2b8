/*
 * storms.cpp: whether a recursive watch reports every file of a storm: its creation and its last write, and by which
 * process.
 *
 * usage: fmon_storms STAGE [DISK]    STAGE: an installation tree of fmon; as root; DISK: a directory, /tmp
 *
 * - mkdir: four processes, each of which 500 times makes a directory five levels deep and a file in the last level
 * - clone, tar, cp: a repository of 5,000 files is cloned, an archive of them unpacked, a tree of them copied
 * Each source of `fmon watch` in turn, some rounds; each line gives the least of all rounds. A creation may also be
 * reported as found ("found") or as the end of a rename; the process must be the one that did it, or one of its
 * children.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "tree.h"
#include "watcher.h"

namespace fs = std::filesystem;

namespace
{

constexpr int kRounds = 3, kProcesses = 4, kChains = 500, kDirectories = 250, kFiles = 20;
constexpr double kLimit = 30; /* seconds to get ready */
const std::vector<std::string> kReady = {"\"established\""};

std::string base; /* for everything that is written */

/* ---- what happens ---- */

/* The processes that did it, by the name of the directory below the watched one; under "", those that did the rest. */
using Doers = std::map<std::string, std::string>;

int run(const std::string &command)
{
    const int status = system(command.c_str());
    if (status != 0)
        fprintf(stderr, "failed: %s\n", command.c_str());
    return status;
}

void make_source(const std::string &top)
{
    for (int i = 0; i < kDirectories; i++) {
        const std::string directory = top + "/dir" + std::to_string(i / 20) + "/sub" + std::to_string(i % 20);
        fs::create_directories(directory);
        for (int k = 0; k < kFiles; k++)
            std::ofstream(directory + "/file" + std::to_string(k)) << "content " << i << " " << k << "\n";
    }
}

void prepare()
{
    make_source(base + "/source");
    const std::string git = "git -c user.name=a -c user.email=a@example.org -c init.defaultBranch=main ";
    run("cd " + base + " && tar cf source.tar source && cp -a source repository && cd repository && " + git +
        "init -q . && git add . && " + git + "commit -q -m all");
}

[[noreturn]] void make_chains(const std::string &top)
{
    for (int i = 0; i < kChains; i++) {
        std::string path = top + "/" + std::to_string(i);
        for (const char *level : {"", "/b", "/c", "/d", "/e"}) {
            path += level;
            if (mkdir(path.c_str(), 0777) != 0)
                _exit(1);
        }
        const int fd = open((path + "/f").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0 || write(fd, "\n", 1) != 1 || close(fd) != 0)
            _exit(1);
    }
    _exit(0);
}

/* Each below a directory that was there before. */
Doers storm(const std::string &root)
{
    Doers doers;
    for (int i = 0; i < kProcesses; i++) {
        const std::string name = "by" + std::to_string(i), top = root + "/" + name;
        const pid_t child = fork();
        if (child == 0)
            make_chains(top);
        doers[name] = std::to_string(child);
    }
    for (int status, left = kProcesses; left > 0; left--)
        if (wait(&status) < 0 || status != 0)
            fprintf(stderr, "failed: a process of the storm\n");
    return doers;
}

Doers clone(const std::string &root)
{
    run("git clone -q " + base + "/repository " + root + "/by0/clone");
    return {{"", "git"}};
}

Doers unpack(const std::string &root)
{
    run("tar xf " + base + "/source.tar -C " + root + "/by0");
    return {{"", "tar"}};
}

Doers copy(const std::string &root)
{
    run("cp -a " + base + "/source " + root + "/by0/copy");
    return {{"", "cp"}};
}

/* ---- what was reported ---- */

struct file_report {
    bool created = false, closed = false, by_right_one = false;
};

/* The text between two others; empty: not there. */
std::string between(const std::string &line, const std::string &start, char end)
{
    const size_t at = line.find(start), from = at + start.size();
    const size_t to = at == std::string::npos ? at : line.find(end, from);
    return to == std::string::npos ? "" : line.substr(from, to - from);
}

/* Whether a record names who did it: by id below a directory of one process, else by the name of its program. */
bool is_right(const std::string &line, const std::string &below, const Doers &doers)
{
    const auto one = doers.find(below.substr(0, below.find('/')));
    if (one != doers.end())
        return between(line, "\"pid\":", ',') == one->second;
    return between(line, "\"name\":\"", '"') == doers.at("");
}

using Files = std::map<std::string, file_report>;

/* The files that there are; what is in .git is gone again in part before the clone ends. */
Files list_files(const std::string &root)
{
    Files files;
    for (auto at = fs::recursive_directory_iterator(root); at != fs::recursive_directory_iterator(); ++at) {
        if (at->path().filename() == ".git")
            at.disable_recursion_pending();
        else if (at->is_regular_file())
            files[at->path().string()];
    }
    return files;
}

void read_reports(const std::string &output, const std::string &root, const Doers &doers, Files &files)
{
    std::ifstream in(output);
    for (std::string line; std::getline(in, line);) {
        const auto file = files.find(between(line, "\"path\":\"", '"'));
        if (file == files.end())
            continue;
        const bool created = line.find("\"create\"") != line.npos || line.find("\"moved_to\"") != line.npos;
        const bool closed = line.find("\"close_write\"") != line.npos;
        file->second.created |= created;
        file->second.closed |= closed;
        file->second.by_right_one |= closed && is_right(line, file->first.substr(root.size() + 1), doers);
    }
}

struct result {
    std::vector<size_t> created, closed, by_right_one;
    size_t all = 0, losses = 0;
    double cpu = 0;
};

size_t count_losses(const std::string &output)
{
    size_t count = 0;
    std::ifstream in(output);
    for (std::string line; std::getline(in, line);)
        count += line.find("\"type\":\"loss\"") != line.npos ? 1 : 0;
    return count;
}

void add(const Files &files, result &total)
{
    const auto count = [&](bool file_report::*member) {
        return static_cast<size_t>(
            std::count_if(files.begin(), files.end(), [&](const auto &file) { return file.second.*member; }));
    };
    total.created.push_back(count(&file_report::created));
    total.closed.push_back(count(&file_report::closed));
    total.by_right_one.push_back(count(&file_report::by_right_one));
    total.all = files.size();
}

/* ---- side by side ---- */

struct habit {
    const char *title;
    Doers (*act)(const std::string &root);
};

bool watch_once(const std::string &stage, const char *source, const habit &what, const char *place, result &total)
{
    const BenchTree tree(1, place);
    for (int i = 0; i < kProcesses; i++)
        fs::create_directory(tree.root() + "/by" + std::to_string(i));
    Watcher watcher(
        {stage + "/bin/fmon", "watch", "-r", "--format", "json", "--source", source, "--probes", "off", tree.root()},
        base, 0);
    if (watcher.wait_ready(kReady, kLimit) < 0) {
        printf("  %-12s did not get ready: %s\n", source, watcher.errors().c_str());
        return false;
    }
    const double cpu = watcher.cpu_seconds();
    const Doers doers = what.act(tree.root());
    watcher.wait_quiet();
    total.cpu += watcher.cpu_seconds() - cpu;
    watcher.stop();
    Files files = list_files(tree.root());
    read_reports(watcher.out(), tree.root(), doers, files);
    add(files, total);
    total.losses += count_losses(watcher.out());
    return true;
}

void print(const char *source, const result &total)
{
    const auto least = [](const std::vector<size_t> &values) {
        return *std::min_element(values.begin(), values.end());
    };
    printf(
        "  %-12s of %zu files at least %zu created, %zu written to their end, %zu of these by the right process; %zu "
        "losses; "
        "%.0f ms cpu\n",
        source, total.all, least(total.created), least(total.closed), least(total.by_right_one), total.losses,
        total.cpu * 1000 / kRounds);
}

void compare(const std::string &stage, const habit &what, const char *place)
{
    printf("-- %s, on %s\n", what.title, place);
    for (const char *source : {"marks", "filesystem"}) {
        result total;
        bool watched = true;
        for (int round = 0; round < kRounds && watched; round++)
            watched = watch_once(stage, source, what, place, total);
        if (watched)
            print(source, total);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || geteuid() != 0) {
        fprintf(stderr, "usage (as root): %s STAGE [DISK]\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const BenchTree place(1);
    base = place.root();
    prepare();
    const char *const disk = argc > 2 ? argv[2] : "/tmp";
    for (const char *where : {"/dev/shm", disk})
        for (const habit &what : {habit{"mkdir -p of five levels and a file, by four processes", storm},
                                  habit{"git clone", clone}, habit{"tar x", unpack}, habit{"cp -a", copy}})
            compare(argv[1], what, where);
    return 0;
}
