/* Who did it: processes that are gone before their events are read, what made them, and when they began. */
#include <gtest/gtest.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

constexpr char kNeeds[] = "names of processes need root";

constexpr int kDoctorMs = 60'000; /* it looks at much */

/* Whether the kernel reports processes to this one: in the machine's own namespaces. */
bool has_connector()
{
    constexpr char kMachines[] = "pid:[4026531836]"; /* the same everywhere */
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
    struct sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    const bool bound = fd >= 0 && bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0;
    if (fd >= 0)
        close(fd);
    return bound && std::filesystem::read_symlink("/proc/self/ns/pid") == kMachines;
}

void run_shell(const std::string &script)
{
    const char *const arguments[] = {"sh", "-c", script.c_str(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(0, posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char *const *>(arguments), environ));
    waitpid(pid, nullptr, 0);
}

class WatchedProcesses : public testing::Test
{
protected:
    void SetUp() override
    {
        NEED(testlib::can_fanotify(), kNeeds);
        watch_.emplace(tree_.root(), std::vector<std::string>{"-e", "close_write", "--ancestors"});
        watch_->established();
    }
    void TearDown() override
    {
        if (watch_) {
            EXPECT_EQ(0, watch_->stop()) << watch_->process().errors();
        }
    }
    /* Events until the marker, by path. */
    std::map<std::string, Json> events()
    {
        watch_->barrier(tree_.root(), {"close_write"});
        std::map<std::string, Json> all;
        for (const Json &event : watch_->events())
            all[event["path"].text()] = event["process"];
        return all;
    }
    /* The process that writes a file after the shell that made it has ended. */
    Json written_by_an_orphan(const std::string &name)
    {
        const std::string fifo = path("fifo" + name), file = path("late" + name);
        run_shell("mkfifo " + fifo + "; (read x < " + fifo + "; : > " + file + ") &");
        run_shell("echo go > " + fifo);
        Json process;
        for (int i = 0; i < 50 && !process.is_object(); i++)
            process = events()[file];
        return process;
    }
    std::string path(const std::string &name) const { return tree_.root() + "/" + name; }

    TempTree tree_;
    std::optional<Watch> watch_;
};

Json first_ancestor(const Json &process)
{
    for (const Json &each : process["ancestors"])
        return each;
    return {};
}

/* Wall-clock time of this process's start, in seconds, as /proc has it. */
double own_start()
{
    std::ifstream file("/proc/self/stat");
    std::string text;
    std::getline(file, text);
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    for (int i = 0; i < 19; i++)
        fields >> text;
    double ticks = 0;
    fields >> ticks;
    struct timespec now, boot;
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &boot);
    return static_cast<double>(now.tv_sec - boot.tv_sec) + static_cast<double>(now.tv_nsec - boot.tv_nsec) / 1e9 +
           ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double seconds_of(const std::string &text)
{
    struct tm tm = {};
    const char *const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    return rest ? static_cast<double>(timegm(&tm)) + strtod(rest, nullptr) : 0;
}

}  // namespace

/* Each is gone before the next begins. */
TEST_F(WatchedProcesses, OnesThatLiveForAMomentAreKnown)
{
    NEED(has_connector(), "the kernel reports processes on the host only");
    constexpr int kCount = 300;
    for (int i = 0; i < kCount; i++)
        run_shell(": > " + path("f" + std::to_string(i)));
    int right = 0;
    for (const auto &[file, process] : events()) {
        const Json above = first_ancestor(process);
        right += process.value("name", "") == "sh" && process.value("cmdline", "") == "sh -c : > " + file &&
                 process.value("ppid", 0) == getpid() && above.value("pid", 0) == getpid();
    }
    EXPECT_GE(right, kCount * 9 / 10) << "of " << kCount; /* all, where the machine has nothing else to do */
}

