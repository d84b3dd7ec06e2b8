/*
 * Paths that are waited for: picked up when they appear, waited for again when they go, as often as it happens.
 */
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <filesystem>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* Makes files in `dir` until one is reported; whether that happened, and that only such files were. */
void expect_watched(Watch &watch, const std::string &dir, const std::string &prefix)
{
    Paths seen = watch.until_reported([&](int round) { make_file(dir + "/" + prefix + std::to_string(round)); });
    EXPECT_FALSE(seen.empty()) << dir << " is not watched";
    for (const auto &[path, kinds] : seen)
        EXPECT_NE(path.find(prefix), std::string::npos) << path;
}

TEST(Waiting, ForADirectoryAgainAndAgain)
{
    TempTree tree;
    std::string dir = tree.path("dir");
    Watch watch(dir, {"-r", "--wait", "-e", "create"});
    watch.established();
    for (int i = 0; i < 3; i++) {
        SCOPED_TRACE(i);
        make_dir(dir);
        expect_watched(watch, dir, "f" + std::to_string(i) + "-");
        std::filesystem::remove_all(dir);
        while (watch.next(300)) {
        }
    }
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

TEST(Waiting, ForADirectoryThatIsMovedAway)
{
    TempTree tree;
    std::string dir = tree.dir("dir"), away = tree.path("away");
    Watch watch(dir, {"-r", "--wait", "-e", "create,move_self"});
    watch.established();
    expect_watched(watch, dir, "a");
    move(dir, away);
    while (watch.next(300)) {
    }
    make_file(away + "/unseen");
    EXPECT_EQ(std::nullopt, watch.next(500));
    make_dir(dir);
    expect_watched(watch, dir, "b");
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

TEST(Waiting, ForADirectoryBelowMissingParents)
{
    TempTree tree;
    std::string dir = tree.path("a/b/c");
    Watch watch(dir, {"-r", "--wait", "-e", "create"});
    watch.established();
    std::filesystem::create_directories(dir);
    expect_watched(watch, dir, "f");
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

/* Everything that a pattern matches, now or later. */
TEST(Waiting, ForWhatAPatternMatches)
{
    TempTree tree;
    tree.dir("one/log");
    tree.dir("other/tmp");
    Watch watch(tree.path("*/log"), {"-e", "create"});
    watch.established();
    expect_watched(watch, tree.path("one/log"), "f");
    for (int i = 0; i < 2; i++) {
        SCOPED_TRACE(i);
        std::string log = tree.dir("two/log");
        expect_watched(watch, log, "g" + std::to_string(i));
        std::filesystem::remove_all(log);
        while (watch.next(300)) {
        }
    }
    expect_watched(watch, tree.path("one/log"), "h");
    make_file(tree.path("other/tmp/unseen"));
    EXPECT_EQ(std::nullopt, watch.next(1500));
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

/* Found once, watched once: one file gives one event although the pattern has been looked up many times. */
TEST(Waiting, WatchesAMatchOnce)
{
    TempTree tree;
    std::string log = tree.dir("one/log");
    Watch watch(tree.path("*/log"), {"-e", "create"});
    watch.established();
    expect_watched(watch, log, "f");
    pause_ms(3000);
    make_file(log + "/single");
    auto event = watch.next();
    ASSERT_TRUE(event);
    EXPECT_EQ((*event)["path"], log + "/single");
    EXPECT_EQ(std::nullopt, watch.next(1500));
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

}  // namespace
