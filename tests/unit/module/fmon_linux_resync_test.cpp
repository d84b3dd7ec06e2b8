/* Directories of a watched tree are brought in line with the disk after what the kernel said of them was lost. */
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "event.h"
#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

constexpr uint32_t kBoth = FMON_RESYNC_MARK | FMON_RESYNC_FORGET;

class Resync : public ::testing::Test
{
protected:
    Resync()
    {
        t = tree.dir("t");
        EXPECT_EQ(0, m.result);
        EXPECT_EQ(0, m.add(t, FMON_CREATE | FMON_CLOSE_WRITE, FMON_DIR | FMON_RECURSIVE | FMON_SYNC));
    }

    /* What the kernel has said until now is lost. */
    void lose()
    {
        char records[4096];
        while (m.has_input())
            ASSERT_GT(read(fmlnx.fds[0], records, sizeof(records)), 0);
    }
    int resync(const std::string &path, uint32_t what = kBoth) { return fmon_linux_resync(path.c_str(), what); }

    void move(const std::string &from, const std::string &to)
    {
        EXPECT_EQ(0, rename(tree.path(from).c_str(), tree.path(to).c_str()));
    }

    TempTree tree;
    LinuxMonitor m;
    std::string t;
};

TEST_F(Resync, ADirectoryThatIsNotMarkedIsMarkedOnce)
{
    tree.dir("t/a/b");
    lose();
    EXPECT_EQ(FMON_ENOENT, resync(t + "/a/b")) << "what is above comes first";
    EXPECT_EQ(1, resync(t + "/a"));
    EXPECT_EQ(1, resync(t + "/a/b"));
    EXPECT_EQ(kernel_mask(t), kernel_mask(t + "/a/b"));
    EXPECT_EQ(0, resync(t + "/a"));
    EXPECT_EQ(0, resync(t + "/a/b"));
    tree.file("t/a/b/f");
    m.pump_all();
    EXPECT_EQ(std::vector<std::string>{t + "/a/b/f:create"}, m.events());
}

TEST_F(Resync, AWatchThatDiedWithoutAWordIsPlacedAnew)
{
    tree.dir("t/a");
    m.pump_all();
    m.events();
    const int old = wd_of(t + "/a");
    ASSERT_EQ(0, inotify_rm_watch(fmlnx.fds[0], old));
    lose();
    EXPECT_EQ(1, resync(t + "/a"));
    EXPECT_NE(wd_of(t + "/a"), old);
    EXPECT_NE(0u, kernel_mask(t + "/a"));
}

TEST_F(Resync, WhatIsGoneIsForgottenWithAllBelow)
{
    tree.dir("t/a/b");
    tree.dir("t/stays");
    lose();
    for (const char *path : {"/a", "/a/b", "/stays"})
        ASSERT_EQ(1, resync(t + path));
    tree.remove("t/a/b");
    tree.remove("t/a");
    tree.file("t/a");
    lose();
    EXPECT_EQ(0, resync(t, FMON_RESYNC_MARK));
    EXPECT_TRUE(cached(t + "/a/b"));
    EXPECT_EQ(0, resync(t));
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_TRUE(cached(t + "/stays"));
    EXPECT_EQ(2U, kernel_watches().size());
}

TEST_F(Resync, WhatWasRenamedIsKnownByItsNameOnly)
{
    tree.dir("t/a/deep");
    lose();
    ASSERT_EQ(1, resync(t + "/a"));
    ASSERT_EQ(1, resync(t + "/a/deep"));
    move("t/a", "t/b");
    lose();
    EXPECT_EQ(0, resync(t));
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_EQ(1, resync(t + "/b"));
    EXPECT_EQ(1, resync(t + "/b/deep"));
    tree.file("t/b/deep/f");
    m.pump_all();
    EXPECT_EQ(std::vector<std::string>{t + "/b/deep/f:create"}, m.events());
}

TEST_F(Resync, WhatLeftTheTreeIsNotHeardOfAnyMore)
{
    tree.dir("t/a");
    m.pump_all();
    m.events();
    move("t/a", "out");
    lose();
    EXPECT_EQ(0, resync(t));
    EXPECT_EQ(1U, kernel_watches().size());
    tree.file("out/f");
    m.pump_all();
    EXPECT_EQ(std::vector<std::string>{}, m.events());
}

TEST_F(Resync, AWatchOfItsOwnIsLeftToItsUpkeep)
{
    const std::string own = tree.dir("t/own");
    m.pump_all();
    m.events();
    ASSERT_EQ(0, m.add(own, FMON_DELETE_SELF, FMON_DIR | FMON_DELETED));
    tree.remove("t/own");
    lose();
    EXPECT_EQ(0, resync(t));
    EXPECT_TRUE(cached(own));
}

TEST_F(Resync, WhereNothingIsMarkedNothingIsDone)
{
    tree.dir("other/a");
    EXPECT_EQ(FMON_ENOENT, resync(tree.path("other")));
    EXPECT_EQ(FMON_ENOENT, resync(tree.path("other/a")));
    EXPECT_EQ(FMON_ENOENT, resync("/"));
    EXPECT_EQ(FMON_ENOENT, resync(t + "/missing"));
    EXPECT_EQ(FMON_ENOENT, resync(t + "/missing", FMON_RESYNC_FORGET));
    tree.file("t/file");
    EXPECT_EQ(FMON_ENOENT, resync(t + "/file"));
    EXPECT_EQ(FMON_ENOENT, resync(t + "/" + std::string(1100, 'x')));
    EXPECT_EQ(FMON_ENOENT, resync("/" + std::string(600, 'x') + "/" + std::string(600, 'x')));
    EXPECT_FALSE(cached(tree.path("other")));
}

TEST_F(Resync, ARefusalIsCountedAndMendedByTheNextCall)
{
    tree.dir("t/a");
    lose();
    {
        Fault fault("inotify_add_watch", 1, ENOSPC);
        EXPECT_EQ(FMON_LINUX_EINOTIFY, resync(t + "/a"));
    }
    EXPECT_EQ(1u, fmon_account.left_out.inotify_limit);
    EXPECT_EQ(1, resync(t + "/a"));
    EXPECT_EQ(1u, fmon_account.left_out.inotify_limit);
}

TEST_F(Resync, AFullCacheIsARefusal)
{
    fmon.dcache.max_entries = static_cast<int32_t>(fmon.dcache.count);
    tree.dir("t/a");
    lose();
    EXPECT_EQ(FMON_ENOMEM, resync(t + "/a"));
    EXPECT_EQ(1u, fmon_account.left_out.cache_full);
    fmon.dcache.max_entries++;
    EXPECT_EQ(1, resync(t + "/a"));
}

/* By fanotify alone: the mark says what is new. */
TEST(ResyncMarks, OfFanotifyAloneAreNewOnce)
{
    TempTree tree;
    LinuxMonitor m;
    const std::string t = tree.dir("t");
    ASSERT_EQ(0, m.add(t, FMON_CLOSE_WRITE, FMON_DIR | FMON_RECURSIVE));
    tree.dir("t/a");
    EXPECT_EQ(1, fmon_linux_resync((t + "/a").c_str(), kBoth));
    EXPECT_EQ(0, fmon_linux_resync((t + "/a").c_str(), kBoth));
    EXPECT_EQ(uint64_t{FMON_CLOSE_WRITE}, m.fanotify.marks.back().mask & FMON_ALL_EVENTS);
}

}  // namespace
