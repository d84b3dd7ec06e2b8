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

/* A folder that looks like /proc to the reader. */
class ProcFolder : public testing::Test
{
protected:
    void run(const std::string &name, const std::string &exe, const std::string &cmdline, int start = 5,
             const std::string &code = "400") const
    {
        end();
        folder.dir("77");
        folder.file("77/stat", "77 (" + name + ") S 7 1 1 0 -1 4194304 1 0 0 0 0 0 0 0 20 0 1 0 " +
                                   std::to_string(start) + " 100 200 -1 " + code +
                                   " 500 600 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0 1 2 3 4 5 6 7 0\n");
        folder.file("77/status", "Name:\tx\nPPid:\t7\nUid:\t1000\t1001\t1000\t1000\nGid:\t1\n");
        folder.file("77/cmdline", cmdline);
        if (!exe.empty()) {
            EXPECT_EQ(symlink(exe.c_str(), folder.path("77/exe").c_str()), 0);
        }
    }
    void end() const { std::filesystem::remove_all(folder.path("77")); }
    /* In a turn of its own. */
    ProcessPtr find(uint64_t now = 0) { return cache.find(kPid, ++turn, now); }

    /* Does `change` while the process's status is being read. */
    void during_a_reading(const std::function<void()> &change)
    {
        const std::string status = folder.path("77/status");
        std::filesystem::remove(status);
        ASSERT_EQ(mkfifo(status.c_str(), 0600), 0);
        changer = std::thread([=] {
            const int writer = open(status.c_str(), O_WRONLY);  // waits for the reader
            change();
            EXPECT_EQ(write(writer, "Uid:\t1\t", 7), 7);
            close(writer);
        });
    }
    ~ProcFolder() override
    {
        if (changer.joinable())
            changer.join();
    }

    agent_testing::Folder folder;
    uint64_t turn = 0;
    std::thread changer;
    ProcessCache cache{folder.root()};
};

}  // namespace

TEST_F(ProcFolder, reads_all_fields)
{
    run("cat", "/usr/bin/cat", std::string("cat\0a b\0", 8));
    const ProcessPtr info = find();
    ASSERT_TRUE(info);
    EXPECT_EQ(info->name, "cat");
    EXPECT_EQ(info->exe, "/usr/bin/cat");
    EXPECT_EQ(info->cmdline, "cat a b");
    EXPECT_EQ(info->uid, 1001u);
    EXPECT_EQ(info->ppid, 7u);
    EXPECT_EQ(info->start, 5u);
}

TEST_F(ProcFolder, a_name_may_look_like_the_fields_behind_it)
{
    run("a) R 9 (b", "", "");
    const ProcessPtr info = find();
    ASSERT_TRUE(info);
    EXPECT_EQ(info->name, "a) R 9 (b");
    EXPECT_EQ(info->ppid, 7u);
}

TEST_F(ProcFolder, broken_files_are_no_process)
{
    for (const char *stat : {"", "77", "77 (cat", "77 cat) S", "77 )cat( S 1", "77 (cat)"}) {
        folder.dir("77");
        folder.file("77/stat", stat);
        ProcessPrint print;
        ProcessInfo info;
        EXPECT_FALSE(read_process(folder.root(), kPid, print, info)) << stat;
    }
}

/* What cannot be read is not told; above all, nobody becomes root by it. */
TEST_F(ProcFolder, what_is_not_known_is_left_out)
{
    for (const char *status : {"", "Name:\tx\nUid:\t1000", "Name:\tx\nUid:\t1000\tx\n", "Uid:\t0\t0\n"}) {
        run("cat", "/usr/bin/cat", "cat");
        folder.file("77/status", status);
        ASSERT_TRUE(find());
        EXPECT_EQ(cache.find(kPid, turn, 0)->uid, std::nullopt) << status;
        end();
        EXPECT_EQ(find(), nullptr);
    }
}

TEST_F(ProcFolder, an_ended_process_is_forgotten)
{
    run("cat", "/usr/bin/cat", "cat");
    const ProcessPtr first = cache.find(kPid, 1, 0);
    end();
    EXPECT_EQ(cache.find(kPid, 1, 0), first) << "its events had come before it was looked at";
    EXPECT_EQ(cache.find(kPid, 2, 0), nullptr);
    EXPECT_EQ(first->name, "cat") << "whoever has it keeps it";
}