TEST_F(WatchedProcesses, WhatMadeThemIsKnownWhenItHasGone)
{
    NEED(has_connector(), "the kernel reports processes on the host only");
    Json process;
    for (int i = 0; i < 5 && first_ancestor(process).value("name", "") != "sh"; i++)
        process = written_by_an_orphan(std::to_string(i)); /* some are gone too soon on a busy machine */
    ASSERT_TRUE(process.is_object());
    const Json above = first_ancestor(process);
    EXPECT_EQ("sh", above.value("name", ""));
    EXPECT_EQ(process.value("ppid", 0), above.value("pid", 1));
    std::vector<int> pids;
    for (const Json &each : process["ancestors"])
        pids.push_back(each.value("pid", 0));
    ASSERT_GE(pids.size(), 2u) << process.dump();
    EXPECT_EQ(getpid(), pids[1]);
    EXPECT_EQ(1, pids.back());
}

TEST_F(WatchedProcesses, TheStartIsThatOfProc)
{
    make_file(path("own"));
    const Json process = events()[path("own")];
    ASSERT_TRUE(process.contains("start")) << process.dump();
    EXPECT_NEAR(own_start(), seconds_of(process["start"].text()), 0.05);
    EXPECT_EQ(getppid(), process.value("ppid", 0));
    std::ifstream file("/proc/self/loginuid");
    std::string loginuid;
    file >> loginuid;
    EXPECT_EQ(loginuid == "4294967295" ? "-1" : loginuid, std::to_string(process.value("loginuid", -1L)));
}

namespace
{

/* What a watch with these filters shows of a file that dd closes as nobody, and of one that this process writes. */
Names shown_with(std::vector<std::string> filters)
{
    const TempTree tree;
    filters.insert(filters.end(), {"-e", "close_write"});
    Watch watch(tree.root(), filters);
    watch.established();
    run_shell("exec setpriv --reuid 65534 --clear-groups dd if=/dev/null 2>/dev/null >" + tree.path("dd"));
    make_file(tree.path("own"));
    Names shown;
    for (const auto &[path, kinds] : watch.barrier(tree.root(), {"close_write"}))
        shown.insert(path);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
    return shown;
}

class ChosenProcesses : public testing::Test
{
protected:
    void SetUp() override
    {
        NEED(testlib::can_fanotify(), kNeeds);
        NEED(has_connector(), "the kernel reports processes on the host only");
        NEED(access("/usr/bin/setpriv", X_OK) == 0, "no setpriv");
    }
    const std::string own_ = "system_test*"; /* the marker of a barrier is this process's, too */
};

}  // namespace

TEST_F(ChosenProcesses, ByName)
{
    EXPECT_EQ((Names{"dd", "own"}), shown_with({"--process", own_, "--process", "dd"}));
    EXPECT_EQ((Names{"dd", "own"}), shown_with({"--process", own_, "--process", "/*/dd"}));
    EXPECT_EQ(Names{"own"}, shown_with({"--process", own_}));
    EXPECT_EQ(Names{"own"}, shown_with({"--process", "!dd"}));
}

TEST_F(ChosenProcesses, ByNumberAndUser)
{
    EXPECT_EQ(Names{"own"}, shown_with({"--process-id", std::to_string(getpid())}));
    EXPECT_EQ(Names{"own"}, shown_with({"--user", "root"}));
    EXPECT_EQ(Names{"own"}, shown_with({"--user", "!65534"}));
    EXPECT_EQ((Names{"dd", "own"}), shown_with({"--user", "0", "--user", "65534"}));
}

/* Where the kernel reports no processes all goes on by /proc. */
TEST(ProcessesElsewhere, InAnotherPidNamespaceProcIsRead)
{
    NEED(testlib::is_root() && testlib::can_mount(), "namespaces need root");
    Process doctor({{"/usr/bin/unshare", "--pid", "--fork", "--mount-proc", FMON_TEST_BIN "/fmon", "doctor"}});
    std::string found;
    while (const std::optional<std::string> line = doctor.line(kDoctorMs))
        if (line->find("processes connector") != std::string::npos)
            found = *line;
    EXPECT_TRUE(found.starts_with("warn")) << found;
    EXPECT_NE(std::string::npos, found.find("namespaces")) << found;
}
