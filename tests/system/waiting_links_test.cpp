/*
 * Paths that are waited for, and patterns, where others may fill them: directories that are replaced, links.
 */
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "harness.h"
#include "stranger.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* Whether something below `path` is told within `ms`. */
bool tells(Watch &watch, const std::string &path, int ms = kPatienceMs)
{
    const int64_t deadline = now_ms() + ms;
    while (now_ms() < deadline)
        if (auto object = watch.next(300); object && object->value("path", "").rfind(path, 0) == 0)
            return true;
    return false;
}

bool said(Watch &watch, const std::string &text)
{
    for (int i = 0; i < kPatienceMs / 100 && watch.process().errors().find(text) == std::string::npos; i++)
        pause_ms(100);
    return watch.process().errors().find(text) != std::string::npos;
}

TEST(WaitingLinks, WhatIsMissingIsSaid)
{
    TempTree tree;
    const std::string there = tree.dir("there"), missing = tree.path("missing");
    Watch watch(there, {"--wait", "-e", "create", missing});
    const Json established = watch.established();
    EXPECT_EQ(established["paths"], Json::array({there}));
    EXPECT_EQ(established["missing"], Json::array({missing}));
    make_dir(missing);
    EXPECT_EQ(watch.next_of("appeared")["path"], missing);
    make_file(missing + "/f");
    EXPECT_TRUE(tells(watch, missing + "/f"));
    std::filesystem::remove_all(missing);
    const Json ended = watch.next_of("ended");
    EXPECT_EQ(ended["path"], missing);
    EXPECT_EQ("deleted", ended["reason"]);
    EXPECT_EQ(0, watch.stop());
}

TEST(WaitingLinks, ADirectoryAboveThatIsReplaced)
{
    TempTree tree;
    const std::string path = tree.dir("a/b");
    Watch watch(path, {"-r", "--wait", "-e", "create"});
    watch.established();
    move(tree.path("a"), tree.path("old"));
    tree.dir("a/b");
    EXPECT_EQ(watch.next_of("ended")["path"], path);
    EXPECT_EQ(watch.next_of("appeared")["path"], path);
    make_file(tree.path("old/b/unseen"));
    make_file(path + "/seen");
    auto event = watch.next();
    ASSERT_TRUE(event);
    EXPECT_EQ((*event)["path"], path + "/seen");
    EXPECT_EQ(std::nullopt, watch.next(1500));
    EXPECT_EQ(0, watch.stop());
}

/* Root's own links are followed, as they always were. */
TEST(WaitingLinks, ALinkOfOnesOwnIsFollowed)
{
    TempTree tree;
    const std::string target = tree.dir("target");
    Watch watch(tree.path("link"), {"--wait", "-e", "create"});
    watch.established();
    make_link(target, tree.path("link"));
    EXPECT_EQ(watch.next_of("appeared")["path"], tree.path("link"));
    make_file(target + "/f");
    EXPECT_TRUE(tells(watch, target + "/f"));
    remove_file(tree.path("link"));
    EXPECT_EQ(watch.next_of("ended")["path"], tree.path("link"));
    make_file(target + "/g");
    EXPECT_FALSE(tells(watch, target + "/g", 1500));
    EXPECT_EQ(0, watch.stop());
}

class StrangersLinks : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!can_be_stranger())
            GTEST_SKIP() << "needs root, and a directory of temporary files that others may enter";
        home = strangers_dir(tree, "home");
        secret = tree.dir("secret");
        tree.dir("secret/log");
    }

    TempTree tree;
    std::string home, secret;
};

TEST_F(StrangersLinks, AreNotFollowedByAWait)
{
    Watch watch(home + "/x/log", {"-r", "--wait", "-e", "create"});
    watch.established();
    EXPECT_TRUE(run(as_stranger([&] { make_link(secret, home + "/x"); })));
    EXPECT_TRUE(said(watch, home + "/x on the way belongs to user")) << watch.process().errors();
    make_file(secret + "/log/f");
    EXPECT_FALSE(tells(watch, tree.root(), 1500));
    EXPECT_TRUE(run(as_stranger([&] {
        remove_file(home + "/x");
        make_dir(home + "/x");
        make_dir(home + "/x/log");
    })));
    EXPECT_EQ(watch.next_of("appeared")["path"], home + "/x/log");
    EXPECT_EQ(0, watch.stop());
}

TEST_F(StrangersLinks, AreNotFollowedByAPattern)
{
    EXPECT_TRUE(run(as_stranger([&] {
        make_link(secret, home + "/x");
        make_dir(home + "/y");
        make_dir(home + "/y/log");
    })));
    Watch watch(home + "/*/log", {"-e", "create"});
    watch.established();
    EXPECT_TRUE(said(watch, home + "/x on the way belongs to user")) << watch.process().errors();
    make_file(secret + "/log/f");
    make_file(home + "/y/log/f");
    EXPECT_TRUE(tells(watch, home + "/y/log/f"));
    EXPECT_FALSE(tells(watch, tree.root(), 1500));
    EXPECT_EQ(0, watch.stop());
}

/* What is watched already does not become something else. */
TEST_F(StrangersLinks, DoNotTakeAWatchElsewhere)
{
    EXPECT_TRUE(run(as_stranger([&] {
        make_dir(home + "/x");
        make_dir(home + "/x/log");
    })));
    Watch watch(home + "/x/log", {"--wait", "-e", "create"});
    watch.established();
    EXPECT_TRUE(run(as_stranger([&] {
        move(home + "/x", home + "/old");
        make_link(secret, home + "/x");
    })));
    EXPECT_EQ(watch.next_of("ended")["path"], home + "/x/log");
    make_file(secret + "/log/f");
    EXPECT_TRUE(run(as_stranger([&] { make_file(home + "/old/log/f"); })));
    EXPECT_FALSE(tells(watch, tree.root(), 1500));
    EXPECT_EQ(0, watch.stop());
}

}  // namespace
