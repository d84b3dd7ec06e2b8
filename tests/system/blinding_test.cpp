/*
 * What others on the machine can do to make the monitor blind, or to make it watch what it should not: afterwards the
 * kernel's lists of marks hold exactly the watched directories, and each of them reports.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "harness.h"
#include "marks.h"
#include "orx_fmon.h"
#include "stranger.h"

using namespace systest;
using testlib::TempTree;

namespace fs = std::filesystem;

namespace
{

constexpr uint32_t kKinds = FMON_CREATE | FMON_MODIFY | FMON_CLOSE_WRITE;
const std::vector<std::string> kArguments = {"-r", "-e", "create,modify,close_write"};

using Lines = std::vector<std::string>;

/* Waits until the process is marked for the tree and nothing else; what is wrong at the end. */
Lines wrong_marks(pid_t pid, const std::string &root)
{
    Lines wrong;
    if (by_filesystem()) /* one mark for all of them */
        return wrong;
    for (int64_t end = now_ms() + kPatienceMs; now_ms() < end; pause_ms(50)) {
        wrong = compare_marks(expected_marks({{root, kKinds, FMON_DIR | FMON_RECURSIVE}}), actual_marks(pid), "/");
        if (wrong.empty())
            break;
    }
    return wrong;
}

/* What was told so far, losses and all. */
void pass_over(Watch &watch)
{
    while (watch.process().line(300)) {
    }
}

/* Every directory is marked, nothing else is, and a file made in each is told by its path. */
void expect_all_seen(Watch &watch, const std::string &root)
{
    pass_over(watch);
    EXPECT_EQ(Lines(), wrong_marks(watch.process().pid(), root));
    for (const std::string &dir : directories(root))
        make_file(dir + "/seen");
    Paths seen = watch.barrier(root);
    for (const std::string &dir : directories(root))
        EXPECT_TRUE(seen[(dir + "/seen").substr(root.size() + 1)].count("close_write")) << dir;
}

/* From now on this program, and what it starts, mounts for itself. */
void have_own_mounts()
{
    ASSERT_EQ(0, unshare(CLONE_NEWNS));
    ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
}

class Blinding : public ::testing::Test
{
protected:
    void SetUp() override
    {
        NEED(testlib::is_root(), "marks need root");
        NEED(testlib::can_fanotify(), "marks need fanotify");
    }
    static std::string parent_of(const std::string &path) { return path.substr(0, path.rfind('/')); }
    TempTree tree;
};

