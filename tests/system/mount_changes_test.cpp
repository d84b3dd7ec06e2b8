/*
 * File systems that come and go below, at and above what is watched: each change is told, and what is waited for is
 * taken up again. In a mount namespace of its own.
 */
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>

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

    /* Makes files in an entry of the watched directory until one is told by the entry's own path. */
    bool comes_by(Watch &watch, const std::string &name)
    {
        const auto is_own = [&](const auto &entry) { return entry.first.starts_with(name + "/"); };
        const auto act = [&](int) { make_file(dir + "/" + name + "/new" + std::to_string(made++)); };
        for (const int64_t deadline = now_ms() + kPatienceMs; now_ms() < deadline;) {
            const Paths seen = watch.until_reported(act);
            if (std::any_of(seen.begin(), seen.end(), is_own))
                return true;
        }
        return false;
    }

    static inline bool own_mounts = false;
    int made = 0;
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
    Watch watch(dir, {"-r", "--source", "marks", "-e", "create,close_write"});
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

/* By marks a directory that is bound inside its tree has one inotify watch for both paths. Whichever a walk comes to
 * first, the directory keeps that watch when the bind mount goes. */
TEST_F(MountChanges, ADirectoryOutlivesItsBindMount)
{
    mount_tmpfs(dir); /* lists what was made last first */
    const std::string both_orders[][2] = {{"one", "point of one"}, {"two", "point of two"}};
    for (const char *name : {"one", "point of one", "point of two", "two"})
        tree.dir(std::string("dir/") + name);
    Watch watch(dir, {"-r", "-e", "create"});
    watch.established();
    watch.losses_are_due(); /* mounts come and go */
    for (const auto &[bound, point] : both_orders) {
        bind_mount(dir + "/" + bound, dir + "/" + point);
        EXPECT_TRUE(comes_by(watch, point));
    }
    for (const auto &[bound, point] : both_orders) {
        unmount(dir + "/" + point);
        EXPECT_TRUE(comes_by(watch, point)) << "the walk has been there";
        EXPECT_TRUE(comes_by(watch, bound));
    }
    EXPECT_EQ(0, watch.stop());
}

}  // namespace
