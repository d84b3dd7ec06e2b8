/* A directory that is bound elsewhere in its watched tree has one watch descriptor, and one record of each change. */
#include <sched.h>
#include <sys/mount.h>

#include <cstring>

#include "place_fixture.h"

using namespace testlib;

namespace
{

/* t/a is seen at t/m, too. */
class BoundPlace : public Place
{
protected:
    static void SetUpTestSuite()
    {
        own_mounts = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    void SetUp() override
    {
        NEED(own_mounts, "mounts need root");
        tree.dir("t/m");
        ASSERT_EQ(0, mount(tree.dir("t/a").c_str(), (t + "/m").c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
        bound = true;
    }
    void TearDown() override
    {
        if (bound)
            umount2((t + "/m").c_str(), MNT_DETACH);
    }
    static inline bool own_mounts = false;
    bool bound = false;
};

TEST_F(BoundPlace, WhatIsMadeIsKnownByBothPaths)
{
    watch();
    tree.dir("t/a/new");
    pump_all();
    EXPECT_TRUE(cached(t + "/a/new"));
    EXPECT_TRUE(cached(t + "/m/new"));
    EXPECT_EQ(wd_of(t + "/a/new"), wd_of(t + "/m/new"));
}

TEST_F(BoundPlace, WhatArrivesAndLeavesDoesSoByBothPaths)
{
    tree.dir("x/inside");
    watch();
    move("x", "t/a/x");
    pump_all();
    for (const char *path : {"/a/x", "/m/x", "/a/x/inside", "/m/x/inside"})
        EXPECT_TRUE(cached(t + path)) << path;
    move("t/a/x", "t/x");
    pump_all();
    for (const char *path : {"/a/x", "/m/x"})
        EXPECT_FALSE(cached(t + path)) << path;
    EXPECT_NE(0U, heard("t/x"));
    EXPECT_NE(0U, heard("t/x/inside"));
    move("t/x", "x");
    pump_all();
    EXPECT_EQ(0U, kernel_mask(tree.path("x"))) << "by the path that it had before";
    EXPECT_EQ(0U, kernel_mask(tree.path("x/inside")));
}

/* The path that the records came by is gone, the other one is not. */
TEST_F(BoundPlace, WhatWasMadeIsHeardByThePathThatIsLeft)
{
    watch();
    tree.dir("t/a/new");
    pump_all();
    move("t/a", "outside");
    pump_all();
    EXPECT_NE(0U, heard("t/m"));
    EXPECT_NE(0U, heard("t/m/new"));
    m.events();
    tree.file("outside/new/f");
    m.pump();
    EXPECT_EQ(std::vector<std::string>{t + "/m/new/f:create"}, m.events());
}

TEST_F(BoundPlace, WhatIsRemovedIsForgottenByBothPaths)
{
    watch();
    const uint32_t before = fmon.dcache.count;
    const uint32_t known = inode_index_count();
    for (int i = 0; i < 3; i++) {
        tree.dir("t/a/d");
        pump_all();
        EXPECT_EQ(before + 2, fmon.dcache.count);
        tree.remove("t/a/d");
        pump_all();
        EXPECT_EQ(before, fmon.dcache.count);
        EXPECT_EQ(known, inode_index_count());
    }
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

/* Each dentry that is in the way of a step may be freed by it. */
TEST_F(BoundPlace, EveryFailedCallLeavesTheTreeSound)
{
    watch();
    for (const char *call : {"open", "openat", "inotify_add_watch", "malloc", "calloc", "lstat"})
        for (int at = 1; at <= 4; at++) {
            tree.dir("t/a/d/e");
            {
                const Fault fault(call, at);
                pump_all();
            }
            move("t/a/d", "t/d");
            pump_all();
            tree.remove("t/d");
            pump_all();
            EXPECT_FALSE(cached(t + "/a/d")) << call << at;
            EXPECT_FALSE(cached(t + "/m/d")) << call << at;
            EXPECT_FALSE(cached(t + "/d")) << call << at;
        }
    EXPECT_NE(0U, kernel_mask(t + "/a"));
}

}  // namespace
