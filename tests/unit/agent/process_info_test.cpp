/* Tests of process_info.h: the process of an event, read from a made-up /proc. */

#include "agent/process_info.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

constexpr uint32_t kPid = 77;

/* A directory that looks like /proc to the reader. */
class ProcDirectory : public testing::Test
{
protected:
    void run(const std::string &name, const std::string &exe, const std::string &cmdline, int start = 5,
             const std::string &code = "400") const
    {
        end();
        directory.dir("77");
        directory.file("77/stat", "77 (" + name + ") S 7 1 1 0 -1 4194304 1 0 0 0 0 0 0 0 20 0 1 0 " +
                                      std::to_string(start) + " 100 200 -1 " + code +
                                      " 500 600 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0 1 2 3 4 5 6 7 0\n");
        directory.file("77/status", "Name:\tx\nPPid:\t7\nUid:\t1000\t1001\t1000\t1000\nGid:\t1\n");
        directory.file("77/cmdline", cmdline);
        if (!exe.empty()) {
            EXPECT_EQ(0, symlink(exe.c_str(), directory.path("77/exe").c_str()));
        }
    }
    void end() const { std::filesystem::remove_all(directory.path("77")); }
    /* In a turn of its own. */
    ProcessPtr find(uint64_t now = 0) { return cache.find(kPid, ++turn, now); }

    /* Does `change` while the process's status is being read. */
    void during_a_reading(const std::function<void()> &change)
    {
        const std::string status = directory.path("77/status");
        std::filesystem::remove(status);
        ASSERT_EQ(0, mkfifo(status.c_str(), 0600));
        changer = std::thread([=] {
            const int writer = open(status.c_str(), O_WRONLY);  // waits for the reader
            change();
            EXPECT_EQ(7, write(writer, "Uid:\t1\t", 7));
            close(writer);
        });
    }
    ~ProcDirectory() override
    {
        if (changer.joinable())
            changer.join();
    }

    agent_testing::Directory directory;
    uint64_t turn = 0;
    std::thread changer;
    ProcessCache cache{directory.root()};
};

}  // namespace

TEST_F(ProcDirectory, ReadsAllFields)
{
    run("cat", "/usr/bin/cat", std::string("cat\0a b\0", 8));
    const ProcessPtr info = find();
    ASSERT_TRUE(info);
    EXPECT_EQ("cat", info->name);
    EXPECT_EQ("/usr/bin/cat", info->exe);
    EXPECT_EQ("cat a b", info->cmdline);
    EXPECT_EQ(1001u, info->uid);
    EXPECT_EQ(7u, info->ppid);
    EXPECT_EQ(5u, info->start);
}

TEST_F(ProcDirectory, ANameMayLookLikeTheFieldsBehindIt)
{
    run("a) R 9 (b", "", "");
    const ProcessPtr info = find();
    ASSERT_TRUE(info);
    EXPECT_EQ("a) R 9 (b", info->name);
    EXPECT_EQ(7u, info->ppid);
}

TEST_F(ProcDirectory, BrokenFilesAreNoProcess)
{
    for (const char *stat : {"", "77", "77 (cat", "77 cat) S", "77 )cat( S 1", "77 (cat)"}) {
        directory.dir("77");
        directory.file("77/stat", stat);
        ProcessPrint print;
        ProcessInfo info;
        EXPECT_FALSE(read_process(directory.root(), kPid, print, info)) << stat;
    }
}

/* What cannot be read is not told; above all, nobody becomes root by it. */
TEST_F(ProcDirectory, WhatIsNotKnownIsLeftOut)
{
    for (const char *status : {"", "Name:\tx\nUid:\t1000", "Name:\tx\nUid:\t1000\tx\n", "Uid:\t0\t0\n"}) {
        run("cat", "/usr/bin/cat", "cat");
        directory.file("77/status", status);
        ASSERT_TRUE(find());
        EXPECT_EQ(std::nullopt, cache.find(kPid, turn, 0)->uid) << status;
        end();
        EXPECT_EQ(nullptr, find());
    }
}

TEST_F(ProcDirectory, AnEndedProcessIsForgotten)
{
    run("cat", "/usr/bin/cat", "cat");
    const ProcessPtr first = cache.find(kPid, 1, 0);
    end();
    EXPECT_EQ(cache.find(kPid, 1, 0), first) << "its events had come before it was looked at";
    EXPECT_EQ(nullptr, cache.find(kPid, 2, 0));
    EXPECT_EQ("cat", first->name) << "whoever has it keeps it";
}

