/* No directory stays blind: after an overflow, and once there is room for what there was none for. */
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>

#include "harness.h"
#include "stranger.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* More than the kernel's queue holds. */
int beyond_the_queue()
{
    int limit = 16384;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    return limit + 1000;
}

class StandingStill
{
public:
    explicit StandingStill(Watch &watch) : watch_(watch)
    {
        watch_.process().send(SIGSTOP);
        EXPECT_EQ(watch_.process().pid(), waitpid(watch_.process().pid(), nullptr, WUNTRACED));
    }
    ~StandingStill() { watch_.process().send(SIGCONT); }
    StandingStill(const StandingStill &) = delete;
    StandingStill &operator=(const StandingStill &) = delete;

private:
    Watch &watch_;
};

/* Fills the queue with links that come and go. */
void overflow(const std::string &dir)
{
    const int records = beyond_the_queue();
    make_file(dir + "/noise");
    for (int i = 0; i < records; i += 2) {
        hard_link(dir + "/noise", dir + "/noise" + std::to_string(i));
        remove_file(dir + "/noise" + std::to_string(i));
    }
    remove_file(dir + "/noise");
}

/* The paths of the creations that come until there are `count` of the prefix `name`. */
Names created(Watch &watch, const std::string &name, size_t count)
{
    Names found;
    while (found.size() < count) {
        const auto object = watch.next();
        if (!object) {
            ADD_FAILURE() << "only " << found.size() << " of " << count << "; " << watch.process().errors();
            break;
        }
        const std::string path = object->value("path", "");
        if ((*object)["type"] == "event" && path.find("/" + name) != std::string::npos)
            found.insert(path);
    }
    return found;
}

}  // namespace

TEST(Resync, AfterAnOverflowEveryDirectoryIsWatched)
{
    TempTree tree;
    tree.dir("old/deep");
    tree.dir("gone/below");
    tree.dir("moved/below");
    Watch watch(tree.root(), {"-r", "--source", "marks", "--probes", "off", "-e", "create"});
    watch.losses_are_due();
    watch.established();
    constexpr int kTrees = 20;
    {
        const StandingStill still(watch);
        overflow(tree.path("old"));
        for (int i = 0; i < kTrees; i++)
            tree.dir("old/t" + std::to_string(i) + "/a/b");
        tree.remove("gone");
        move(tree.path("moved"), tree.path("old/here"));
    }
    EXPECT_EQ("inotify", watch.next_of("loss")["source"]);
    const Json whole = watch.next_of("resynced");
    EXPECT_EQ(whole["paths"], Json::array({tree.root()})) << whole;
    EXPECT_EQ(whole["directories"], kTrees * 3 + 2) << whole;
    Names want;
    for (int i = 0; i < kTrees; i++)
        for (const char *below : {"", "/a", "/a/b"})
            want.insert(tree.path("old/t" + std::to_string(i) + below + "/seen"));
    for (const char *dir : {"", "old/", "old/deep/", "old/here/", "old/here/below/"})
        want.insert(tree.path(std::string(dir) + "seen"));
    for (const std::string &path : want)
        make_file(path);
    EXPECT_EQ(want, created(watch, "seen", want.size()));
    EXPECT_EQ(0, watch.stop());
}

/* The same by fanotify, which reports writes: its marks follow, too. */
TEST(Resync, AfterAnOverflowWritesAreSeenAgain)
{
    NEED(testlib::can_fanotify(), "fanotify is for root");
    TempTree tree;
    Watch watch(tree.root(), {"-r", "--source", "marks", "--probes", "off", "-e", "create,close_write"});
    watch.losses_are_due();
    watch.established();
    {
        const StandingStill still(watch);
        overflow(tree.root());
        tree.dir("a/b");
    }
    watch.next_of("loss");
    watch.next_of("resynced");
    Child writer([&] { make_file(tree.path("a/b/f")); });
    for (Json event = watch.next_of("event");; event = watch.next_of("event"))
        if (event["path"] == tree.path("a/b/f") && event["events"].dump().find("close_write") != std::string::npos) {
            EXPECT_EQ(event["pid"], writer.pid());
            break;
        }
    EXPECT_EQ(0, watch.stop());
}

/* With a mark of the whole file system: the kernel's queue has its limit, or what waits here has a low ceiling. */
class ResyncOfAFileSystem : public testing::TestWithParam<const char *>
{
};
INSTANTIATE_TEST_SUITE_P(Limits, ResyncOfAFileSystem, testing::Values("fs_queue=1", "fs_memory_kib=64"));

