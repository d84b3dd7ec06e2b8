/* Adding and deleting watches where something fails: nothing is left, and what was there stays. */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "list.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "watching_fixture.h"

using namespace testlib;

namespace
{

TEST_F(Watching, RefusedFanotifyMarkRollsBack)
{
    std::string a = tree.dir("x/a");
    m.fanotify.mark_error = EACCES;
    EXPECT_EQ(-109, m.add(a, 0xfff, FMON_DIR));
    EXPECT_TRUE(logged(1, "fanotify add failed: Permission denied\n"));
    EXPECT_TRUE(logged(4, "watch failed, roll back dentry\n"));
    EXPECT_EQ(0U, fmon.dcache.count);
    EXPECT_TRUE(kernel_watches().empty());

    m.fanotify.mark_error = ENOENT;
    EXPECT_EQ(-114, m.add(a, 0xfff, FMON_DIR));
}

TEST_F(Watching, RefusedInotifyWatchTakesTheFanotifyMarkBack)
{
    std::string a = tree.dir("a");
    {
        Fault fault("inotify_add_watch", 1, ENOSPC);
        EXPECT_EQ(-108, m.add(a, 0xfff, FMON_DIR));
    }
    EXPECT_TRUE(logged(1, "inotify add failed: No space left on device\n"));
    EXPECT_EQ(0U, fan(a));
    EXPECT_EQ(0U, fmon.dcache.count);
    {
        Fault fault("inotify_add_watch", 1, ENOENT);
        EXPECT_EQ(-114, m.add(a, 0xfff, FMON_DIR));
    }
    EXPECT_EQ(0, m.add(a, 0xfff, FMON_DIR));
}

TEST_F(Watching, UnreadableTreeTakesBothMarksBack)
{
    std::string a = tree.dir("a");
    {
        Fault fault("opendir", 1, EACCES);
        EXPECT_EQ(-114, m.add(a, 0xfff, FMON_DIR | FMON_RECURSIVE));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(logged(2, "iterate " + a + " failed\n"));
    EXPECT_EQ(0U, fan(a));
    EXPECT_TRUE(kernel_watches().empty());
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Watching, UnreadableTreeKeepsWhatOthersNeed)
{
    std::string a = tree.dir("a");
    ASSERT_EQ(0, fmon_add_watch(m.id2, a.c_str(), FMON_CREATE | FMON_MODIFY, FMON_DIR, 0, 0));
    {
        Fault fault("opendir", 1, EACCES);
        EXPECT_EQ(-114, m.add(a, 0xfff, FMON_DIR | FMON_RECURSIVE));
    }
    EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(a));
    EXPECT_EQ(FMON_MODIFY | kOnDir, fan(a));
}

/* The watch waits on: what failed once must be retried with the same record. */
TEST_F(Watching, FailedAddLeavesAWaitingWatchUsable)
{
    std::string a = tree.dir("a");
    {
        Fault fault("opendir", 1, EACCES);
        EXPECT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR | FMON_RECURSIVE | FMON_DELETED));
    }
    EXPECT_FALSE(list_empty(&fmon.tbd));
    fmon_tbd_pass();
    EXPECT_TRUE(list_empty(&fmon.tbd));
    EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(a));
    EXPECT_TRUE(logged(4, "tbd watch " + a + " added\n"));
}

