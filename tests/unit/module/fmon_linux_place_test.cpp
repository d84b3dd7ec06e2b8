/* What a hardened monitor's marks are on, and that they stay with those to whom they belong. */
#include "place_fixture.h"

using namespace testlib;

namespace
{

/* ---- an event that nobody asked for ---- */

TEST_F(Place, AnotherNameOfAWatchedFileTakesNoMarkAway)
{
    tree.file("t/f", "x");
    tree.dir("other");
    ASSERT_EQ(0, link(tree.path("t/f").c_str(), tree.path("other/g").c_str()));
    ASSERT_EQ(0, m.add(tree.path("t/f"), FMON_MODIFY, FMON_FILE));
    event_of("other/g");
    EXPECT_FALSE(removed_marks());
}

TEST_F(Place, AFileBesideTheNameIsNotJudgedByIt)
{
    tree.file("a/f");
    std::string other = tree.file("b/f");
    m.fanotify.marks.clear();
    fmlnx.event_fd = open(tree.path("a/f").c_str(), O_RDONLY | O_CLOEXEC);
    fmon_linux_punish_unexpected_watch(fmlnx.fds[1], other.data());
    EXPECT_FALSE(removed_marks());
    std::string own = tree.path("a/f");
    fmon_linux_punish_unexpected_watch(fmlnx.fds[1], own.data());
    EXPECT_TRUE(removed_marks());
    EXPECT_EQ(tree.path("a/f"), own) << "the path is as it was";
    close(fmlnx.event_fd);
    fmlnx.event_fd = -1;
}

TEST_F(Place, AWatchedDirectoryOnTheWayKeepsItsMark)
{
    tree.file("t/f");
    ASSERT_EQ(0, m.add(t, FMON_CLOSE_WRITE, FMON_DIR));
    m.fanotify.marks.clear();
    /* Offered as from nowhere: the dentry is there, its watch is not. */
    fmlnx.event_fd = open(tree.path("t/f").c_str(), O_RDONLY | O_CLOEXEC);
    std::string path = tree.path("t/f");
    fmon_linux_punish_unexpected_watch(fmlnx.fds[1], path.data());
    close(fmlnx.event_fd);
    fmlnx.event_fd = -1;
    for (const MarkCall &call : m.fanotify.marks)
        EXPECT_NE(t, call.path);
}

TEST_F(Place, AMarkThatIsNobodysIsTaken)
{
    tree.file("t/a/f");
    watch(FMON_MODIFY);
    move("t/a", "gone");
    pump_all();
    event_of("gone/f");
    std::vector<MarkCall> expected = {{fmlnx.fan_fd[0], 0x2 | 0x4, 0x3b, -100, tree.path("gone/f")},
                                      {fmlnx.fan_fd[0], 0x2 | 0x4 | 0x8, 0x4800003b, -100, tree.path("gone")}};
    EXPECT_EQ(expected, m.fanotify.marks);
}

TEST_F(Place, LooksThatFailTakeNothing)
{
    tree.file("a/f");
    for (const char *call : {"open", "fstat", "fstatat"}) {
        int runs = fail_each(call, EIO, [&](Fault &fault) {
            int fd = ::open(tree.path("a/f").c_str(), O_RDONLY | O_CLOEXEC);
            fmlnx.event_fd = fd;
            m.fanotify.marks.clear();
            std::string path = tree.path("a/f");
            if (!fault.hit())
                fmon_linux_punish_unexpected_watch(fmlnx.fds[1], path.data());
            fmlnx.event_fd = -1;
            close(fd);
            EXPECT_EQ(!fault.hit(), removed_marks()) << call;
        });
        EXPECT_GE(runs, 1) << call;
    }
}

/* ---- what is marked is what was looked at ---- */

TEST_F(Place, ACreatedDirectoryThatIsALinkByNowIsNotWatched)
{
    tree.dir("outside/in");
    watch();
    tree.link("t/a", tree.path("outside"));
    size_t before = kernel_watches().size();
    m.feed(0, inotify_record(wd_of(t), IN_CREATE | IN_ISDIR, "a"));
    m.feed(0, inotify_record(wd_of(t), IN_MOVED_TO | IN_ISDIR, "a"));
    EXPECT_EQ(before, kernel_watches().size());
    EXPECT_FALSE(cached(t + "/a"));
}

TEST_F(Place, AParentThatIsALinkByNowLeadsNowhere)
{
    tree.dir("t/p");
    tree.dir("outside/x/deep");
    watch();
    int wd = wd_of(t + "/p");
    move("t/p", "t/q");
    tree.link("t/p", tree.path("outside"));
    size_t before = kernel_watches().size();
    m.feed(0, inotify_record(wd, IN_CREATE | IN_ISDIR, "x"));
    m.feed(0, inotify_record(wd, IN_MOVED_TO | IN_ISDIR, "x"));
    EXPECT_EQ(before, kernel_watches().size());
    EXPECT_FALSE(cached(t + "/p/x"));
}

TEST_F(Place, EveryLookThatFailsLeavesTheTreeSound)
{
    watch(FMON_CREATE | FMON_MODIFY);
    for (const char *call : {"open", "openat", "fstat", "fstatat", "calloc", "malloc", "realloc"}) {
        int run = 0;
        fail_each(call, ENOMEM, [&](Fault &) {
            std::string name = std::string(call) + std::to_string(run++);
            tree.dir("outside/" + name + "/below");
            move("outside/" + name, "t/" + name);
            int fds = open_fds();
            m.feed(0, inotify_record(wd_of(t), IN_MOVED_TO | IN_ISDIR, name));
            EXPECT_EQ(fds, open_fds()) << call;
        });
        pump_all();
    }
    uint32_t indexed = inode_index_count();
    EXPECT_EQ(0, m.del(t));
    EXPECT_GE(indexed, 2U);
    EXPECT_EQ(0U, inode_index_count());
    EXPECT_EQ(0U, fmon.dcache.count);
    EXPECT_TRUE(kernel_watches().empty());
}

TEST_F(Place, TheIndexKnowsWhatIsMarkedAndNothingElse)
{
    tree.dir("t/a/b");
    watch();
    EXPECT_EQ(3U, inode_index_count());
    struct stat st;
    ASSERT_EQ(0, stat(tree.path("t/a/b").c_str(), &st));
    EXPECT_EQ(dcache_find(&fmon.dcache, tree.path("t/a/b").c_str()), inode_index_find(st.st_dev, st.st_ino));
    move("t/a", "gone");
    pump_all();
    EXPECT_EQ(1U, inode_index_count());
    EXPECT_EQ(nullptr, inode_index_find(st.st_dev, st.st_ino));
    EXPECT_EQ(0, m.del(t));
    EXPECT_EQ(0U, inode_index_count());
}

/* Deleting the watch of one name leaves the other one what it needs. */
TEST_F(Place, TwoNamesOfOneFileKeepTheirMarks)
{
    std::string f = tree.file("f"), g = tree.path("g");
    ASSERT_EQ(0, link(f.c_str(), g.c_str()));
    for (const auto &[first, second] : {std::pair{f, g}, std::pair{g, f}}) {
        ASSERT_EQ(0, m.add(first, FMON_CLOSE_WRITE | FMON_MODIFY, FMON_FILE));
        ASSERT_EQ(0, m.add(second, FMON_MODIFY, FMON_FILE));
        EXPECT_EQ(1U, kernel_watches().size());
        m.fanotify.marks.clear();
        EXPECT_EQ(0, m.del(first));
        std::vector<MarkCall> not_needed = {{fmlnx.fan_fd[0], 0x2 | 0x4, FMON_CLOSE_WRITE, -100, first}};
        EXPECT_EQ(not_needed, m.fanotify.marks);
        EXPECT_EQ(uint32_t{FMON_DELETE_SELF | FMON_MOVE_SELF | FMON_ATTRIB}, kernel_mask(second));
        EXPECT_EQ(0, m.del(second));
        EXPECT_TRUE(removed_marks());
        EXPECT_TRUE(kernel_watches().empty());
        pump_all();
    }
    EXPECT_EQ(0U, inode_index_count());
}

/* A directory goes, and a new one gets its inode number before that is read: two dentries seem to stand for one inode,
 * each with a kernel watch of its own. */
TEST_F(Place, AnInodeNumberThatIsUsedAgainJoinsNoWatches)
{
    std::string a = tree.dir("a"), b = tree.dir("b");
    ASSERT_EQ(0, m.add(a, FMON_CREATE, FMON_DIR));
    ASSERT_EQ(0, m.add(b, FMON_CREATE, FMON_DIR));
    const int wd_a = wd_of(a), wd_b = wd_of(b);
    struct stat st;
    ASSERT_EQ(0, stat(b.c_str(), &st));
    ASSERT_EQ(0, inode_index_set(dcache_find(&fmon.dcache, a.c_str()), st.st_dev, st.st_ino));
    EXPECT_EQ(0, m.del(a));
    EXPECT_EQ(wd_b, wd_of(b));
    EXPECT_EQ(SEQ_POISON, seq_get(&fmlnx.seq, wd_a));
    pump_all();
    EXPECT_EQ(wd_b, wd_of(b)) << "the end of the other watch is not its own";
    EXPECT_EQ(0, m.del(b));
    EXPECT_EQ(SEQ_POISON, seq_get(&fmlnx.seq, wd_b)) << "nothing leads to what is freed";
}

/* ---- exchanged, replaced, made again ---- */

TEST_F(Place, ExchangedDirectoriesAreBothWatched)
{
    tree.dir("t/a/of_a");
    tree.dir("t/b/of_b");
    watch();
    move("t/a", "t/b", RENAME_EXCHANGE);
    pump_all();
    for (const char *below : {"t", "t/a", "t/b", "t/a/of_b", "t/b/of_a"})
        EXPECT_NE(0U, heard(below)) << below;
    EXPECT_FALSE(cached(tree.path("t/a/of_a")));
    EXPECT_FALSE(cached(tree.path("t/b/of_b")));
    EXPECT_EQ(5U, kernel_watches().size());
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

TEST_F(Place, ExchangeAcrossDirectoriesAndBack)
{
    tree.dir("t/x/a/of_a");
    tree.dir("t/y/b/of_b");
    watch();
    for (int i = 0; i < 5; i++) {
        move("t/x/a", "t/y/b", RENAME_EXCHANGE);
        if (i != 1)
            pump_all();
        if (i == 1)
            continue;
        EXPECT_EQ(7U, kernel_watches().size()) << i;
        for (const char *below : {"t/x", "t/y", "t/x/a", "t/y/b"})
            EXPECT_NE(0U, heard(below)) << below << i;
    }
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

TEST_F(Place, AWatchOfItsOwnFollowsTheNameInAnExchange)
{
    tree.dir("t/a");
    tree.dir("t/b");
    watch();
    ASSERT_EQ(0, m.add(tree.path("t/a"), FMON_ATTRIB, FMON_DIR));
    move("t/a", "t/b", RENAME_EXCHANGE);
    pump_all();
    EXPECT_EQ(uint32_t{FMON_ATTRIB}, heard("t/a") & FMON_ATTRIB);
    EXPECT_EQ(0U, heard("t/b") & FMON_ATTRIB);
    EXPECT_NE(0U, heard("t/b"));
}

TEST_F(Place, ADirectoryMovedOverAWatchedOneIsMarked)
{
    tree.dir("t/old");
    tree.dir("t/new/in");
    watch(FMON_CREATE | FMON_MODIFY);
    ASSERT_EQ(0, m.add(tree.path("t/old"), FMON_ATTRIB | FMON_ACCESS, FMON_DIR));
    for (bool is_held : {false, true}) {
        tree.dir("t/new/in");
        if (is_held)
            hold("t/old");
        if (is_held)
            tree.remove("t/old/in");
        move("t/new", "t/old");
        pump_all();
        EXPECT_EQ(uint32_t{FMON_ATTRIB | FMON_CREATE}, heard("t/old") & (FMON_ATTRIB | FMON_CREATE)) << is_held;
        EXPECT_EQ(uint64_t{FMON_MODIFY | FMON_ACCESS}, fan("t/old") & 0xfff) << is_held;
        EXPECT_NE(0U, heard("t/old/in")) << is_held;
    }
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

TEST_F(Place, ADirectoryMadeAgainWhileTheOldOneIsHeldIsMarked)
{
    for (uint32_t parent_flags : {uint32_t{kSyncedTree}, uint32_t{FMON_DIR}}) {
        tree.dir("t/d");
        ASSERT_EQ(0, m.add(t, FMON_CREATE, parent_flags));
        ASSERT_EQ(0, m.add(tree.path("t/d"), FMON_ATTRIB, FMON_DIR));
        hold("t/d");
        tree.remove("t/d");
        tree.dir("t/d");
        pump_all();
        EXPECT_EQ(uint32_t{FMON_ATTRIB}, heard("t/d") & FMON_ATTRIB) << parent_flags;
        close(held);
        held = -1;
        pump_all();
        EXPECT_EQ(uint32_t{FMON_ATTRIB}, heard("t/d") & FMON_ATTRIB) << parent_flags;
        EXPECT_EQ(0, m.del(tree.path("t/d")));
        EXPECT_EQ(0, m.del(t));
    }
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

TEST_F(Place, ADirectoryMadeAgainWhereNothingElseIsWatchedIsFound)
{
    tree.dir("t/d/e");
    ASSERT_EQ(0, m.add(tree.path("t/d"), FMON_CREATE, kSyncedTree));
    ASSERT_EQ(0, fmon_add_watch(m.id2, tree.path("t/d/e").c_str(), FMON_ATTRIB, FMON_DIR | FMON_DELETED, 0, 0));
    hold("t/d");
    tree.remove("t/d");
    tree.dir("t/d/f");
    pump_all();
    EXPECT_EQ(0U, heard("t/d"));
    fmon_linux_check_places(fmon.tbd_interval - 1);
    EXPECT_EQ(0U, heard("t/d"));
    fmon_linux_check_places(fmon.tbd_interval);
    EXPECT_NE(0U, heard("t/d"));
    EXPECT_NE(0U, heard("t/d/f"));
    EXPECT_FALSE(cached(tree.path("t/d/e")));
    EXPECT_FALSE(list_empty(&fmon.tbd)) << "what was watched below waits for its path";
}

TEST_F(Place, AnAncestorThatBecameALinkDecidesNothing)
{
    tree.dir("t/p/d");
    tree.dir("outside/d/in");
    ASSERT_EQ(0, m.add(tree.path("t/p/d"), FMON_CREATE, kSyncedTree));
    move("t/p", "t/q");
    tree.link("t/p", tree.path("outside"));
    fmon_linux_check_places(fmon.tbd_interval);
    EXPECT_EQ(1U, kernel_watches().size());
    EXPECT_EQ(0U, heard("t/p/d"));
}

TEST_F(Place, AWatchThatDemandsItIsPlacedByNoLink)
{
    tree.dir("t/real/d");
    tree.link("t/link", tree.path("t/real"));
    std::string path = tree.path("t/link/d");
    struct watch w = {};
    w.mask = FMON_CREATE;
    w.flags = FMON_DIR | FMON_NO_LINKS;
    w.path = path.data();
    EXPECT_EQ(FMON_ENOENT, fmon_linux_add_watch(&fmon, &w));
    EXPECT_TRUE(kernel_watches().empty());
    w.flags = FMON_DIR;
    EXPECT_EQ(0, fmon_linux_add_watch(&fmon, &w));
    EXPECT_EQ(0, fmon_linux_del_watch(&fmon, &w));
}

TEST_F(Place, ADirectoryThatCameBackIsKept)
{
    tree.dir("t/a/b");
    watch();
    int wd = wd_of(t + "/a");
    move("t/a", "t/z");
    move("t/z", "t/a");
    pump_all();
    EXPECT_EQ(wd, wd_of(t + "/a")) << "it was never taken away";
    EXPECT_NE(0U, heard("t/a/b"));
    EXPECT_FALSE(cached(t + "/z"));
    EXPECT_EQ(3U, kernel_watches().size());
}

/* A walk may come to a name before the events that tell who left it and who came. */
TEST_F(Place, AWalkThatFindsAnotherDirectoryForgetsWhatWasBelowTheFormer)
{
    tree.dir("t/p/a/former");
    watch();
    move("t/p/a", "gone");
    tree.dir("t/p/a/latter");
    ASSERT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_ATTRIB, FMON_DIR | FMON_RECURSIVE, 0, 0));
    EXPECT_FALSE(cached(tree.path("t/p/a/former")));
    for (const char *below : {"t/p/a", "t/p/a/latter"})
        EXPECT_EQ(uint32_t{FMON_ATTRIB | FMON_CREATE}, heard(below) & (FMON_ATTRIB | FMON_CREATE)) << below;
    pump_all();
    for (const char *below : {"t/p/a", "t/p/a/latter"})
        EXPECT_EQ(uint32_t{FMON_ATTRIB | FMON_CREATE}, heard(below) & (FMON_ATTRIB | FMON_CREATE)) << below;
    EXPECT_EQ(4U, kernel_watches().size());
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

/* Two dentries stand for one directory while the departure of one is still to be read; when that one comes to stand for
 * another directory, the kernel's watch is left to the other. */
TEST_F(Place, AWatchStaysWithWhoStandsForTheSameDirectory)
{
    tree.dir("t/a/of_a");
    watch(FMON_CREATE | FMON_MODIFY);
    const int wd = wd_of(t + "/a");
    move("t/a", "t/b");
    EXPECT_EQ(1, fmon_linux_resync((t + "/b").c_str(), FMON_RESYNC_MARK));
    ASSERT_EQ(wd, wd_of(t + "/b"));
    move("t/b", "t/a");
    tree.dir("t/b");
    EXPECT_EQ(0, fmon_linux_resync((t + "/a").c_str(), FMON_RESYNC_MARK));
    EXPECT_EQ(1, fmon_linux_resync((t + "/b").c_str(), FMON_RESYNC_MARK));
    EXPECT_EQ(wd, wd_of(t + "/a"));
    for (bool is_read : {false, true}) {
        for (const char *below : {"t", "t/a", "t/b", "t/a/of_a"})
            EXPECT_NE(0U, heard(below)) << below << is_read;
        for (const char *below : {"t", "t/a", "t/b", "t/a/of_a"})
            EXPECT_EQ(uint64_t{FMON_MODIFY}, fan(below) & 0xfff) << below << is_read;
        pump_all();
    }
    EXPECT_EQ(4U, kernel_watches().size());
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

/* ---- nothing stays in the cache that nobody frees ---- */

TEST_F(Place, AShortLivedDirectoryUnderFanotifyIsDropped)
{
    ASSERT_EQ(0, m.add(t, FMON_MODIFY, FMON_DIR | FMON_RECURSIVE));
    ASSERT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_CREATE | FMON_DELETE, FMON_DIR, 0, 0));
    uint32_t before = fmon.dcache.count;
    for (int i = 0; i < 20; i++) {
        tree.dir("t/d");
        pump_all();
        EXPECT_EQ(before + 1, fmon.dcache.count);
        tree.remove("t/d");
        pump_all();
        EXPECT_EQ(before, fmon.dcache.count) << i;
    }
    EXPECT_EQ(0U, fmlnx.stale_marks);
}

}  // namespace
