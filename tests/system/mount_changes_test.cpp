/*
 * File systems that come and go below, at and above what is watched: each change is told, and what is waited for is
 * taken up again. In a mount namespace of its own.
 */
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include "harness.h"
#include "stranger.h"

using namespace systest;
using testlib::TempTree;

namespace
{

class MountChanges : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        own_mounts = unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    void SetUp() override
    {
        if (!own_mounts)
            GTEST_SKIP() << "needs root, for a mount namespace";
    }
    void TearDown() override
    {
        while (umount2(dir.c_str(), MNT_DETACH) == 0) {
        }
        umount2((dir + "/sub").c_str(), MNT_DETACH);
    }
    /* Makes files in a directory until one is told. */
    bool is_watched(Watch &watch, const std::string &directory)
    {
        return !watch.until_reported([&](int round) { make_file(directory + "/file" + std::to_string(round)); })
                    .empty();
    }

    static inline bool own_mounts = false;
    TempTree tree;
    std::string dir = tree.dir("dir");
};

TEST_F(MountChanges, AWatchedDirectoryIsCovered)
{
    Watch watch(dir, {"-e", "create"});
    watch.established();
    mount_tmpfs(dir);
    const Json ended = watch.next_of("ended");
    EXPECT_EQ(ended["path"], dir);
    EXPECT_EQ("covered", ended["reason"]);
    EXPECT_NE(0, watch.process().wait());
}

TEST_F(MountChanges, WhatIsWaitedForIsTakenUpAnew)
{
    Watch watch(dir, {"-r", "--wait", "-e", "create"});
    watch.established();
    mount_tmpfs(dir);
    EXPECT_EQ("covered", watch.next_of("ended")["reason"]);
    EXPECT_EQ(watch.next_of("appeared")["path"], dir);
    EXPECT_TRUE(is_watched(watch, dir));
    unmount(dir);
    EXPECT_EQ("unmounted", watch.next_of("ended")["reason"]);
    EXPECT_EQ(watch.next_of("appeared")["path"], dir);
    EXPECT_TRUE(is_watched(watch, dir));
    EXPECT_EQ(0, watch.stop());
}

TEST_F(MountChanges, AMountInsideATreeIsToldAndWatched)
{
    const std::string sub = tree.dir("dir/sub");
    Watch watch(dir, {"-r", "-e", "create,close_write"});
    watch.established();
    mount_tmpfs(sub);
    Json loss = watch.next_of("loss");
    EXPECT_EQ("watches", loss["source"]);
    EXPECT_EQ(loss["path"], sub);
    EXPECT_TRUE(is_watched(watch, sub));
    watch.barrier(sub);
    unmount(sub);
    loss = watch.next_of("loss");
    EXPECT_EQ(loss["path"], sub);
    EXPECT_TRUE(is_watched(watch, sub));
    watch.barrier(sub);
    EXPECT_EQ(0, watch.stop());
}

}  // namespace