TEST_F(Watching, FullWatchDescriptorTableRemovesTheNewWatch)
{
    std::string a = tree.dir("a");
    {
        Fault fault("realloc", 1, ENOMEM);
        EXPECT_EQ(-110, m.add(a, FMON_CREATE, FMON_DIR));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(1, log_count_containing("add seq failed, wd "));
    EXPECT_TRUE(kernel_watches().empty());
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Watching, FullCacheIsOutOfMemory)
{
    std::string a = tree.dir("a");
    fmon.dcache.max_entries = 1;
    EXPECT_EQ(-101, m.add(a, FMON_CREATE, FMON_DIR));
    EXPECT_EQ(0U, fmon.dcache.count);
    EXPECT_TRUE(kernel_watches().empty());
}

TEST_F(Watching, EveryFailedAllocationRollsBack)
{
    std::string a = tree.dir("a");
    tree.dir("a/b/c");
    for (const char *call : {"malloc", "calloc", "realloc"}) {
        bool hit = true;
        for (int nth = 1; hit; nth++) {
            int result;
            {
                Fault fault(call, nth);
                result = m.add(a, 0xfff, FMON_DIR | FMON_RECURSIVE);
                hit = fault.hit();
            }
            EXPECT_EQ(result, result == 0 ? m.del(a) : result);
            EXPECT_TRUE(kernel_watches().empty()) << call << " " << nth << " result " << result;
            EXPECT_EQ(0U, fmon.dcache.count) << call << " " << nth << " result " << result;
        }
    }
}

/* A directory whose frame cannot be saved is not entered: what lies below keeps its marks, and nothing dangles. */
TEST_F(Watching, FailedFrameOfARemovalKeepsTheMarksBelow)
{
    std::string b = tree.dir("a/b/c");
    std::string a = tree.path("a");
    ASSERT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR | FMON_RECURSIVE));
    {
        Fault fault("malloc", 1);
        EXPECT_EQ(0, m.del(a));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(logged(1, "dir malloc failed\n"));
    EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(b));
    EXPECT_TRUE(m.add(a, FMON_CREATE, FMON_DIR | FMON_RECURSIVE) == 0 && m.del(a) == 0);
    EXPECT_TRUE(kernel_watches().empty());
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Watching, FailedStatKeepsTheWatch)
{
    std::string a = tree.dir("a");
    {
        Fault fault("stat", 1, EACCES);
        EXPECT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR));
    }
    EXPECT_EQ(!hardened(), logged(1, "maybe the file not exist! " + a)) << "hardened, what is marked is open";
    EXPECT_EQ(!hardened(), logged(3, "path:" + a + ",inode:0"));
}

TEST_F(Watching, InodeNumberIsKept)
{
    std::string a = tree.dir("a");
    struct stat st;
    ASSERT_EQ(0, stat(a.c_str(), &st));
    ASSERT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR));
    EXPECT_EQ(st.st_ino, owner_of(dcache_find(&fmon.dcache, a.c_str()))->ino);
    EXPECT_TRUE(
        logged(3, "wd " + std::to_string(wd_of(a)) + ",path:" + a + ",inode:" + std::to_string(st.st_ino) + "\n"));
    EXPECT_TRUE(logged(4, "inotify down: " + a + " old , new create, old wd -1\n"));
}

TEST_F(Watching, PathTooLongToBuild)
{
    std::string deep = "/";
    while (deep.size() < 1023)
        deep += std::string(deep.size() + 200 < 1023 ? 200 : 1023 - deep.size(), 'x') +
                (deep.size() + 201 < 1023 ? "/" : "");
    struct watch w = {};
    w.flags = FMON_DIR;
    w.mask = FMON_CREATE;
    w.path = deep.data();
    EXPECT_EQ(-117, fmon_linux_add_watch(&fmon, &w));
    w.mask = FMON_MODIFY;
    EXPECT_EQ(-117, fmon_linux_add_watch(&fmon, &w));
    EXPECT_EQ(0U, fmon.dcache.count);
    EXPECT_EQ(nullptr, w.dentry);
}

TEST_F(Watching, RemovalThatTheKernelRefusesStillUpdatesTheState)
{
    std::string a = tree.dir("a");
    ASSERT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR));
    int wd = wd_of(a);
    {
        Fault fault("inotify_rm_watch", 1, EINVAL);
        EXPECT_EQ(0, m.del(a));
    }
    EXPECT_TRUE(logged(1, "inotify del failed: Invalid argument\n"));
    EXPECT_EQ(uint64_t{SEQ_POISON}, seq_get(&fmlnx.seq, wd));
    EXPECT_FALSE(cached(a));
}

TEST_F(Watching, FailedFanotifyRemovalIsLogged)
{
    std::string a = tree.dir("a");
    ASSERT_EQ(0, m.add(a, 0xfff, FMON_DIR));
    m.fanotify.mark_error = EINVAL;
    EXPECT_EQ(0, m.del(a));
    EXPECT_TRUE(logged(1, "fanotify del failed: Invalid argument\n"));
    EXPECT_TRUE(logged(1, "del watch failed: -109\n"));
    EXPECT_TRUE(kernel_watches().empty());
}

}  // namespace
