/* Directories that an instance spares: no mark, no walk, no event, for its recursive watches alone. */
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>

#include "event.h"
#include "linux/fmon_linux.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

constexpr uint32_t kTree = FMON_DIR | FMON_RECURSIVE | FMON_SYNC;
constexpr uint32_t kKinds = FMON_CREATE | FMON_DELETE | FMON_MOVED_FROM | FMON_MOVED_TO;

class Spare : public ::testing::Test
{
protected:
    Spare()
    {
        EXPECT_EQ(0, m.result);
        for (const char *name : {"t/a", "t/spared/b/c", "t/spared2", "t/x/spared"})
            tree.dir(name);
        t = tree.path("t");
        spared = t + "/spared";
    }
    void watch() { EXPECT_EQ(0, m.add(t, kKinds, kTree)); }
    int watch_other(const std::string &path) { return fmon_add_watch(m.id2, path.c_str(), FMON_ATTRIB, kTree, 0, 0); }
    void rename(const std::string &from, const std::string &to) const
    {
        EXPECT_EQ(0, std::rename(tree.path(from).c_str(), tree.path(to).c_str()));
    }

    TempTree tree;
    LinuxMonitor m;
    std::string t, spared;
};

}  // namespace

TEST_F(Spare, NothingThereIsMarkedOrKept)
{
    EXPECT_EQ(0, fmon_spare(m.id, spared.c_str()));
    watch();
    EXPECT_NE(0U, kernel_mask(t + "/a"));
    EXPECT_NE(0U, kernel_mask(t + "/spared2"));
    EXPECT_NE(0U, kernel_mask(t + "/x/spared")) << "which has the name alone";
    EXPECT_FALSE(cached(spared) || cached(spared + "/b"));
}

TEST_F(Spare, WhatIsMadeThereLaterIsNotMarked)
{
    tree.remove("t/spared");
    EXPECT_EQ(0, fmon_spare(m.id, spared.c_str()));
    watch();
    tree.dir("t/spared/new");
    m.pump_all();
    EXPECT_FALSE(cached(spared));
    EXPECT_EQ((std::vector<std::string>{spared + ":create"}), m.events());
}

TEST_F(Spare, ARenameCrossesTheBorder)
{
    EXPECT_EQ(0, fmon_spare(m.id, spared.c_str()));
    watch();
    rename("t/spared", "t/shown");
    m.pump_all();
    EXPECT_NE(0U, kernel_mask(t + "/shown/b/c"));
    rename("t/shown", "t/spared");
    m.pump_all();
    EXPECT_EQ(0U, kernel_mask(spared) | kernel_mask(spared + "/b/c"));
    rename("t/a", "t/spared/a");
    m.pump_all();
    EXPECT_FALSE(cached(spared + "/a"));
}

TEST_F(Spare, ATreeThatIsMovedInIsWalkedAroundIt)
{
    tree.dir("out/spared/d");
    EXPECT_EQ(0, fmon_spare(m.id, (t + "/out/spared").c_str()));
    watch();
    rename("out", "t/out");
    m.pump_all();
    EXPECT_NE(0U, kernel_mask(t + "/out"));
    EXPECT_FALSE(cached(t + "/out/spared"));
}

TEST_F(Spare, OtherInstancesWatchItAllTheSame)
{
    EXPECT_EQ(0, fmon_spare(m.id, spared.c_str()));
    watch();
    EXPECT_EQ(0, watch_other(t));
    EXPECT_NE(0U, kernel_mask(spared + "/b/c") & FMON_ATTRIB);
    EXPECT_EQ(0, fmon_del_watch(m.id2, t.c_str()));
    EXPECT_FALSE(cached(spared) || cached(spared + "/b"));
    EXPECT_NE(0U, kernel_mask(t + "/a"));
}

TEST_F(Spare, EventsThereAreForOthersAlone)
{
    EXPECT_EQ(0, fmon_spare(m.id, spared.c_str()));
    watch();
    EXPECT_EQ(0, fmon_add_watch(m.id2, t.c_str(), kKinds, kTree, 0, 0));
    tree.file("t/spared/b/f");
    tree.file("t/spared2/f");
    m.pump_all();
    EXPECT_EQ((std::vector<std::string>{t + "/spared2/f:create"}), m.events(m.id));
    EXPECT_EQ((std::vector<std::string>{spared + "/b/f:create", t + "/spared2/f:create"}), m.events(m.id2));
}

TEST_F(Spare, AWalkAfterALossLeavesItOut)
{
    EXPECT_EQ(0, fmon_spare(m.id, spared.c_str()));
    watch();
    EXPECT_EQ(FMON_ENOENT, fmon_linux_resync(spared.c_str(), FMON_RESYNC_MARK));
    EXPECT_EQ(FMON_ENOENT, fmon_linux_resync((spared + "/b").c_str(), FMON_RESYNC_MARK));
    EXPECT_EQ(0, fmon_linux_resync((t + "/a").c_str(), FMON_RESYNC_MARK));
    EXPECT_FALSE(cached(spared));
}

TEST_F(Spare, ItGoesWithItsInstance)
{
    EXPECT_EQ(0, fmon_spare(m.id, spared.c_str()));
    EXPECT_EQ(0, fmon_spare(m.id, (t + "/a").c_str()));
    EXPECT_EQ(2U, fmon.spared);
    EXPECT_EQ(0, fmon_destroy_instance(m.id));
    EXPECT_EQ(0U, fmon.spared);
    m.id = fmon_create_instance("again");
    watch();
    EXPECT_NE(0U, kernel_mask(spared + "/b"));
}

TEST_F(Spare, WhatCannotBe)
{
    for (const char *path : {"", "a", "/", "/a/", "/a//b", "/a*"})
        EXPECT_EQ(FMON_EINVAL, fmon_spare(m.id, path)) << path;
    EXPECT_EQ(FMON_EINVAL, fmon_spare(m.id, ("/" + std::string(DCACHE_PATH_MAX - 1, 'a')).c_str()));
    EXPECT_EQ(FMON_EINVAL, fmon_spare(31, "/a"));
    EXPECT_EQ(0, fmon_spare(m.id, "/a"));
    EXPECT_EQ(FMON_EEXIST, fmon_spare(m.id, "/a"));
    watch();
    EXPECT_EQ(FMON_EINVAL, fmon_spare(m.id, "/b")) << "its watches have their marks";
    EXPECT_EQ(0, fmon_spare(m.id2, "/a"));
}

TEST_F(Spare, WithoutMemoryNothingIsSpared)
{
    const Fault fault("malloc");
    EXPECT_EQ(FMON_ENOMEM, fmon_spare(m.id, spared.c_str()));
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(0U, fmon.spared);
}
