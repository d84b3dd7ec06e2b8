/* The cached tree follows what the kernel tells of directories that are made, moved and removed. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "event.h"
#include "linux/fmon_linux.h"
#include "linux/inotify.h"
#include "list.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

class Tree : public ::testing::Test
{
protected:
    Tree()
    {
        t = tree.dir("t");
        EXPECT_EQ(0, m.result);
    }
    void watch() { EXPECT_EQ(0, m.add(t, FMON_CREATE | FMON_MOVED_FROM | FMON_MOVED_TO | FMON_MOVE_SELF, kFlags)); }
    void pump_all() { m.pump_all(); }
    static constexpr uint32_t kFlags = FMON_DIR | FMON_RECURSIVE | FMON_SYNC;
    TempTree tree;
    LinuxMonitor m;
    std::string t;
};

TEST_F(Tree, CreatedDirectoryIsWatched)
{
    watch();
    tree.dir("t/new");
    pump_all();
    EXPECT_EQ(kernel_mask(t), kernel_mask(t + "/new"));
    EXPECT_NE(0U, kernel_mask(t + "/new"));
    EXPECT_EQ(1, log_count_containing("monitor new dir: " + t + "/new fanotify , inotify create"));
}

TEST_F(Tree, ContentsOfACreatedDirectoryAreNotWalked)
{
    watch();
    tree.dir("t/new/inside");
    pump_all();
    EXPECT_TRUE(cached(t + "/new"));
    EXPECT_FALSE(cached(t + "/new/inside")) << "it was there before its parent was watched";
}

TEST_F(Tree, CreatedFileIsNotADirectory)
{
    watch();
    tree.file("t/f");
    pump_all();
    EXPECT_FALSE(cached(t + "/f"));
}

TEST_F(Tree, WithoutARecursiveWatchNothingIsAdded)
{
    EXPECT_EQ(0, m.add(t, FMON_CREATE, FMON_DIR));
    tree.dir("t/new");
    pump_all();
    EXPECT_FALSE(cached(t + "/new"));
}

TEST_F(Tree, DirectoryGoneBeforeItCouldBeWatchedIsNotKept)
{
    watch();
    uint32_t count = fmon.dcache.count;
    for (int i = 0; i < 50; i++) {
        std::string name = "t/short" + std::to_string(i);
        tree.dir(name);
        tree.remove(name);
    }
    pump_all();
    EXPECT_EQ(count, fmon.dcache.count);
}

TEST_F(Tree, FullCacheIsLoggedForACreatedDirectory)
{
    watch();
    fmon.dcache.max_entries = static_cast<int32_t>(fmon.dcache.count);
    tree.dir("t/new");
    pump_all();
    EXPECT_TRUE(logged(2, "add sub dentry failed: " + t + " sub new\n"));
}

TEST_F(Tree, ArrivedTreeIsWalked)
{
    watch();
    tree.dir("outside/a/b");
    rename(tree.path("outside").c_str(), (t + "/in").c_str());
    pump_all();
    for (const char *path : {"/in", "/in/a", "/in/a/b"})
        EXPECT_EQ(kernel_mask(t), kernel_mask(t + path)) << path;
    EXPECT_TRUE(logged(4, "inotify moved to: " + t + " (in) dir\n"));
}

TEST_F(Tree, FullCacheIsLoggedForAnArrivedDirectory)
{
    watch();
    tree.dir("outside");
    fmon.dcache.max_entries = static_cast<int32_t>(fmon.dcache.count);
    rename(tree.path("outside").c_str(), (t + "/in").c_str());
    pump_all();
    EXPECT_TRUE(logged(2, "add sub failed\n"));
}

TEST_F(Tree, DepartedTreeIsLetGo)
{
    tree.dir("t/a/b/c");
    watch();
    uint32_t count = fmon.dcache.count;
    rename((t + "/a").c_str(), tree.path("gone").c_str());
    pump_all();
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_EQ(count - 3, fmon.dcache.count);
    EXPECT_EQ(1U, kernel_watches().size());
    EXPECT_TRUE(logged(4, "inotify moved from: " + t + " (a) dir\n"));
    EXPECT_TRUE(logged(4, "collect moved dentry " + t + "/a\n"));
    EXPECT_TRUE(logged(4, "dentry " + t + "/a/b watches 1 subdirs 1 fe 0 ie fc0\n")) << "1: none";
}

TEST_F(Tree, MoveInsideTheTreeDoesBoth)
{
    tree.dir("t/a/b");
    watch();
    rename((t + "/a").c_str(), (t + "/z").c_str());
    pump_all();
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_EQ(kernel_mask(t), kernel_mask(t + "/z/b"));
    EXPECT_EQ(3U, kernel_watches().size());
}

TEST_F(Tree, DepartureOfSomethingNotCached)
{
    EXPECT_EQ(0, m.add(t, FMON_MOVED_FROM, FMON_DIR));
    tree.dir("t/a");
    rename((t + "/a").c_str(), tree.path("gone").c_str());
    pump_all();
    EXPECT_TRUE(logged(4, "No sub dentry\n"));
}

TEST_F(Tree, MovedWatchedDirectoryLosesItsWatch)
{
    watch();
    rename(t.c_str(), tree.path("elsewhere").c_str());
    pump_all();
    EXPECT_TRUE(logged(4, "inotify moved to: " + t + " () file\n")) << "the kernel does not say that it is a directory";
    EXPECT_TRUE(kernel_watches().empty());
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Tree, PunishedFanotifyMarkCannotBeRemoved)
{
    EXPECT_EQ(0, m.add(t, FMON_MODIFY, kFlags));
    rename(t.c_str(), tree.path("elsewhere").c_str());
    pump_all();
    EXPECT_TRUE(logged(2, "fanotify file path lost, can't remove\n"));
}

TEST_F(Tree, DeletedDirectoryLeavesThroughItsIgnored)
{
    tree.dir("t/a/b");
    watch();
    tree.remove("t/a");
    pump_all();
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_EQ(1U, kernel_watches().size());
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

/* The watch of a deleted directory leaves while its children are still watched for it; nobody's mask accounts for
 * them then. Moved away later, they must not be freed with their watch descriptor in the table. */