TEST_F(ProcFolder, a_pid_that_is_used_again_is_another_process)
{
    run("trusted", "/usr/bin/trusted", "trusted", 5);
    EXPECT_EQ(find()->start, 5u);
    run("trusted", "/usr/bin/trusted", "trusted", 6);
    EXPECT_EQ(find()->start, 6u);
}

TEST_F(ProcFolder, another_program_is_seen_by_its_name_its_file_or_its_place)
{
    run("sh", "/bin/sh", "sh 1");
    EXPECT_EQ(find()->cmdline, "sh 1");
    run("cat", "/bin/sh", "sh 2");
    EXPECT_EQ(find()->cmdline, "sh 2");
    run("cat", "/bin/cat", "sh 3");
    EXPECT_EQ(find()->cmdline, "sh 3");
    run("cat", "/bin/cat", "sh 4", 5, "401");
    EXPECT_EQ(find()->cmdline, "sh 4");
}

/* Without permission nothing shows that it is still the same. */
TEST_F(ProcFolder, a_program_that_may_not_be_seen_is_read_each_turn)
{
    run("sh", "", "sh 1");
    EXPECT_EQ(find()->cmdline, "sh 1");
    run("sh", "", "sh 2");
    EXPECT_EQ(find()->cmdline, "sh 2");
}

TEST_F(ProcFolder, is_looked_at_once_a_turn)
{
    run("sh", "/bin/sh", "sh");
    const ProcessPtr first = cache.find(kPid, 1, 0);
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ(cache.find(kPid, 1, 5000), first);
    EXPECT_EQ(cache.find(kPid, 2, 0)->name, "cat");
    EXPECT_EQ(first->name, "sh");
}

TEST_F(ProcFolder, what_changes_without_a_trace_is_read_again_after_a_while)
{
    run("sh", "/bin/sh", "sh 1");
    const ProcessPtr first = find(0);
    run("sh", "/bin/sh", "sh 2");
    EXPECT_EQ(find(ProcessCache::kRefreshMs - 1), first);
    EXPECT_EQ(find(ProcessCache::kRefreshMs)->cmdline, "sh 2");
}

TEST_F(ProcFolder, nothing_new_keeps_the_same_record)
{
    run("sh", "/bin/sh", "sh");
    const ProcessPtr first = find(0);
    EXPECT_EQ(find(ProcessCache::kRefreshMs), first);
}

TEST_F(ProcFolder, a_zombie_has_its_name_and_user)
{
    run("cat", "/usr/bin/cat", "cat x");
    find();
    run("cat", "", "");
    const ProcessPtr zombie = find();
    EXPECT_EQ(zombie->name, "cat");
    EXPECT_EQ(zombie->uid, 1001u);
    EXPECT_EQ(zombie->exe + zombie->cmdline, "");
}

TEST_F(ProcFolder, gone_at_first_sight_is_looked_for_again)
{
    EXPECT_EQ(find(), nullptr);
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ(find()->name, "cat");
}

/* Everything is of one reading. */
TEST_F(ProcFolder, one_that_becomes_another_during_the_reading_is_read_again)
{
    run("malware", "/tmp/malware", "malware");
    during_a_reading([this] { run("apt-get", "/usr/bin/apt-get", "apt-get update"); });
    const ProcessPtr info = find();
    ASSERT_TRUE(info);
    EXPECT_EQ(info->name + "|" + info->exe + "|" + info->cmdline, "apt-get|/usr/bin/apt-get|apt-get update");
    EXPECT_EQ(info->uid, 1001u);
}

TEST_F(ProcFolder, one_that_ends_during_the_reading_has_a_name_at_most)
{
    run("cat", "/usr/bin/cat", "cat x");
    during_a_reading([this] { end(); });
    const ProcessPtr info = find();
    ASSERT_TRUE(info);
    EXPECT_EQ(*info, (ProcessInfo{"cat", "", "", std::nullopt, 7, 5, ""}));
    EXPECT_EQ(find(), nullptr);
}

