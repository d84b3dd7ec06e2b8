/* Tests of linux/fmon_linux_watch.cpp: which marks a watch places and takes away. */

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

TEST_F(Watching, MaskIsDividedBetweenTheSources)
{
    std::string a = tree.dir("a");
    ASSERT_EQ(0, m.add(a, 0xfff, FMON_DIR));
    EXPECT_EQ(0x3bU | kOnDir, fan(a));
    EXPECT_EQ(0xfc4U, kernel_mask(a));
    EXPECT_TRUE(logged(4,
                       "fanotify event: open,access,modify,close_write,close_nowrite, inotify event: "
                       "create,delete,moved_from,moved_to,attrib,move_self,delete_self\n"));
}

TEST_F(Watching, SyncAddsTheStructureKinds)
{
    std::string a = tree.dir("a");
    ASSERT_EQ(0, m.add(a, FMON_MODIFY, FMON_DIR | FMON_SYNC));
    EXPECT_EQ(0xfc0U, kernel_mask(a));
    EXPECT_EQ(FMON_MODIFY | kOnDir, fan(a));
}

TEST_F(Watching, FanotifyOnlyWatchPlacesNoInotifyWatch)
{
    std::string f = tree.file("f");
    ASSERT_EQ(0, m.add(f, FMON_MODIFY, FMON_FILE));
    EXPECT_EQ(hardened() ? uint32_t{FMON_DELETE_SELF | FMON_MOVE_SELF | FMON_ATTRIB} : 0, kernel_mask(f))
        << "hardened: only to notice its end";
    EXPECT_EQ(FMON_MODIFY, fan(f));
}

TEST_F(Watching, TwoWatchesShareOneInotifyWatch)
{
    std::string a = tree.dir("a");
    ASSERT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR));
    int wd = wd_of(a);
    ASSERT_EQ(0, fmon_add_watch(m.id2, a.c_str(), FMON_DELETE | FMON_ATTRIB, FMON_DIR, 0, 0));
    EXPECT_EQ(wd, wd_of(a));
    EXPECT_EQ(uint32_t{FMON_CREATE | FMON_DELETE | FMON_ATTRIB}, kernel_mask(a));

    ASSERT_EQ(0, m.del(a));
    EXPECT_EQ(uint32_t{FMON_DELETE | FMON_ATTRIB}, kernel_mask(a));
    ASSERT_EQ(0, fmon_del_watch(m.id2, a.c_str()));
    EXPECT_TRUE(kernel_watches().empty());
    EXPECT_EQ(uint64_t{SEQ_POISON}, seq_get(&fmlnx.seq, wd));
    EXPECT_FALSE(cached(a));
}

TEST_F(Watching, FanotifyAddsOnlyWhatIsMissing)
{
    std::string a = tree.dir("a");
    ASSERT_EQ(0, m.add(a, FMON_MODIFY | FMON_OPEN, FMON_DIR));
    ASSERT_EQ(0, fmon_add_watch(m.id2, a.c_str(), FMON_MODIFY | FMON_ACCESS, FMON_DIR, 0, 0));
    ASSERT_EQ(2U, m.fanotify.marks.size());
    EXPECT_EQ(FMON_ACCESS | kOnDir, m.fanotify.marks[1].mask);

    ASSERT_EQ(0, m.del(a));
    EXPECT_EQ(uint64_t{FMON_OPEN}, m.fanotify.marks[2].mask) << "the other watch keeps modify, and the directory bits";
    ASSERT_EQ(0, fmon_del_watch(m.id2, a.c_str()));
    EXPECT_EQ(0U, fan(a));
}

TEST_F(Watching, RecursiveWatchMarksTheSubtree)
{
    std::string a = tree.dir("a");
    std::string c = tree.dir("a/b/c");
    ASSERT_EQ(0, m.add(a, FMON_CREATE | FMON_MODIFY, FMON_DIR | FMON_RECURSIVE));
    for (const auto &path : {a, a + "/b", c}) {
        EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(path)) << path;
        EXPECT_EQ(FMON_MODIFY | kOnDir, fan(path)) << path;
    }
    ASSERT_EQ(0, m.del(a));
    EXPECT_TRUE(kernel_watches().empty());
    EXPECT_EQ(0U, fan(c));
    EXPECT_FALSE(cached(tree.root()));
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Watching, DepthLimitEndsTheFirstWalk)
{
    std::string a = tree.dir("a");
    tree.dir("a/b/c/d");
    ASSERT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR | FMON_RECURSIVE, 2));
    EXPECT_NE(0U, kernel_mask(a + "/b/c"));
    EXPECT_FALSE(cached(a + "/b/c/d"));
}