TEST_F(ProcDirectory, APidThatIsUsedAgainIsAnotherProcess)
{
    run("trusted", "/usr/bin/trusted", "trusted", 5);
    EXPECT_EQ(5u, find()->start);
    run("trusted", "/usr/bin/trusted", "trusted", 6);
    EXPECT_EQ(6u, find()->start);
}

TEST_F(ProcDirectory, AnotherProgramIsSeenByItsNameItsFileOrItsPlace)
{
    run("sh", "/bin/sh", "sh 1");
    EXPECT_EQ("sh 1", find()->cmdline);
    run("cat", "/bin/sh", "sh 2");
    EXPECT_EQ("sh 2", find()->cmdline);
    run("cat", "/bin/cat", "sh 3");
    EXPECT_EQ("sh 3", find()->cmdline);
    run("cat", "/bin/cat", "sh 4", 5, "401");
    EXPECT_EQ("sh 4", find()->cmdline);
}

/* Without permission nothing shows that it is still the same. */
TEST_F(ProcDirectory, AProgramThatMayNotBeSeenIsReadEachTurn)
{
    run("sh", "", "sh 1");
    EXPECT_EQ("sh 1", find()->cmdline);
    run("sh", "", "sh 2");
    EXPECT_EQ("sh 2", find()->cmdline);
}

TEST_F(ProcDirectory, IsLookedAtOnceATurn)
{
    run("sh", "/bin/sh", "sh");
    const ProcessPtr first = cache.find(kPid, 1, 0);
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ(cache.find(kPid, 1, 5000), first);
    EXPECT_EQ("cat", cache.find(kPid, 2, 0)->name);
    EXPECT_EQ("sh", first->name);
}

TEST_F(ProcDirectory, WhatChangesWithoutATraceIsReadAgainAfterAWhile)
{
    run("sh", "/bin/sh", "sh 1");
    const ProcessPtr first = find(0);
    run("sh", "/bin/sh", "sh 2");
    EXPECT_EQ(find(ProcessCache::kRefreshMs - 1), first);
    EXPECT_EQ("sh 2", find(ProcessCache::kRefreshMs)->cmdline);
}

TEST_F(ProcDirectory, NothingNewKeepsTheSameRecord)
{
    run("sh", "/bin/sh", "sh");
    const ProcessPtr first = find(0);
    EXPECT_EQ(find(ProcessCache::kRefreshMs), first);
}

TEST_F(ProcDirectory, AZombieHasItsNameAndUser)
{
    run("cat", "/usr/bin/cat", "cat x");
    find();
    run("cat", "", "");
    const ProcessPtr zombie = find();
    EXPECT_EQ("cat", zombie->name);
    EXPECT_EQ(1001u, zombie->uid);
    EXPECT_EQ("", zombie->exe + zombie->cmdline);
}

TEST_F(ProcDirectory, GoneAtFirstSightIsLookedForAgain)
{
    EXPECT_EQ(nullptr, find());
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ("cat", find()->name);
}

/* Everything is of one reading. */
TEST_F(ProcDirectory, OneThatBecomesAnotherDuringTheReadingIsReadAgain)
{
    run("malware", "/tmp/malware", "malware");
    during_a_reading([this] { run("apt-get", "/usr/bin/apt-get", "apt-get update"); });
    const ProcessPtr info = find();
    ASSERT_TRUE(info);
    EXPECT_EQ("apt-get|/usr/bin/apt-get|apt-get update", info->name + "|" + info->exe + "|" + info->cmdline);
    EXPECT_EQ(1001u, info->uid);
}

TEST_F(ProcDirectory, OneThatEndsDuringTheReadingHasANameAtMost)
{
    run("cat", "/usr/bin/cat", "cat x");
    during_a_reading([this] { end(); });
    const ProcessPtr info = find();
    ASSERT_TRUE(info);
    EXPECT_EQ((ProcessInfo{"cat", "", "", std::nullopt, 7, 5, ""}), *info);
    EXPECT_EQ(nullptr, find());
}

TEST_F(ProcDirectory, Pid0IsNobody) { EXPECT_EQ(nullptr, cache.find(0, 1, 0)); }

TEST(CliProcess, ItselfOnTheRealProc)
{
    ProcessCache cache;
    const ProcessPtr info = cache.find(static_cast<uint32_t>(getpid()), 1, 0);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->ppid, static_cast<uint32_t>(getppid()));
    EXPECT_EQ(info->uid, geteuid());
    EXPECT_NE(info->cmdline.find("unit_agent"), std::string::npos);
}

