/*
 * habits.cpp: what watchers report of everyday work, beside each other: `fmon watch`, `inotifywait -m`, `fatrace`.
 *
 * usage: fmon_habits STAGE...    STAGE: installation trees of fmon; as root
 *
 * - tar: an archive of 3,600 entries is unpacked. Counted are the entries whose creation was reported.
 * - clone: a local repository of as many entries is cloned. Counted as above; what is in .git is left out, since most
 * of it is gone again before the clone ends.
 * - writers: 2,000 processes, one after the other, each of which writes one file and ends. Counted are the files for
 *   which a record names the process.
 * The programs take turns; each line gives the least and the most of all rounds, and the processor time of the watcher.
 */
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "tree.h"
#include "watcher.h"

namespace fs = std::filesystem;

namespace
{

constexpr int kRounds = 3;
constexpr int kDirectories = 20, kSubdirectories = 20, kFiles = 8; /* 20 + 400 + 3,200 entries, and the top */
constexpr int kWriters = 2000;
constexpr double kLimit = 30; /* seconds to get ready */
const std::vector<std::string> kReady = {"Watches established", "\"established\""};

struct contestant {
    std::string name;
    std::vector<std::string> command; /* the watched directory follows, unless `whole` */
    bool whole;                       /* it watches the whole file system, says nothing when it is ready */
};

std::string base; /* for everything that is written */

int run(const std::string &command)
{
    const int status = system(command.c_str());
    if (status != 0)
        fprintf(stderr, "failed: %s\n", command.c_str());
    return status;
}

/* ---- what happens ---- */

void make_source(const std::string &top)
{
    for (int i = 0; i < kDirectories * kSubdirectories; i++) {
        const std::string directory =
            top + "/branch" + std::to_string(i / kSubdirectories) + "/sub" + std::to_string(i % kSubdirectories);
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

int unpack(const std::string &root) { return run("tar xf " + base + "/source.tar -C " + root); }

int clone(const std::string &root) { return run("git clone -q " + base + "/repository " + root + "/clone"); }

int write_all(const std::string &root)
{
    for (int i = 0; i < kWriters; i++) {
        const std::string text = "echo x > " + root + "/written" + std::to_string(i);
        const char *const argv[] = {"sh", "-c", text.c_str(), nullptr};
        pid_t pid;
        if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char **>(argv), environ) != 0)
            return -1;
        waitpid(pid, nullptr, 0);
    }
    return 0;
}

/* ---- what was reported ---- */

/* The text between two others; empty: not there. */
std::string between(const std::string &line, const char *start, const char *end)
{
    const size_t from = line.find(start);
    if (from == std::string::npos)
        return "";
    const size_t begin = from + strlen(start), to = line.find(end, begin);
    return to == std::string::npos ? "" : line.substr(begin, to - begin);
}

/* The path of a record that reports a creation: JSON, or "CREATE[,ISDIR] PATH"; empty: it reports something else. */
std::string created(const std::string &line)
{
    if (line.find("\"create\"") != std::string::npos || line.find("\"moved_to\"") != std::string::npos)
        return between(line, "\"path\":\"", "\"");
    if (line.rfind("CREATE", 0) == 0 || line.rfind("MOVED_TO", 0) == 0)
        return line.substr(line.find(' ') + 1);
    return "";
}

/* The path of a record that names the writing shell: JSON, or "sh(PID): TYPES PATH". */
std::string named(const std::string &line)
{
    if (line.find("\"name\":\"sh\"") != std::string::npos)
        return between(line, "\"path\":\"", "\"");
    if (line.rfind("sh(", 0) == 0 && line.find(": ") != std::string::npos)
        return line.substr(std::min(line.size(), line.find('/')));
    return "";
}

size_t count_reported(const std::string &out, const std::string &root, std::string (*reported)(const std::string &))
{
    std::set<std::string> paths;
    std::ifstream file(out);
    for (std::string line; std::getline(file, line);) {
        std::string path = reported(line);
        std::error_code ignored;
        if (path.rfind(root + "/", 0) == 0 && path.find("/.git") == std::string::npos && fs::exists(path, ignored))
            paths.insert(std::move(path));
    }
    return paths.size();
}

size_t count_all(const std::string &root)
{
    size_t count = 0;
    for (auto at = fs::recursive_directory_iterator(root); at != fs::recursive_directory_iterator(); ++at) {
        if (at->path().filename() == ".git")
            at.disable_recursion_pending();
        else
            count++;
    }
    return count;
}

/* ---- side by side ---- */

struct habit {
    const char *title;
    int (*act)(const std::string &root);
    std::string (*reported)(const std::string &line);
};

struct result {
    std::vector<size_t> reported;
    double cpu = 0;
    size_t all = 0;
};

bool watch_once(const contestant &who, const habit &what, result *total)
{
    const BenchTree tree(1, base.c_str());
    std::vector<std::string> command = who.command;
    if (!who.whole)
        command.push_back(tree.root());
    Watcher watcher(command, base, 0);
    if (who.whole)
        sleep(1);
    else if (watcher.wait_ready(kReady, kLimit) < 0) {
        printf("  %-24s did not get ready: %s\n", who.name.c_str(), watcher.errors().c_str());
        return false;
    }
    const double cpu = watcher.cpu_seconds();
    if (what.act(tree.root()) != 0)
        return false;
    if (who.whole)
        sleep(2); /* it hears others, too */
    else
        watcher.wait_quiet();
    total->cpu += watcher.cpu_seconds() - cpu;
    watcher.stop();
    total->reported.push_back(count_reported(watcher.out(), tree.root(), what.reported));
    total->all = count_all(tree.root());
    return true;
}

void compare(const habit &what, const std::vector<contestant> &all)
{
    printf("-- %s\n", what.title);
    std::vector<result> results(all.size());
    for (int round = 0; round < kRounds; round++)
        for (size_t i = 0; i < all.size(); i++)
            if (!watch_once(all[i], what, &results[i]))
                return;
    for (size_t i = 0; i < all.size(); i++) {
        const auto [least, most] = std::minmax_element(results[i].reported.begin(), results[i].reported.end());
        printf("  %-40s %5zu to %5zu of %zu, %.0f ms cpu\n", all[i].name.c_str(), *least, *most, results[i].all,
               results[i].cpu * 1000 / kRounds);
    }
}

bool is_there(const char *program)
{
    return system((std::string("command -v ") + program + " >/dev/null").c_str()) == 0;
}

void compare_all(const std::vector<std::string> &stages)
{
    std::vector<contestant> creations, names;
    for (const std::string &stage : stages) {
        const std::string fmon = stage + "/bin/fmon";
        creations.push_back({stage, {fmon, "watch", "-r", "--format", "json"}, false});
    }
    names = creations;
    if (is_there("inotifywait"))
        creations.push_back(
            {"inotifywait", {"inotifywait", "-m", "-r", "-e", "create,moved_to", "--format", "%e %w%f"}, false});
    if (is_there("fatrace"))
        names.push_back({"fatrace", {"fatrace", "-f", "W"}, true});
    compare({"tar: creations told", unpack, created}, creations);
    compare({"git clone: creations told", clone, created}, creations);
    compare({"2,000 short-lived writers: processes named", write_all, named}, names);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || geteuid() != 0) {
        fprintf(stderr, "usage (as root): %s STAGE...\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const BenchTree place(1);
    base = place.root();
    prepare();
    compare_all(std::vector<std::string>(argv + 1, argv + argc));
    return 0;
}
