#include "process_info.h"

#include <unistd.h>

#include "cli_testing.h"

using namespace cli;

namespace
{

constexpr uint32_t kPid = 77;

/* A folder that looks like /proc to the reader. */
class ProcFolder : public testing::Test
{
protected:
    void run(const std::string &name, const std::string &exe, const std::string &cmdline, int start = 5) const
    {
        end();
        folder.dir("77");
        folder.file("77/stat", "77 (" + name + ") S 7 1 1 0 -1 4194304 1 0 0 0 0 0 0 0 20 0 1 0 " +
                                   std::to_string(start) + " 100 200\n");
        folder.file("77/status", "Name:\tx\nPPid:\t7\nUid:\t1000\t1001\t1000\t1000\nGid:\t1\n");
        folder.file("77/cmdline", cmdline);
        if (!exe.empty()) {
            EXPECT_EQ(symlink(exe.c_str(), folder.path("77/exe").c_str()), 0);
        }
    }
    void end() const { std::filesystem::remove_all(folder.path("77")); }
    ProcessPtr find(uint64_t now) { return cache.find(kPid, now); }

    cli_testing::Folder folder;
    ProcessCache cache{folder.root()};
};

}  // namespace

TEST_F(ProcFolder, reads_all_fields)
{
    run("cat", "/usr/bin/cat", std::string("cat\0a b\0", 8));
    const ProcessPtr info = find(0);
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
    const ProcessPtr info = find(0);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->name, "a) R 9 (b");
    EXPECT_EQ(info->ppid, 7u);
}

TEST_F(ProcFolder, broken_files_are_no_process)
{
    for (const char *stat : {"", "77", "77 (cat", "77 cat) S", "77 )cat( S 1", "77 (cat)"}) {
        folder.dir("77");
        folder.file("77/stat", stat);
        ProcessInfo info;
        EXPECT_FALSE(read_process(folder.root().c_str(), kPid, info)) << stat;
    }
}

TEST_F(ProcFolder, an_ended_process_is_remembered_for_a_while)
{
    run("cat", "/usr/bin/cat", "cat");
    const ProcessPtr first = find(1000);
    end();
    EXPECT_EQ(find(1001), first);
    EXPECT_EQ(find(1000 + ProcessCache::kRefreshMs), first);
    EXPECT_EQ(find(1000 + ProcessCache::kKeepMs - 1), first);
    EXPECT_EQ(find(1000 + ProcessCache::kKeepMs + ProcessCache::kRefreshMs), nullptr);
}

TEST_F(ProcFolder, is_read_once_between_refreshes)
{
    run("sh", "/bin/sh", "sh");
    const ProcessPtr first = find(1000);
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ(find(1000 + ProcessCache::kRefreshMs - 1), first);
    EXPECT_EQ(find(1000 + ProcessCache::kRefreshMs)->name, "cat");
    EXPECT_EQ(first->name, "sh");
}

TEST_F(ProcFolder, nothing_new_keeps_the_same_record)
{
    run("sh", "/bin/sh", "sh");
    const ProcessPtr first = find(0);
    EXPECT_EQ(find(ProcessCache::kRefreshMs), first);
}

TEST_F(ProcFolder, a_zombie_keeps_its_program)
{
    run("cat", "/usr/bin/cat", "cat x");
    find(0);
    run("cat", "", "");
    EXPECT_EQ(find(ProcessCache::kRefreshMs)->cmdline, "cat x");
    run("kworker", "", "", 6);  // another process of that pid
    EXPECT_EQ(find(2 * ProcessCache::kRefreshMs)->name, "kworker");
}

TEST_F(ProcFolder, gone_at_first_sight_is_looked_for_again)
{
    EXPECT_EQ(find(1000), nullptr);
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ(find(1001), nullptr);
    EXPECT_EQ(find(1000 + ProcessCache::kRefreshMs)->name, "cat");
}

TEST_F(ProcFolder, pid_0_is_nobody) { EXPECT_EQ(cache.find(0, 0), nullptr); }

TEST(CliProcess, itself_on_the_real_proc)
{
    ProcessCache cache;
    const ProcessPtr info = cache.find(static_cast<uint32_t>(getpid()), 0);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->ppid, static_cast<uint32_t>(getppid()));
    EXPECT_EQ(info->uid, geteuid());
    EXPECT_NE(info->cmdline.find("unit_cli_process_info"), std::string::npos);
}

TEST(CliProcess, pids_that_share_a_slot_replace_each_other)
{
    const cli_testing::Folder folder;
    ProcessCache cache(folder.root());
    for (const char *pid : {"1", "4097"}) {
        folder.dir(pid);
        folder.file(std::string(pid) + "/stat", std::string(pid) + " (p" + pid + ") S 1\n");
    }
    EXPECT_EQ(cache.find(1, 0)->name, "p1");
    EXPECT_EQ(cache.find(4097, 0)->name, "p4097");
    EXPECT_EQ(cache.find(1, 0)->name, "p1");
}

TEST_F(ProcFolder, reads_the_container)
{
    const std::string id(64, 'c');
    run("cat", "/usr/bin/cat", "cat");
    EXPECT_EQ(find(0)->container, "");
    folder.file("77/cgroup", "0::/system.slice/docker-" + id + ".scope\n");
    EXPECT_EQ(find(ProcessCache::kRefreshMs)->container, id);
}

/* Names of groups are their makers' choice: those of a container's own groups, and those of a user. */
TEST_F(ProcFolder, a_group_of_its_own_is_not_another_container)
{
    const std::string id(64, 'c'), claimed(64, 'd');
    run("cat", "/usr/bin/cat", "cat");
    folder.file("77/cgroup", "0::/system.slice/docker-" + id + ".scope/docker-" + claimed + ".scope\n");
    EXPECT_EQ(find(0)->container, id);
    folder.file("77/cgroup", "0::/user.slice/user-1000.slice/user@1000.service/docker-" + claimed + ".scope\n");
    EXPECT_EQ(find(ProcessCache::kRefreshMs)->container, claimed + "@1000");
}
