/* Mounts below directories that are watched by events of whole file systems: they come, go and change places. */
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "file_systems.h"

using namespace systest;

namespace
{

TEST_F(FileSystems, AMountThatComesLaterIsWatched)
{
    Watch watch(tree.root(), with({"-e", "create,close_write"}));
    watch.losses_are_due(); /* what was mounted a moment ago */
    watch.established();
    mount_new();
    EXPECT_TRUE(is_watched(watch, mounted));
    make_dir(mounted + "/d");
    make_file(mounted + "/d/f");
    EXPECT_EQ(paths({{"mounted/d", "create"}, {"mounted/d/f", "create,close_write"}}), watch.barrier(tree.root()));
    expect_processes(watch);
    EXPECT_EQ(0, watch.stop());
}

TEST_F(FileSystems, NothingKeepsAFileSystemBusyAndItsMarkComesBack)
{
    mount_new();
    Watch watch(tree.root(), with({"-e", "create"}));
    watch.losses_are_due();
    watch.established();
    for (int round = 0; round < 3; round++) {
        EXPECT_TRUE(is_watched(watch, mounted)) << round;
        int error = EBUSY;
        for (int i = 0; i < 100 && error == EBUSY; i++) { /* a question of the monitor takes less than that */
            error = umount(mounted.c_str()) == 0 ? 0 : errno;
            pause_ms(error == EBUSY ? 1 : 0);
        }
        EXPECT_EQ(0, error) << round;
        mount_new();
    }
    EXPECT_EQ(0, watch.stop());
}

/* The fixture fails where a loss is told. */
TEST_F(FileSystems, NothingIsLostWhenAMountGoes)
{
    mount_new();
    Watch watch(tree.root(), with({"-e", "create"}));
    watch.established();
    for (int i = 0; i < 10; i++)
        make_file(mounted + "/f" + std::to_string(i));
    ASSERT_EQ(0, umount(mounted.c_str())) << strerror(errno);
    const Paths inside = watch.barrier(tree.root(), {"create"});
    EXPECT_EQ(10u, inside.size());
    EXPECT_EQ(1u, inside.count("mounted/f9"));
    make_file(mounted + "/covered");
    EXPECT_EQ(paths({{"mounted/covered", "create"}}), watch.barrier(tree.root(), {"create"}));
    pause_ms(300); /* the command looks at the mounts in its own time */
    EXPECT_EQ(Paths(), watch.barrier(tree.root(), {"create"}));
    EXPECT_EQ(0, watch.stop());
}

/* Directories come from outside, where nobody looks: the kernel is asked about each, by way of each mount. */
void bring_directories(const std::string &from, const std::string &to)
{
    for (int i = 0;; i++) {
        const std::string name = "/d" + std::to_string(i);
        make_dir(from + name);
        make_dir(from + name + "/e");
        move(from + name + "/e", to + name);
        make_file(to + name + "/f");
        std::filesystem::remove_all(to + name);
        remove_dir(from + name);
    }
}

TEST_F(FileSystems, NoUnmountIsRefusedAndNoPathOutlivesTheMount)
{
    mount_new();
    const std::string outside = mounted + "/outside", top = mounted + "/tree", other = top + "/other";
    for (const std::string &dir : {outside, top, other})
        make_dir(dir);
    Watch watch(top, with({"-e", "create", "--set", "fs_directories=16"}));
    watch.losses_are_due();
    watch.established();
    int refused = 0;
    for (int round = 0; round < 3; round++) {
        const std::string data = outside + "/data" + std::to_string(round);
        make_dir(data);
        bind_mount(data, other);
        ASSERT_TRUE(is_watched(watch, other)) << round;
        {
            const std::string from = outside + "/from" + std::to_string(round);
            make_dir(from);
            const Background churn([&] { bring_directories(from, data); });
            for (int i = 0; i < 50; i++) {
                pause_ms(10);
                while (umount(other.c_str()) != 0 && ++refused)
                    ASSERT_EQ(EBUSY, errno) << round << ", " << i;
                bind_mount(data, other);
            }
        }
        unmount(other);
        watch.barrier(top, {"create"}); /* what is left of the churn */
        const int64_t end = now_ms() + kPatienceMs;
        bool silent = false;
        for (int i = 0; !silent && now_ms() < end; i++) {
            make_file(data + "/r" + std::to_string(i));
            silent = watch.barrier(top, {"create"}).empty();
        }
        ASSERT_TRUE(silent) << round;
    }
    EXPECT_LE(refused, 3) << "of 150"; /* while a system call of anybody looks at the path */
    EXPECT_EQ(0, watch.stop());
}

/* The mount's number, path and file system are those of the one before. */
TEST_F(FileSystems, AnotherDirectoryIsBoundAtOnceAtTheSamePath)
{
    const std::string one = tree.dir("one"), two = tree.dir("two"), other = tree.dir("other");
    bind_mount(one, other);
    Watch watch(tree.root(), with({"-e", "create"}));
    watch.losses_are_due();
    watch.established();
    make_file(one + "/f");
    EXPECT_EQ(paths({{"one/f", "create"}, {"other/f", "create"}}), watch.barrier(tree.root(), {"create"}));
    watch.process().send(SIGSTOP);
    unmount(other);
    bind_mount(two, other);
    watch.process().send(SIGCONT);
    bool both = false;
    const int64_t end = now_ms() + kPatienceMs;
    for (int i = 0; !both && now_ms() < end; i++) {
        const std::string name = "/g" + std::to_string(i);
        make_file(two + name);
        both = watch.barrier(tree.root(), {"create"}).count("other" + name) > 0;
    }
    EXPECT_TRUE(both);
    make_file(one + "/h");
    EXPECT_EQ(paths({{"one/h", "create"}}), watch.barrier(tree.root(), {"create"}));
    unmount(other);
    EXPECT_EQ(0, watch.stop());
}

/* Of the churn nothing is reported, and all is read. */
TEST_F(FileSystems, MountsAreHeededWhileRecordsComeWithoutAPause)
{
    const std::string top = tree.dir("tree"), point = tree.dir("tree/point"), outside = tree.dir("outside");
    Watch watch(top, with({"-e", "create"}));
    watch.losses_are_due();
    watch.established();
    const Background churn([&] {
        for (;;) {
            make_file(outside + "/f");
            remove_file(outside + "/f");
        }
    });
    for (int round = 0; round < 3; round++) {
        const std::string data = tree.dir("data" + std::to_string(round));
        bind_mount(data, point);
        EXPECT_TRUE(is_watched(watch, data)) << round;
        unmount(point);
    }
    EXPECT_EQ(0, watch.stop());
}

TEST_F(FileSystems, WhatIsMountedTwiceHasBothPaths)
{
    const std::string data = tree.dir("data"), other = tree.dir("other");
    Watch watch(tree.root(), with({"-e", "create"}));
    watch.losses_are_due();
    watch.established();
    bind_mount(data, other);
    bool both = false;
    watch.until_reported([&](int round) { make_file(data + "/f" + std::to_string(round)); });
    for (int round = 0; round < 100 && !both; round++) {
        const std::string name = "g" + std::to_string(round);
        make_file(other + "/" + name);
        const Paths seen = watch.barrier(tree.root(), {"create"});
        both = seen.count("data/" + name) && seen.count("other/" + name);
    }
    EXPECT_TRUE(both);
    unmount(other);
    EXPECT_EQ(0, watch.stop());
}

TEST_F(FileSystems, WhatIsDoneThroughAnotherMountHasTheWatchedPath)
{
    const std::string data = tree.dir("watched/data"), elsewhere = tree.dir("elsewhere");
    bind_mount(data, elsewhere);
    Watch watch(tree.path("watched"), with({"-e", "create,close_write"}));
    watch.established();
    make_file(elsewhere + "/f");
    EXPECT_EQ(paths({{"data/f", "create,close_write"}}), watch.barrier(tree.path("watched")));
    unmount(elsewhere);
    EXPECT_EQ(0, watch.stop());
}

TEST_F(FileSystems, AnotherNamespacesMountsHaveTheWatchedPath)
{
    const std::string data = tree.dir("data"), over = tree.dir("over");
    Watch watch(tree.root(), with({"-e", "create"}));
    watch.established();
    EXPECT_TRUE(run([&] {
        ASSERT_EQ(0, unshare(CLONE_NEWNS)) << strerror(errno);
        bind_mount(data, over);
        make_file(over + "/f");
    }));
    EXPECT_EQ(paths({{"data/f", "create"}}), watch.barrier(tree.root(), {"create"}));
    EXPECT_EQ(0, watch.stop());
}

/* A directory above a mount point is renamed: the mount goes with it. */
TEST_F(FileSystems, PathsOfAMountFollowTheDirectoriesAbove)
{
    tree.dir("a/b");
    ASSERT_EQ(0, mount("fmon-test", tree.path("a/b").c_str(), "tmpfs", 0, nullptr));
    Watch watch(tree.root(), with({"-e", "create"}));
    watch.established();
    make_file(tree.path("a/b/f"));
    move(tree.path("a"), tree.path("z"));
    make_file(tree.path("z/b/g"));
    EXPECT_EQ(paths({{"a/b/f", "create"}, {"z/b/g", "create"}}), watch.barrier(tree.root(), {"create"}));
    unmount(tree.path("z/b"));
    EXPECT_EQ(0, watch.stop());
}

/* An overlay has no mark as a whole; below a watch its directories have one each. */
TEST_F(FileSystems, AnOverlayBelowIsMarkedByDirectories)
{
    mount_new();
    const std::string m = mounted + "/";
    for (const char *name : {"lower", "upper", "work", "seen"})
        make_dir(m + name);
    make_dir(m + "lower/d");
    const std::string options = "lowerdir=" + m + "lower,upperdir=" + m + "upper,workdir=" + m + "work";
    const std::string seen = tree.dir("tree/overlay");
    if (mount("fmon-test", seen.c_str(), "overlay", 0, options.c_str()) != 0)
        GTEST_SKIP() << "no overlays here";
    Watch watch(tree.path("tree"), {"-r", "--source", "auto", "-e", "create"});
    const Json first = watch.established();
    EXPECT_EQ("both", first["source"]) << first;
    make_file(seen + "/d/f");
    make_file(tree.path("tree/g"));
    EXPECT_TRUE(is_watched(watch, seen + "/d"));
    unmount(seen);
    watch.stop();
}

/* On the file system below, the kernel says that a device came by a rename. */
TEST_F(FileSystems, WhatAnOverlayHidesIsDeletedInItsUpperDirectory)
{
    mount_new();
    const std::string m = mounted + "/", seen = tree.dir("overlay");
    for (const char *name : {"lower", "upper", "work", "lower/d"})
        make_dir(m + name);
    for (const char *name : {"lower/f", "lower/d/g"})
        make_file(m + name);
    const std::string options = "lowerdir=" + m + "lower,upperdir=" + m + "upper,workdir=" + m + "work";
    if (mount("fmon-test", seen.c_str(), "overlay", 0, options.c_str()) != 0)
        GTEST_SKIP() << "no overlays here";
    Watch watch(m + "upper", with({"-e", "create,delete,moved_from,moved_to"}));
    watch.established();
    remove_file(seen + "/f");
    Paths told = watch.barrier(m + "upper", {"create"});
    EXPECT_EQ(names("delete"), told["f"]);
    make_file(seen + "/f");
    EXPECT_TRUE(watch.barrier(m + "upper", {"create"}).count("f")) << "is there again";
    unmount(seen);
    EXPECT_EQ(0, watch.stop());
}

/* An image and its copy: records of both name the same file system and the same handles. */
TEST_F(FileSystems, OfTwoFileSystemsWithOneIdOneHasMarksOnDirectories)
{
    const std::string one = tree.dir("tree/one"), two = tree.dir("tree/two"), image = tree.path("image");
    const std::string command = "exec 2>&1 >/dev/null; truncate -s 8M " + image + " && mkfs.ext4 -q " + image +
                                " && cp " + image + " " + image + "2 && mount -o loop " + image + " " + one +
                                " && mount -o loop " + image + "2 " + two;
    NEED(system(command.c_str()) == 0, "needs mkfs.ext4 and loop devices");
    {
        Watch watch(tree.path("tree"), {"-r", "--source", "auto", "-e", "create"});
        const Json first = watch.established();
        EXPECT_EQ("both", first["source"]) << first;
        for (const std::string name : {"one", "two"}) {
            const std::string point = tree.path("tree/" + name);
            make_dir(point + "/same");
            EXPECT_TRUE(is_watched(watch, point + "/same")) << point;
            watch.barrier(point, {"create"});
            make_file(point + "/same/f");
            EXPECT_EQ(paths({{name + "/same/f", "create"}}), watch.barrier(point, {"create"}));
        }
        EXPECT_EQ(0, watch.stop());
    }
    unmount(one);
    unmount(two);
}

/* The records of a sub-volume have the id of the whole. */
TEST_F(FileSystems, TheTopOfABtrfsReportsItsSubvolumesWhichTakeNoMark)
{
    const std::string image = tree.path("image"), top = tree.dir("btrfs"), sub = top + "/sub";
    const std::string command = "exec 2>&1 >/dev/null; truncate -s 120M " + image + " && mkfs.btrfs -q " + image +
                                " && mount -o loop " + image + " " + top + " && btrfs -q subvolume create " + sub;
    NEED(system(command.c_str()) == 0, "needs btrfs, its programs and a loop device");
    make_dir(sub + "/old");
    {
        Watch watch(top, with({"-e", "create,close_write"}));
        watch.established();
        make_dir(sub + "/old/new");
        make_file(sub + "/old/new/f");
        EXPECT_EQ(0, system(("btrfs -q subvolume create " + top + "/sub2 >/dev/null").c_str()));
        make_file(top + "/sub2/f");
        EXPECT_EQ(paths({{"sub/old/new", "create"},
                         {"sub/old/new/f", "create,close_write"},
                         {"sub2", "create"},
                         {"sub2/f", "create,close_write"}}),
                  watch.barrier(top));
        expect_processes(watch);
        EXPECT_EQ(0, watch.stop());
        Watch inside(sub, {"-r", "--source", "auto", "-e", "create"});
        EXPECT_EQ("marks", inside.established()["source"]);
        EXPECT_TRUE(is_watched(inside, sub + "/old"));
        EXPECT_EQ(0, inside.stop());
    }
    unmount(top);
}

TEST_F(FileSystems, AnOverlayItselfFallsBackToMarks)
{
    mount_new();
    const std::string m = mounted + "/";
    for (const char *name : {"lower", "upper", "work"})
        make_dir(m + name);
    const std::string options = "lowerdir=" + m + "lower,upperdir=" + m + "upper,workdir=" + m + "work";
    const std::string seen = tree.dir("overlay");
    if (mount("fmon-test", seen.c_str(), "overlay", 0, options.c_str()) != 0)
        GTEST_SKIP() << "no overlays here";
    Watch watch(seen, {"-r", "--source", "auto", "-e", "create"});
    const Json first = watch.established();
    EXPECT_EQ("marks", first["source"]) << first;
    EXPECT_TRUE(is_watched(watch, seen));
    watch.stop();
    unmount(seen);
}

}  // namespace