TEST_F(Watching, SubdirectoryLimitOnlyCountsAsASignedNumber)
{
    std::string a = tree.dir("a");
    for (int i = 0; i < 5; i++)
        tree.dir("a/" + std::to_string(i));
    ASSERT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR | FMON_RECURSIVE, 0, 2));
    EXPECT_EQ(6U, kernel_watches().size());
    ASSERT_EQ(0, m.del(a));
    ASSERT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR | FMON_RECURSIVE, 0, 0x80000000U));
    EXPECT_EQ(1U, kernel_watches().size());
}

/* A non-recursive watch is nobody's business below it. */
TEST_F(Watching, OwnMasksDoNotLeakToChildren)
{
    std::string b = tree.dir("t/a/b");
    std::string a = tree.path("t/a");
    ASSERT_EQ(0, m.add(a, FMON_ATTRIB, FMON_DIR));
    ASSERT_EQ(0, fmon_add_watch(m.id2, tree.path("t").c_str(), FMON_CREATE, FMON_DIR | FMON_RECURSIVE, 0, 0));
    EXPECT_EQ(uint32_t{FMON_ATTRIB | FMON_CREATE}, kernel_mask(a));
    EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(b));
}

TEST_F(Watching, RecursiveBelowRecursiveMarksTheUnion)
{
    std::string b = tree.dir("t/a/b");
    ASSERT_EQ(0, m.add(tree.path("t"), FMON_CREATE | FMON_OPEN, FMON_DIR | FMON_RECURSIVE));
    ASSERT_EQ(0, m.add(tree.path("t/a"), FMON_DELETE | FMON_MODIFY, FMON_DIR | FMON_RECURSIVE));
    EXPECT_EQ(uint32_t{FMON_CREATE | FMON_DELETE}, kernel_mask(b));
    EXPECT_EQ(FMON_OPEN | FMON_MODIFY | kOnDir, fan(b));

    ASSERT_EQ(0, m.del(tree.path("t/a")));
    EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(b));
    EXPECT_EQ(FMON_OPEN | kOnDir, fan(b));
    ASSERT_EQ(0, m.del(tree.path("t")));
    EXPECT_TRUE(kernel_watches().empty());
    EXPECT_EQ(0U, fmon.dcache.count);
}

/* Three levels: what the grandparent's watch needs must be carried through every level of the walk. */
TEST_F(Watching, UnwatchKeepsWhatAnOuterRecursiveWatchNeeds)
{
    std::string deep = tree.dir("t/a/b/c/d");
    ASSERT_EQ(0, m.add(tree.path("t"), FMON_CREATE, FMON_DIR | FMON_RECURSIVE));
    ASSERT_EQ(0, fmon_add_watch(m.id2, tree.path("t/a").c_str(), FMON_CREATE, FMON_DIR | FMON_RECURSIVE, 0, 0));
    ASSERT_EQ(0, fmon_del_watch(m.id2, tree.path("t/a").c_str()));
    for (const auto &path : {"t", "t/a", "t/a/b", "t/a/b/c", "t/a/b/c/d"})
        EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(tree.path(path))) << path;
}

/* A directory that a depth limit left out is not marked, although its ancestor's recursive watch has the same kinds. */
TEST_F(Watching, DirectoryNewToTheCacheGetsItsOwnMark)
{
    std::string deep = tree.dir("t/a/b");
    ASSERT_EQ(0, m.add(tree.path("t"), FMON_MODIFY, FMON_DIR | FMON_RECURSIVE, 1));
    EXPECT_EQ(0U, fan(deep));
    ASSERT_EQ(0, m.add(deep, FMON_MODIFY, FMON_DIR));
    EXPECT_EQ(FMON_MODIFY | kOnDir, fan(deep));
}