TEST_F(Tree, NoDentryIsFreedWithALiveWatchDescriptor)
{
    tree.dir("t/a/b");
    EXPECT_EQ(0, m.add(t + "/a", FMON_CREATE, FMON_DIR | FMON_RECURSIVE));
    EXPECT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_MOVED_FROM, FMON_DIR, 0, 0));
    int inner = wd_of(t + "/a/b");
    ASSERT_GE(inner, 0);
    m.feed(0, inotify_record(wd_of(t + "/a"), IN_IGNORED));
    EXPECT_EQ(inner, wd_of(t + "/a/b"));
    m.feed(0, inotify_record(wd_of(t), IN_MOVED_FROM | IN_ISDIR, "a"));
    EXPECT_FALSE(cached(t + "/a"));
    uint64_t value = seq_get(&fmlnx.seq, inner);
    EXPECT_TRUE(value == 0 || value == SEQ_POISON) << value;
    m.feed(0, inotify_record(inner, IN_CREATE, "x"));
    EXPECT_TRUE(logged(2, "this dentry is put in poison\n"));
}

TEST_F(Tree, SeveralTreeBitsInOneRecord)
{
    tree.dir("t/a/b");
    watch();
    m.feed(0, inotify_record(wd_of(t + "/a"), IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF | IN_ISDIR, "b"));
    EXPECT_EQ(hardened(), cached(t + "/a")) << "hardened, a directory that is in its place has not moved";
    EXPECT_TRUE(cached(t));
}

TEST_F(Tree, DeletedWatchWaitsForItsPathAgain)
{
    EXPECT_EQ(0, m.add(t, FMON_CREATE, FMON_DIR | FMON_DELETED));
    tree.remove("t");
    pump_all();
    EXPECT_FALSE(list_empty(&fmon.tbd));
    tree.dir("t");
    fmon_tbd_pass();
    EXPECT_TRUE(list_empty(&fmon.tbd));
    EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(t));
}

