/*
 * What another user of the machine, who has no right over the monitor, can do to `fmon watch` that runs as root.
 */
#include "stranger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace systest;
using testlib::TempTree;

namespace
{

constexpr char kNeedsStranger[] = "needs root, and a folder of temporary files that others may enter";
constexpr char kNeedsNamespace[] = "needs user namespaces that anybody may make";

/* ---- he is what he is said to be ---- */

TEST(Stranger, HasNoRights)
{
    NEED(can_be_stranger(), kNeedsStranger);
    TempTree tree;
    std::string home = strangers_dir(tree, "home"), others = tree.file("others", "x");
    EXPECT_EQ(chmod(others.c_str(), 0644), 0);
    EXPECT_TRUE(run(as_stranger([&] {
        EXPECT_EQ(getuid(), kStranger);
        EXPECT_EQ(getgroups(0, nullptr), 0);
        make_file(home + "/mine");
        EXPECT_LT(open(others.c_str(), O_WRONLY), 0);
        EXPECT_LT(open("/etc/shadow", O_RDONLY), 0);
        EXPECT_NE(setuid(0), 0);
    })));
}

TEST(Stranger, MountsInHisNamespaceOnly)
{
    NEED(can_have_namespace(), kNeedsNamespace);
    TempTree tree;
    std::string home = strangers_dir(tree, "home"), there = home + "/there";
    EXPECT_TRUE(run(in_own_namespace([&] {
        make_dir(there);
        mount_tmpfs(there);
        make_dir(there + "/inside");
        bind_mount(home, there + "/inside");
        EXPECT_EQ(access((there + "/inside/there").c_str(), F_OK), 0);
        EXPECT_LT(open("/etc/shadow", O_RDONLY), 0);
    })));
    EXPECT_EQ(access(there.c_str(), F_OK), 0);
    EXPECT_NE(access((there + "/inside").c_str(), F_OK), 0);
}

/* What is checked in a child, and what does not end, reaches the test. */
TEST(Stranger, FailuresAndTimeLimitsAreSeen)
{
    EXPECT_FALSE(Background([] { ADD_FAILURE() << "on purpose"; }).wait());
    EXPECT_TRUE(Background([] {}).wait());
    Background endless([] { pause(); });
    EXPECT_FALSE(endless.wait(50));
    EXPECT_TRUE(endless.runs());
}

/* His lease holds up whoever opens the file without saying that he does not want to wait. */
TEST(Stranger, LeasesHoldUpOpening)
{
    NEED(can_be_stranger(), kNeedsStranger);
    TempTree tree;
    std::string home = strangers_dir(tree, "home"), file = home + "/leased";
    Child holder(as_stranger([&] {
        make_file(file);
        take_lease(file, F_WRLCK);
    }));
    EXPECT_LT(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC), 0);
    EXPECT_EQ(errno, EWOULDBLOCK);
}

}  // namespace