TEST_F(Watching, DeletingTheLastWatchCollectsEmptyAncestors)
{
    std::string c = tree.dir("a/b/c");
    ASSERT_EQ(0, m.add(tree.path("a"), FMON_CREATE, FMON_DIR));
    ASSERT_EQ(0, fmon_add_watch(m.id2, c.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    ASSERT_EQ(0, fmon_del_watch(m.id2, c.c_str()));
    EXPECT_FALSE(cached(tree.path("a/b")));
    EXPECT_TRUE(cached(tree.path("a")));
    EXPECT_TRUE(logged(4, "collect dentry " + c + "\n"));
    EXPECT_TRUE(logged(4, "collect dentry " + tree.path("a/b") + "\n"));
}

TEST_F(Watching, CollectionStopsAtADirectoryWithChildren)
{
    std::string c = tree.dir("a/c"), d = tree.dir("a/d");
    ASSERT_EQ(0, m.add(c, FMON_CREATE, FMON_DIR));
    ASSERT_EQ(0, m.add(d, FMON_CREATE, FMON_DIR));
    ASSERT_EQ(0, m.del(c));
    EXPECT_FALSE(cached(c));
    EXPECT_TRUE(cached(tree.path("a")));
}

TEST_F(Watching, WithoutFanotifyEverythingGoesToInotify)
{
    int32_t saved = fmlnx.fan_fd[0];
    fmlnx.fan_fd[0] = -1;
    std::string a = tree.dir("a");
    ASSERT_EQ(0, m.add(a, 0xfff, FMON_DIR));
    EXPECT_EQ(0xfffU, kernel_mask(a));
    EXPECT_TRUE(m.fanotify.marks.empty());
    fmlnx.fan_fd[0] = saved;
}

TEST_F(Watching, PidPutsTheWholeMaskIntoFanotify)
{
    std::string a = tree.dir("a");
    ASSERT_EQ(0, m.add(a, FMON_MODIFY | FMON_CLOSE, FMON_DIR | FMON_PID));
    EXPECT_EQ(FMON_MODIFY | FMON_CLOSE | kOnDir, fan(a)) << "directory marks, not mount marks";
    EXPECT_EQ(-1, wd_of(a));
}

TEST_F(Watching, CheckRefusesWhatTheSourcesCannotTell)
{
    std::string a = tree.dir("a");
    EXPECT_EQ(-112, m.add(a, FMON_CREATE, FMON_DIR | FMON_PID));
    EXPECT_EQ(-112, m.add(a, FMON_MODIFY | FMON_CREATE, FMON_MOUNT));
    EXPECT_EQ(-111, m.add(a, FMON_ACCESS | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY));
    EXPECT_EQ(-111, m.add(a, FMON_MODIFY | FMON_CLOSE_NOWRITE, FMON_DIR | FMON_DELAY));
    EXPECT_EQ(0, m.add(a, FMON_ACCESS | FMON_MODIFY | FMON_CLOSE, FMON_DIR | FMON_DELAY));
}

TEST_F(Watching, CheckMaskLimits)
{
    struct watch w = {};
    w.flags = FMON_DIR;
    for (uint32_t bad : {0U, 0x1000U, 0x1001U, 0x10000U}) {
        w.mask = bad;
        EXPECT_EQ(-111, fmon_check_watch(&w)) << bad;
    }
    w.mask = 0xfff;
    EXPECT_EQ(0, fmon_check_watch(&w));
}

TEST_F(Watching, MountDescriptorBelowOneIsNotSupported)
{
    struct watch w = {};
    w.mask = FMON_MODIFY;
    int32_t saved = fmlnx.fan_fd[1];
    for (int fd : {-1, 0}) {
        fmlnx.fan_fd[1] = fd;
        for (uint32_t flag : {uint32_t{FMON_MOUNT}, uint32_t{FMON_PID}}) {
            w.flags = flag | FMON_DIR;
            EXPECT_EQ(-112, fmon_check_watch(&w)) << fd;
        }
    }
    fmlnx.fan_fd[1] = saved;
    EXPECT_EQ(0, fmon_check_watch(&w));
}

/* ---- containers ---- */

TEST_F(Watching, InAContainerOnlyTheHostTreeIsWatched)
{
    g_container_flag = 1;
    std::string a = tree.dir("a");
    EXPECT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR));
    EXPECT_EQ(-1, wd_of(a));
    EXPECT_EQ(0, m.del(a));
    EXPECT_TRUE(logged(1, "wd is -1, but has events, remain , old create\n"));
    EXPECT_TRUE(logged(1, "del watch failed: -1\n"));
}

/* ---- punishment of marks nobody wants ---- */

TEST_F(Watching, UnexpectedEventRemovesTheMarksOfFileAndParent)
{
    char path[] = "/d/f";
    m.fanotify.marks.clear();
    EXPECT_EQ(0, fmon_linux_punish_unexpected_watch(fmlnx.fds[1], path));
    std::vector<MarkCall> expected;
    if (!hardened()) /* no event is at hand whose file that would be */
        expected = {{fmlnx.fan_fd[0], 0x2 | 0x4, 0x3b, -100, "/d/f"},
                    {fmlnx.fan_fd[0], 0x2 | 0x4 | 0x8, 0x4800003b, -100, "/d"}};
    EXPECT_EQ(expected, m.fanotify.marks);
    EXPECT_STREQ("/d/f", path);
}

TEST_F(Watching, PunishmentIsForTheSecondPositionOnly)
{
    char path[] = "/d/f";
    m.fanotify.marks.clear();
    fmon_linux_punish_unexpected_watch(fmlnx.fds[0], path);
    fmon_linux_punish_unexpected_watch(fmlnx.fds[2], path);
    EXPECT_TRUE(m.fanotify.marks.empty());
    char odd[] = "pipe:[7]";
    fmon_linux_punish_unexpected_watch(fmlnx.fds[1], odd);
    EXPECT_EQ(hardened() ? 0U : 1U, m.fanotify.marks.size());
    char top[] = "/x";
    m.fanotify.mark_error = ENOENT;
    EXPECT_EQ(0, fmon_linux_punish_unexpected_watch(fmlnx.fds[1], top));
    if (hardened())
        return;
    EXPECT_EQ("", m.fanotify.marks.back().path);
    EXPECT_STREQ("/x", top);
}

}  // namespace