/* Two names of one file share the kernel's watch: the later path takes the descriptor. */
TEST_F(Tree, HardLinksShareAWatchDescriptor)
{
    std::string f = tree.file("f");
    ASSERT_EQ(0, link(f.c_str(), tree.path("g").c_str()));
    EXPECT_EQ(0, m.add(f, FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(0, m.add(tree.path("g"), FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(wd_of(f), wd_of(tree.path("g")));
    EXPECT_EQ(0, m.del(f));
    EXPECT_EQ(0, m.del(tree.path("g")));
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Tree, EveryFailedCallOfANewDirectoryKeepsTheTreeSound)
{
    watch();
    for (const char *call : {"malloc", "calloc", "realloc", "inotify_add_watch", "stat"}) {
        int run = 0;
        fail_each(call, ENOSPC, [&](Fault &) {
            std::string name = std::string("t/") + call + std::to_string(run++);
            uint32_t before = fmon.dcache.count;
            m.feed(0, inotify_record(wd_of(t), IN_CREATE | IN_ISDIR, tree.dir(name).substr(t.size() + 1)));
            bool kept = cached(tree.path(name));
            EXPECT_EQ(before + (kept ? 1 : 0), fmon.dcache.count) << call;
            EXPECT_TRUE(!kept || wd_of(tree.path(name)) >= 0) << call;
        });
    }
}

TEST_F(Tree, AMovedTreeIsWalkedWhateverItsRootsMarkDid)
{
    for (int error : {ENOSPC, ENOENT}) {
        EXPECT_EQ(0, m.add(t, FMON_CREATE, kFlags));
        tree.dir("outside/a/b");
        rename(tree.path("outside").c_str(), (t + "/in").c_str());
        {
            Fault fault("inotify_add_watch", 1, error);
            m.feed(0, inotify_record(wd_of(t), IN_MOVED_TO | IN_ISDIR, "in"));
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(kernel_mask(t), kernel_mask(t + "/in/a")) << error;
        EXPECT_EQ(kernel_mask(t), kernel_mask(t + "/in/a/b")) << error;
        EXPECT_EQ(0, m.del(t));
        tree.remove("t/in");
        pump_all();
    }
}

TEST_F(Tree, DirectoriesThatCannotBeMarkedAreNotKept)
{
    watch();
    uint32_t before = fmon.dcache.count;
    tree.dir("outside/a/b");
    rename(tree.path("outside").c_str(), (t + "/in").c_str());
    tree.dir("t/made");
    {
        Fault fault("inotify_add_watch", 1, ENOSPC, 100);
        m.feed(0, inotify_record(wd_of(t), IN_MOVED_TO | IN_ISDIR, "in"));
        m.feed(0, inotify_record(wd_of(t), IN_CREATE | IN_ISDIR, "made"));
    }
    EXPECT_EQ(before, fmon.dcache.count);
    {
        Fault below("inotify_add_watch", 2, ENOSPC, 100);
        m.feed(0, inotify_record(wd_of(t), IN_MOVED_TO | IN_ISDIR, "in"));
    }
    EXPECT_EQ(before + 1, fmon.dcache.count) << "what could be marked";
    EXPECT_TRUE(cached(t + "/in"));
}

TEST_F(Tree, FailedFanotifyMarksAloneAreNotKept)
{
    EXPECT_EQ(0, m.add(t, FMON_MODIFY, FMON_DIR | FMON_RECURSIVE));
    EXPECT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_CREATE | FMON_MOVED_TO, FMON_DIR, 0, 0));
    uint32_t before = fmon.dcache.count;
    m.fanotify.mark_error = ENOSPC;
    tree.dir("t/made");
    tree.dir("outside/a/b");
    rename(tree.path("outside").c_str(), (t + "/in").c_str());
    pump_all();
    EXPECT_EQ(before, fmon.dcache.count);
    m.fanotify.mark_error = 0;
}

/* Paths of more than 1022 bytes cannot be told, nor marked. */
TEST_F(Tree, WhatLiesTooDeepIsNotKept)
{
    watch();
    uint32_t before = fmon.dcache.count;
    for (int round = 0; round < 3; round++) {
        std::string deep = "outside";
        while (tree.path(deep).size() < 900)
            deep += "/" + std::string(100, 'd');
        tree.dir(deep + "/" + std::string(200, 'x'));
        for (int i = 0; i < 20; i++)
            tree.dir(deep + "/" + std::string(200, 'y') + std::to_string(i));
        rename(tree.path("outside").c_str(), (t + "/in").c_str());
        pump_all();
        EXPECT_GT(fmon.dcache.count, before + 5);
        tree.remove("t/in");
        pump_all();
        EXPECT_EQ(before, fmon.dcache.count) << round;
    }
}

}  // namespace