TEST_F(Blinding, AWriteThroughABindMountTakesNoMark)
{
    NEED(testlib::can_mount(), "needs a mount namespace");
    std::string a = tree.dir("x/a"), b = tree.dir("y/b");
    make_file(a + "/f");
    have_own_mounts();
    Watch watch(tree.path("x"), kArguments);
    watch.established();
    bind_mount(a, b);
    append_file(b + "/f");
    pause_ms(200);
    expect_all_seen(watch, tree.path("x"));
    unmount(b);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

TEST_F(Blinding, AWriteThroughAHardLinkTakesNoMark)
{
    std::string f = tree.file("x/f"), other = tree.dir("y") + "/g";
    Watch watch(f, {"-e", "modify,close_write"});
    watch.established();
    hard_link(f, other);
    append_file(other);
    pass_over(watch);
    append_file(f);
    auto event = watch.next();
    ASSERT_TRUE(event);
    EXPECT_EQ((*event)["path"], f);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

/* What he shows as the path of the file is, for the monitor, a way through his link to the file itself. */
TEST_F(Blinding, AStrangersNamespaceTakesNoMark)
{
    NEED(can_be_stranger() && can_have_namespace(), "needs a stranger with namespaces");
    std::string home = strangers_dir(tree, "home");
    std::string w = tree.dir("w");
    tree.dir("w/d");
    make_file(w + "/d/f"), make_file(w + "/f");
    for (const char *below : {"/d/f", "/f"})
        change_mode(w + below, 0644);
    change_mode(w, 0755), change_mode(w + "/d", 0755);
    Watch file(w + "/f", {"-e", "open,close_write"}), directory(w, {"-r", "-e", "create,modify,open,close_write"});
    file.established(), directory.established();
    make_link(w, home + "/t"), make_link(tree.root(), home + "/u");
    run(in_own_namespace([&] {
        mount_tmpfs(home);
        make_dir(home + "/t"), make_dir(home + "/u"), make_dir(home + "/u/w");
        make_file(home + "/t/f");
        bind_mount(w + "/f", home + "/t/f");
        bind_mount(w, home + "/u/w");
        for (int i = 0; i < 20; i++) {
            read_file(home + "/t/f");
            read_file(home + "/u/w/f");
            read_file(home + "/u/w/d/f");
        }
    }));
    pass_over(file);
    append_file(w + "/f");
    auto event = file.next();
    ASSERT_TRUE(event) << "the watched file is deaf";
    EXPECT_EQ((*event)["path"], w + "/f");
    pass_over(directory);
    EXPECT_EQ(Lines(), wrong_marks(directory.process().pid(), w));
    append_file(w + "/d/f");
    event = directory.next();
    ASSERT_TRUE(event) << "the watched directory is deaf";
    EXPECT_EQ(0, file.stop()) << file.process().errors();
    EXPECT_EQ(0, directory.stop()) << directory.process().errors();
}

/* The name of a directory that was read becomes a link to somewhere else before it is marked or entered. */
TEST_F(Blinding, NothingOutsideIsEverWatched)
{
    NEED(can_be_stranger(), "needs a stranger");
    std::string home = strangers_dir(tree, "home"), outside = tree.dir("outside");
    for (int i = 0; i < 30; i++)
        tree.dir("outside/usr/" + std::to_string(i) + "/deep");
    change_mode(tree.root(), 0755);
    Watch watch(home, kArguments);
    watch.established();
    run(as_stranger([&] {
        for (int i = 0; i < 200; i++) {
            std::string a = home + "/a" + std::to_string(i % 7);
            make_dir(a), make_dir(a + "/usr");
            move(a, home + "/b" + std::to_string(i));
            make_link(outside, a);
            systest::exchange(a, home + "/b" + std::to_string(i));
            systest::exchange(a, home + "/b" + std::to_string(i));
            remove_file(a);
        }
    }));
    expect_all_seen(watch, home);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

TEST_F(Blinding, ChurnWithExchangeLeavesEveryDirectoryWatched)
{
    std::string t = tree.dir("t");
    std::vector<std::string> names;
    for (int i = 0; i < 8; i++)
        for (int j = 0; j < 4; j++) {
            std::string own = "/d" + std::to_string(i) + "/e" + std::to_string(j);
            tree.dir("t" + own + "/of" + std::to_string(i * 4 + j));
            names.push_back(t + own);
        }
    Watch watch(t, kArguments);
    if (probes_work()) /* records of several processors may come behind the end of what they are about */
        watch.losses_are_due();
    watch.established();
    std::mt19937 random(7);
    for (int i = 0; i < 400; i++) {
        const std::string &one = names[random() % names.size()], &other = names[random() % names.size()];
        if (one == other)
            continue;
        systest::exchange(one, other);
        if (i % 3 == 0 && parent_of(one) != parent_of(other))
            systest::exchange(parent_of(one), parent_of(other));
    }
    expect_all_seen(watch, t);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

TEST_F(Blinding, AHundredMovesLeaveAsManyMarks)
{
    std::string t = tree.dir("t"), away = tree.dir("away");
    Watch watch(t, kArguments);
    watch.established();
    for (int i = 0; i < 100; i++) {
        std::string made = tree.dir("made");
        for (int j = 0; j < 20; j++)
            tree.dir("made/" + std::to_string(j) + "/x");
        move(made, t + "/in");
        pause_ms(10);
        move(t + "/in", away + "/" + std::to_string(i));
    }
    expect_all_seen(watch, t);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

/* With room for 300 directories in the cache. */
TEST_F(Blinding, WhatCannotBeWatchedTakesNoRoom)
{
    std::string t = tree.dir("t"), deep = "/in";
    while (t.size() + deep.size() < 900)
        deep += "/" + std::string(100, 'd');
    Watch watch(t, {"-r", "-e", "create,modify,close_write", "--set", "max_dentries=300"});
    watch.losses_are_due(); /* of directories that lie too deep */
    watch.established();
    for (int round = 0; round < 3; round++) {
        std::string made = tree.dir("made");
        fs::create_directories(tree.root() + "/made" + deep.substr(3));
        int at = open((tree.root() + "/made" + deep.substr(3)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (int i = 0; i < 200; i++)
            ASSERT_EQ(0, mkdirat(at, (std::string(200, 'x') + std::to_string(i)).c_str(), 0755));
        close(at);
        move(made, t + "/in");
        pass_over(watch);
        ASSERT_EQ(0, system(("rm -rf '" + t + "/in'").c_str()));
    }
    for (int i = 0; i < 100; i++) {
        make_dir(t + "/n" + std::to_string(i));
    }
    expect_all_seen(watch, t);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

TEST_F(Blinding, ADirectoryMadeAgainWhileItIsHeldIsWatched)
{
    std::string d = tree.dir("d");
    Watch watch(d, {"-e", "create,modify,close_write", "--set", "tbd_interval=1000"});
    watch.established();
    int held = open(d.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    remove_dir(d);
    make_dir(d);
    Paths seen = watch.until_reported([&](int round) { make_file(d + "/f" + std::to_string(round)); });
    EXPECT_FALSE(seen.empty());
    close(held);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

TEST_F(Blinding, AFileReplacedByARenameIsWatchedAgain)
{
    std::string f = tree.file("f"), fresh = tree.path("fresh");
    Watch watch(f, {"--wait", "-e", "modify,close_write"});
    watch.established();
    int held = -1;
    for (bool is_held : {false, true}) {
        if (is_held)
            held = open(f.c_str(), O_RDONLY | O_CLOEXEC);
        make_file(fresh);
        move(fresh, f);
        Paths seen = watch.until_reported([&](int) { append_file(f); });
        EXPECT_FALSE(seen.empty()) << is_held;
        pass_over(watch);
    }
    close(held);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

}  // namespace