namespace
{

/* A child that does `step` when it is told to, and then stays. */
class Child
{
public:
    explicit Child(const std::function<void()> &step)
    {
        EXPECT_EQ(0, pipe2(go_, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(done_, O_CLOEXEC));
        pid_ = fork();
        if (pid_ == 0) {
            char c = 0;
            if (read(go_[0], &c, 1) == 1 && dup2(go_[0], STDIN_FILENO) == STDIN_FILENO)
                step();
            _exit(write(done_[1], "x", 1) == 1 ? pause() : 1);
        }
        close(done_[1]);
    }
    ~Child()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        for (const int fd : {go_[0], go_[1], done_[0]})
            close(fd);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    uint32_t pid() const { return static_cast<uint32_t>(pid_); }
    void step() const
    {
        char c = 0;
        tell("x");
        EXPECT_GE(read(done_[0], &c, 1), 0); /* or another program, in which the pipe is closed */
    }
    void tell(const std::string &text) const
    {
        EXPECT_EQ(write(go_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

private:
    int go_[2], done_[2];
    pid_t pid_;
};

}  // namespace

TEST(CliProcess, AnotherProgramIsToldAtOnce)
{
    const Child child([] { execlp("sleep", "one", "100", nullptr); });
    ProcessCache cache;
    EXPECT_NE(cache.find(child.pid(), 1, 0)->cmdline.find("unit_agent"), std::string::npos);
    child.step();
    EXPECT_EQ("one 100", cache.find(child.pid(), 2, 0)->cmdline);
}

/* Of the same name and file: only where the kernel put it tells. */
TEST(CliProcess, TheSameProgramAnewIsToldSoon)
{
    int said[2];
    ASSERT_EQ(0, pipe2(said, O_CLOEXEC));
    const Child child([&said] {
        dup2(said[1], STDOUT_FILENO);
        execlp("sh", "sh", "-c", "read x; exec sh -c 'echo; read y; exit 1'", nullptr);
    });
    ProcessCache cache;
    child.step();
    EXPECT_EQ("sh -c read x", cache.find(child.pid(), 1, 0)->cmdline.substr(0, 12));
    child.tell("\n");
    char c = 0;
    EXPECT_EQ(1, read(said[0], &c, 1)); /* of the second one */
    EXPECT_EQ("sh -c echo; read y; exit 1", cache.find(child.pid(), 2, 0)->cmdline);
    close(said[0]);
    close(said[1]);
}

TEST(CliProcess, AnotherUserIsToldAtOnce)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "root only may change its user";
    const Child child([] { EXPECT_EQ(0, seteuid(65534)); });
    ProcessCache cache;
    EXPECT_EQ(0u, cache.find(child.pid(), 1, 0)->uid);
    child.step();
    EXPECT_EQ(65534u, cache.find(child.pid(), 2, 0)->uid);
}

TEST(CliProcess, PidsThatShareASlotReplaceEachOther)
{
    const agent_testing::Directory directory;
    ProcessCache cache(directory.root());
    for (const char *pid : {"1", "4097"}) {
        directory.dir(pid);
        directory.file(std::string(pid) + "/stat", std::string(pid) + " (p" + pid + ") S 1\n");
    }
    EXPECT_EQ("p1", cache.find(1, 1, 0)->name);
    EXPECT_EQ("p4097", cache.find(4097, 1, 0)->name);
    EXPECT_EQ("p1", cache.find(1, 1, 0)->name);
}

TEST_F(ProcDirectory, ReadsTheContainer)
{
    const std::string id(64, 'c');
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ("", find()->container);
    directory.file("77/cgroup", "0::/system.slice/docker-" + id + ".scope\n");
    EXPECT_EQ(find(ProcessCache::kRefreshMs)->container, id);
}

/* Names of groups are their makers' choice: those of a container's own groups, and those of a user. */
TEST_F(ProcDirectory, AGroupOfItsOwnIsNotAnotherContainer)
{
    const std::string id(64, 'c'), claimed(64, 'd');
    run("cat", "/usr/bin/cat", "cat");
    directory.file("77/cgroup", "0::/system.slice/docker-" + id + ".scope/docker-" + claimed + ".scope\n");
    EXPECT_EQ(find()->container, id);
    directory.file("77/cgroup", "0::/user.slice/user-1000.slice/user@1000.service/docker-" + claimed + ".scope\n");
    EXPECT_EQ(find(ProcessCache::kRefreshMs)->container, claimed + "@1000");
}
