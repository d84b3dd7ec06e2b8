/*
 * Directories that are watched by events of whole file systems: what is reported from the first moment on, a watch's
 * end, and what is lost.
 */
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "file_systems.h"

using namespace systest;
using testlib::TempTree;

namespace
{

TEST_F(FileSystems, TreesAreSeenFromTheFirstMoment)
{
    Watch watch(tree.root(), with({"-e", "create,delete,moved_from,moved_to,close_write"}));
    const Json first = watch.established();
    EXPECT_EQ("filesystem", first["source"]) << first;
    EXPECT_EQ(0, first["directories"]) << first;
    /* By several processes: what one of them does to one entry may be one record. */
    const std::string script = "cd '" + tree.root() + "'; mkdir -p a/b/c/d; echo > a/b/c/d/f; mv a z; rm -r z";
    ASSERT_EQ(0, system(script.c_str()));
    EXPECT_EQ(paths({{"a", "create,moved_from"},
                     {"a/b", "create"},
                     {"a/b/c", "create"},
                     {"a/b/c/d", "create"},
                     {"a/b/c/d/f", "create,close_write"},
                     {"z", "moved_to,delete"},
                     {"z/b", "delete"},
                     {"z/b/c", "delete"},
                     {"z/b/c/d", "delete"},
                     {"z/b/c/d/f", "delete"}}),
              watch.barrier(tree.root()));
    expect_processes(watch);
    EXPECT_EQ(0, watch.stop());
}

TEST_F(FileSystems, EveryKindHasItsProcess)
{
    tree.dir("d");
    Watch watch(tree.root(), with({"--pid", "-e", "create,delete,attrib,moved_from,moved_to,modify"}));
    watch.established();
    make_file(tree.path("d/f"));
    change_mode(tree.path("d/f"), 0600);
    move(tree.path("d/f"), tree.path("d/g"));
    append_file(tree.path("d/g"));
    remove_file(tree.path("d/g"));
    EXPECT_EQ(paths({{"d/f", "create,modify,attrib,moved_from"}, {"d/g", "moved_to,modify,delete"}}),
              watch.barrier(tree.root(), {"create"}));
    expect_processes(watch);
    EXPECT_EQ(0, watch.stop());
}

TEST_F(FileSystems, ADirectoryAloneReportsItsEntriesOnly)
{
    tree.dir("d");
    Watch watch(tree.root(), {"--source", "filesystem", "-e", "create,close_write"});
    watch.established();
    make_file(tree.path("d/deep"));
    make_file(tree.path("f"));
    EXPECT_EQ(paths({{"f", "create,close_write"}}), watch.barrier(tree.root()));
    EXPECT_EQ(0, watch.stop());
}

/* ---- the root's end ---- */

TEST_F(FileSystems, ADirectoryAboveTheRootIsMoved)
{
    const std::string root = tree.dir("a/b/root");
    Watch watch(root, with({"--wait", "-e", "create,move_self", "--set", "tbd_interval=1000"}));
    watch.established();
    move(tree.path("a"), tree.path("z"));
    EXPECT_EQ(root, watch.next_of("ended")["path"]);
    make_file(tree.path("z/b/root/elsewhere"));
    move(tree.path("z"), tree.path("a"));
    EXPECT_EQ(root, watch.next_of("appeared")["path"]);
    EXPECT_TRUE(is_watched(watch, root));
    EXPECT_EQ(0, watch.stop());
}

TEST_F(FileSystems, WhatHappensBeforeTheRootsEndIsReported)
{
    const std::string root = tree.dir("root");
    Watch watch(root, with({"-e", "create,delete,delete_self"}));
    watch.established();
    make_dir(root + "/d");
    make_file(root + "/d/f");
    std::filesystem::remove_all(root);
    std::vector<std::string> seen;
    while (const auto object = watch.next())
        if (object->value("type", "") == "event")
            seen.push_back(object->value("path", "").substr(root.size()));
    EXPECT_NE(seen.end(), std::find(seen.begin(), seen.end(), "/d/f"));
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ("", seen.back());
}

/* Each system call of the monitor, and so each read, makes a record. The tracer's end is that of what it traces. */
TEST_F(FileSystems, ATracerThatWritesIntoTheTreeDoesNotKeepItFromBeingWatched)
{
    NEED(access("/usr/bin/strace", X_OK) == 0, "strace is not installed");
    Process watch({{"/usr/bin/strace", "-f", "-o", tree.path("trace"), "/usr/bin/setpriv", "--pdeathsig", "KILL",
                    FMON_TEST_BIN "/fmon", "watch", "-r", "--source", "filesystem", "--format", "json", "-e",
                    "create,modify", tree.root()}});
    const std::string first = watch.line(2 * kPatienceMs).value_or("");
    EXPECT_NE(std::string::npos, first.find("\"established\"")) << first << watch.errors();
    make_file(tree.path("seen"));
    bool seen = false;
    for (const int64_t end = now_ms() + kPatienceMs; now_ms() < end && !seen;)
        seen = watch.line(1000).value_or("").find(tree.path("seen")) != std::string::npos;
    EXPECT_TRUE(seen) << watch.errors();
}

/* ---- losses ---- */

bool is_loss_of_events(const Json &object) { return object["type"] == "loss" && object["source"] == "filesystem"; }

/* What a machine under load loses beside, such as messages about processes, is no failure. */
bool told_of_loss(Watch &watch, int ms)
{
    watch.losses_are_due();
    for (const int64_t end = now_ms() + ms; now_ms() < end;)
        if (const auto object = watch.next(200); object && is_loss_of_events(*object))
            return true;
    return false;
}

/* Makes files while somebody holds the monitor up, which lasts until half of what it may keep has gathered. */
void churn_beside_a_hold(Watch &watch, const std::string &dir)
{
    Process held(
        {{FMON_TEST_BIN "/fmon", "dump", "-t", "events", "--hold", "2", std::to_string(watch.process().pid())}});
    const int64_t end = now_ms() + kPatienceMs;
    for (int i = 1; now_ms() < end; i++) {
        const std::string name = dir + "/" + std::string(150, 'n') + std::to_string(i);
        make_file(name);
        remove_file(name);
        if (i % 100 == 0 && held.line(1))
            break;
    }
}

/* Events are taken from the kernel meanwhile, and beyond the limit thrown away. */
TEST_F(FileSystems, BeyondTheLimitOfMemoryEventsAreLossesThatAreTold)
{
    std::string dir;
    for (int i = 0; i < 4; i++)
        dir += "/" + std::string(180, 'd');
    dir = tree.dir(dir.substr(1));
    Watch watch(tree.root(), with({"-e", "create", "--set", "fs_memory_kib=64", "--set", "max_events=100"}));
    watch.established();
    bool lost = false;
    for (const int64_t end = now_ms() + 2 * kPatienceMs; now_ms() < end && !lost;) {
        churn_beside_a_hold(watch, dir);
        lost = told_of_loss(watch, 1000);
    }
    EXPECT_TRUE(lost) << watch.process().errors();
    EXPECT_EQ(0, watch.stop());
}

TEST_F(FileSystems, OverflowsOfTheKernelsQueueAreLossesThatAreTold)
{
    mount_new();
    Watch watch(mounted, with({"-e", "create", "--set", "fs_queue=1"}));
    watch.established();
    watch.process().send(SIGSTOP);
    for (int i = 0; i < 20000; i++) { /* the limit is 16,384 */
        const std::string name = mounted + "/f" + std::to_string(i);
        make_dir(name);
        remove_dir(name);
    }
    watch.process().send(SIGCONT);
    EXPECT_TRUE(told_of_loss(watch, 2 * kPatienceMs));
    make_dir(mounted + "/new");
    EXPECT_TRUE(is_watched(watch, mounted + "/new"));
    EXPECT_EQ(0, watch.stop());
}

/* ---- the whole system ---- */

TEST_F(FileSystems, TheWholeSystemWithoutProbes)
{
    mount_new();
    Process watch({{FMON_TEST_BIN "/fmon", "watch", "--system", "--probes", "off", "--source", "filesystem", "-e",
                    "create", "--format", "text"}});
    const std::string deep = tree.path("s/y/s/t/e/m"), name(250, 'n');
    pause_ms(300);
    std::filesystem::create_directories(deep);
    make_file(deep + "/" + name);
    make_file(mounted + "/other");
    bool directory = false, file = false, other = false;
    for (const int64_t end = now_ms() + kPatienceMs; now_ms() < end && !(directory && file && other);) {
        const std::string line = watch.line(1000).value_or("");
        directory |= line.find(deep) != std::string::npos && line.find(name) == std::string::npos;
        file |= line.find(deep + "/" + name) != std::string::npos;
        other |= line.find(mounted + "/other") != std::string::npos;
        if (line.empty()) { /* it was not ready */
            std::filesystem::remove_all(tree.path("s"));
            std::filesystem::create_directories(deep);
            make_file(deep + "/" + name);
            make_file(mounted + "/other");
        }
    }
    EXPECT_TRUE(directory);
    EXPECT_TRUE(file);
    EXPECT_TRUE(other);
    EXPECT_EQ(0, watch.interrupt()) << watch.errors();
}

/* As in a container: what is there at "/" is an overlay. */
TEST_F(FileSystems, TheWholeSystemWhereItsTopTakesNoMark)
{
    mount_new();
    const std::string top = tree.dir("top"), data = tree.dir("top/mnt");
    for (const char *name : {"/upper", "/work"})
        make_dir(mounted + name);
    const std::string options = "lowerdir=/,upperdir=" + mounted + "/upper,workdir=" + mounted + "/work";
    if (mount("fmon-test", top.c_str(), "overlay", 0, options.c_str()) != 0)
        GTEST_SKIP() << "no overlays here";
    ASSERT_EQ(0, mount("proc", (top + "/proc").c_str(), "proc", 0, nullptr)) << strerror(errno);
    ASSERT_EQ(0, mount("fmon-test", (top + "/mnt").c_str(), "tmpfs", 0, nullptr)) << strerror(errno);
    {
        Process watch({{"/usr/sbin/chroot", top, FMON_TEST_BIN "/fmon", "watch", "--system", "--probes", "off",
                        "--source", "filesystem", "-e", "create", "--format", "json"}});
        const auto first = watch.line();
        ASSERT_TRUE(first) << watch.errors();
        const Json established = Json::parse_if(*first).value_or(Json());
        EXPECT_EQ("established", established.value("type", "")) << *first;
        EXPECT_LE(1u, established.value("left_out", 0u)) << *first;
        make_file(data + "/seen");
        bool seen = false;
        for (const int64_t end = now_ms() + kPatienceMs; now_ms() < end && !seen;)
            seen = watch.line(1000).value_or("").find("\"/mnt/seen\"") != std::string::npos;
        EXPECT_TRUE(seen) << watch.errors();
        EXPECT_EQ(0, watch.interrupt()) << watch.errors();
        EXPECT_NE(std::string::npos, watch.errors().find("what happens on /")) << watch.errors();
    }
    umount2((top + "/mnt").c_str(), MNT_DETACH);
    umount2((top + "/proc").c_str(), MNT_DETACH);
    umount2(top.c_str(), MNT_DETACH);
}

}  // namespace