TEST_P(ResyncOfAFileSystem, NoDirectoryIsBlindAfterALoss)
{
    NEED(testlib::can_fanotify(), "marks of file systems are for root");
    TempTree tree;
    for (const char *dir : {"a", "b", "c"})
        tree.dir(dir);
    Watch watch(tree.root(), {"-r", "--source", "filesystem", "--set", GetParam(), "-e", "create"});
    watch.losses_are_due();
    watch.established();
    Names want;
    {
        const StandingStill still(watch);
        for (const char *dir : {"a", "b", "c"})
            overflow(tree.path(dir));
        for (int i = 0; i < 20; i++)
            tree.dir("c/t" + std::to_string(i) + "/x/y");
    }
    /* While what waited is read there may be further losses: the last word is what counts. */
    std::vector<std::string> words;
    while (const auto record = watch.next(words.empty() || words.back() != "resynced " ? kPatienceMs : 2000))
        if (const std::string type = record->value("type", ""); type != "event")
            words.push_back(type + " " + record->value("source", ""));
    ASSERT_LE(2u, words.size());
    /* With a low ceiling the records that say where a directory lies may not fit, either: a loss of the table. */
    EXPECT_TRUE(words.front() == "loss filesystem" || words.front() == "loss table") << words.front();
    EXPECT_EQ("resynced ", words.back());
    for (int i = 0; i < 20; i++)
        for (const char *below : {"", "/x", "/x/y"})
            want.insert(tree.path("c/t" + std::to_string(i) + below + "/seen"));
    for (const std::string &path : want)
        make_file(path);
    EXPECT_EQ(want, created(watch, "seen", want.size()));
    EXPECT_EQ(0, watch.stop());
}

TEST(Resync, SecondOverflowIsMendedToo)
{
    TempTree tree;
    Watch watch(tree.root(), {"-r", "--source", "marks", "--probes", "off", "-e", "create"});
    watch.losses_are_due();
    watch.established();
    for (int round = 0; round < 2; round++) {
        const std::string name = "r" + std::to_string(round);
        {
            const StandingStill still(watch);
            overflow(tree.root());
            tree.dir(name + "/a");
        }
        watch.next_of("loss");
        EXPECT_EQ(2, watch.next_of("resynced")["directories"]);
        make_file(tree.path(name + "/a/seen" + name));
        EXPECT_EQ(Names{tree.path(name + "/a/seen" + name)}, created(watch, "seen" + name, 1));
    }
    EXPECT_EQ(0, watch.stop());
}

/* A full cache that has room again: nothing but the directories says so. */
TEST(Resync, WhatFoundNoRoomIsWatchedWhenThereIsSome)
{
    TempTree tree;
    Watch watch(tree.root(),
                {"-r", "--source", "marks", "--probes", "off", "--set", "max_dentries=24", "-e", "create"});
    watch.losses_are_due();
    watch.established();
    for (int i = 0; i < 40; i++)
        make_dir(tree.path("d" + std::to_string(i)));
    EXPECT_EQ("watches", watch.next_of("loss")["source"]);
    for (int i = 0; i < 25; i++)
        remove_dir(tree.path("d" + std::to_string(i)));
    EXPECT_GE(watch.next_of("resynced")["directories"].number(), 1);
    Names want;
    for (int i = 25; i < 40; i++)
        want.insert(tree.path("d" + std::to_string(i) + "/seen"));
    for (const std::string &path : want)
        make_file(path);
    EXPECT_EQ(want, created(watch, "seen", want.size()));
    EXPECT_EQ(0, watch.stop());
}

void limit_watches(int number)
{
    std::ofstream limit("/proc/sys/user/max_inotify_watches");
    limit << number << std::flush;
    EXPECT_TRUE(limit.good()) << number;
}

/* The limit is one of a user namespace of the test's own, so that nobody else runs into it. */
TEST(Resync, WhatFoundNoWatchIsWatchedWhenTheLimitIsRaised)
{
    NEED(can_have_namespace(), "needs user namespaces");
    TempTree tree;
    const std::string home = strangers_dir(tree, "home"), scratch = strangers_dir(tree, "scratch");
    EXPECT_TRUE(run(in_own_namespace([&] {
                        setenv("TMPDIR", scratch.c_str(), 1);
                        limit_watches(20);
                        Watch watch(home, {"-r", "--source", "marks", "--probes", "off", "-e", "create"});
                        watch.losses_are_due();
                        watch.established();
                        Names want;
                        for (int i = 0; i < 40; i++) {
                            make_dir(home + "/d" + std::to_string(i));
                            want.insert(home + "/d" + std::to_string(i) + "/seen");
                        }
                        EXPECT_EQ("watches", watch.next_of("loss")["source"]);
                        limit_watches(1000);
                        EXPECT_GE(watch.next_of("resynced")["directories"].number(), 20);
                        for (const std::string &path : want)
                            make_file(path);
                        EXPECT_EQ(want, created(watch, "seen", want.size()));
                        EXPECT_EQ(0, watch.stop());
                    }),
                    60000));
}

/* Directories that could not be read are walked by the path that was lost. */
TEST(Resync, WhatMayBeReadByNowIsSaidToBeWatched)
{
    NEED(can_be_stranger(), "needs root, and a directory of temporary files that others may enter");
    TempTree tree;
    const std::string home = strangers_dir(tree, "home"), scratch = strangers_dir(tree, "scratch");
    EXPECT_TRUE(run(as_stranger([&] {
                        setenv("TMPDIR", scratch.c_str(), 1);
                        make_dir(home + "/closed");
                        make_dir(home + "/closed/below");
                        change_mode(home + "/closed", 0);
                        Watch watch(home, {"-r", "-e", "create"});
                        watch.losses_are_due();
                        watch.established();
                        EXPECT_EQ(watch.next_of("loss")["path"], home + "/closed");
                        change_mode(home + "/closed", 0700);
                        const Json whole = watch.next_of("resynced");
                        EXPECT_EQ(whole["paths"], Json::array({home + "/closed"})) << whole;
                        EXPECT_EQ(2, whole["directories"]) << whole;
                        EXPECT_EQ(0, watch.stop());
                    }),
                    60000));
}