TEST_F(ProcFolder, pid_0_is_nobody) { EXPECT_EQ(cache.find(0, 1, 0), nullptr); }

TEST(CliProcess, itself_on_the_real_proc)
{
    ProcessCache cache;
    const ProcessPtr info = cache.find(static_cast<uint32_t>(getpid()), 1, 0);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->ppid, static_cast<uint32_t>(getppid()));
    EXPECT_EQ(info->uid, geteuid());
    EXPECT_NE(info->cmdline.find("unit_agent_process_info"), std::string::npos);
}

/* A child that does `step` when it is told to, and then stays. */
class Child
{
public:
    explicit Child(const std::function<void()> &step)
    {
        EXPECT_EQ(pipe2(go_, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(done_, O_CLOEXEC), 0);
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

TEST(CliProcess, another_program_is_told_at_once)
{
    const Child child([] { execlp("sleep", "one", "100", nullptr); });
    ProcessCache cache;
    EXPECT_NE(cache.find(child.pid(), 1, 0)->cmdline.find("unit_agent_process_info"), std::string::npos);
    child.step();
    EXPECT_EQ(cache.find(child.pid(), 2, 0)->cmdline, "one 100");
}

/* Of the same name and file: only where the kernel put it tells. */
TEST(CliProcess, the_same_program_anew_is_told_soon)
{
    int said[2];
    ASSERT_EQ(pipe2(said, O_CLOEXEC), 0);
    const Child child([&said] {
        dup2(said[1], STDOUT_FILENO);
        execlp("sh", "sh", "-c", "read x; exec sh -c 'echo; read y; exit 1'", nullptr);
    });
    ProcessCache cache;
    child.step();
    EXPECT_EQ(cache.find(child.pid(), 1, 0)->cmdline.substr(0, 12), "sh -c read x");
    child.tell("\n");
    char c = 0;
    EXPECT_EQ(read(said[0], &c, 1), 1); /* of the second one */
    EXPECT_EQ(cache.find(child.pid(), 2, 0)->cmdline, "sh -c echo; read y; exit 1");
    close(said[0]);
    close(said[1]);
}

TEST(CliProcess, another_user_is_told_at_once)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "root only may change its user";
    const Child child([] { EXPECT_EQ(seteuid(65534), 0); });
    ProcessCache cache;
    EXPECT_EQ(cache.find(child.pid(), 1, 0)->uid, 0u);
    child.step();
    EXPECT_EQ(cache.find(child.pid(), 2, 0)->uid, 65534u);
}

TEST(CliProcess, pids_that_share_a_slot_replace_each_other)
{
    const agent_testing::Folder folder;
    ProcessCache cache(folder.root());
    for (const char *pid : {"1", "4097"}) {
        folder.dir(pid);
        folder.file(std::string(pid) + "/stat", std::string(pid) + " (p" + pid + ") S 1\n");
    }
    EXPECT_EQ(cache.find(1, 1, 0)->name, "p1");
    EXPECT_EQ(cache.find(4097, 1, 0)->name, "p4097");
    EXPECT_EQ(cache.find(1, 1, 0)->name, "p1");
}

TEST_F(ProcFolder, reads_the_container)
{
    const std::string id(64, 'c');
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ(find()->container, "");
    folder.file("77/cgroup", "0::/system.slice/docker-" + id + ".scope\n");
    EXPECT_EQ(find(ProcessCache::kRefreshMs)->container, id);
}

/* Names of groups are their makers' choice: those of a container's own groups, and those of a user. */
TEST_F(ProcFolder, a_group_of_its_own_is_not_another_container)
{
    const std::string id(64, 'c'), claimed(64, 'd');
    run("cat", "/usr/bin/cat", "cat");
    folder.file("77/cgroup", "0::/system.slice/docker-" + id + ".scope/docker-" + claimed + ".scope\n");
    EXPECT_EQ(find()->container, id);
    folder.file("77/cgroup", "0::/user.slice/user-1000.slice/user@1000.service/docker-" + claimed + ".scope\n");
    EXPECT_EQ(find(ProcessCache::kRefreshMs)->container, claimed + "@1000");
}
