/*
 * What `fmon watch` makes of events that others do not want it to read, or not as they are.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>

#include "stranger.h"

using namespace systest;
using testlib::TempTree;

namespace
{

constexpr char kNeedsStranger[] = "needs root, and a directory of temporary files that others may enter";

/* Reads what is printed until `enough` is satisfied by one of the objects. */
bool read_until(Watch &watch, const std::function<bool(const Json &)> &enough, int ms = kPatienceMs)
{
    const int64_t end = now_ms() + ms;
    for (int64_t left; (left = end - now_ms()) > 0;) {
        const std::optional<Json> object = watch.next(static_cast<int>(left));
        if (!object)
            return false;
        if (enough(*object))
            return true;
    }
    return false;
}

bool is_loss(const Json &object, const std::string &source)
{
    return object.value("type", "") == "loss" && object.value("source", "") == source;
}

/* Each opening of the file would last as long as /proc/sys/fs/lease-break-time says, 45 s as a rule. */
TEST(Reading, LeasesHoldNothingUpAndAreTold)
{
    NEED(testlib::can_fanotify() && can_be_stranger(), kNeedsStranger);
    TempTree tree;
    const std::string home = strangers_dir(tree, "home");
    EXPECT_TRUE(run(as_stranger([&] {
        for (int i = 0; i < 3; i++)
            make_file(home + "/leased" + std::to_string(i));
    })));
    Watch watch(tree.root(), {"-r", "-e", "modify,close_write,create"});
    watch.established();
    Child holder(as_stranger([&] {
        for (int i = 0; i < 3; i++) {
            const std::string file = home + "/leased" + std::to_string(i);
            const int fd = take_lease(file, F_WRLCK);
            EXPECT_EQ(1, write(fd, "x", 1));
        }
    }));
    const int64_t begin = now_ms();
    make_file(tree.path("other"));
    bool other = false, loss = false;
    EXPECT_TRUE(read_until(watch,
                           [&](const Json &object) {
                               other |= object.value("path", "") == tree.path("other") &&
                                        object.dump().find("close_write") != std::string::npos;
                               /* What opens no file has the event instead of the loss. */
                               loss |= by_filesystem() ? object.value("path", "") == home + "/leased2"
                                                       : is_loss(object, "fanotify");
                               return other && loss;
                           }))
        << "other " << other << ", loss " << loss;
    EXPECT_LT(now_ms() - begin, 10000);
    const int64_t signalled = now_ms();
    EXPECT_EQ(0, watch.stop());
    EXPECT_LT(now_ms() - signalled, 5000);
}

/* Written and kept open, they are all held back; once the table was full nothing was read any more, no close either. */
TEST(Reading, FilesKeptOpenDoNotFillTheTableForGood)
{
    NEED(testlib::can_fanotify(), "fanotify needs root");
    constexpr int kFiles = 300;
    TempTree tree;
    Watch watch(tree.root(), {"--delay", "-e", "modify,close_write", "--set", "max_events=100"});
    watch.established();
    std::vector<int> open_files;
    for (int i = 0; i < kFiles; i++) {
        open_files.push_back(open(tree.path(std::to_string(i)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_EQ(1, write(open_files.back(), "x", 1));
    }
    make_file(tree.path("closed"));
    EXPECT_TRUE(read_until(watch, [&](const Json &object) { return object.value("path", "") == tree.path("closed"); }));
    for (int fd : open_files)
        close(fd);
    EXPECT_EQ(0, watch.stop());
}

/* The watch of the directory that was there ends with it, which says nothing about what may have been missed. */
TEST(Reading, RenamingOntoEmptyDirectoriesIsNoLoss)
{
    TempTree tree;
    for (int i = 0; i < 3; i++) {
        tree.dir("old" + std::to_string(i));
        tree.dir("new" + std::to_string(i));
    }
    Watch watch(tree.root(), {"-r"});
    watch.established();
    for (int i = 0; i < 3; i++)
        move(tree.path("new" + std::to_string(i)), tree.path("old" + std::to_string(i)));
    make_file(tree.path("old2/f"));
    make_file(tree.path("last"));
    bool loss = false;
    const auto look = [&](const Json &object) {
        loss |= object.value("type", "") == "loss";
        return object.value("path", "") == tree.path("last") && object.dump().find("create") != std::string::npos;
    };
    EXPECT_TRUE(read_until(watch, look));
    watch.process().send(SIGINT); /* losses are told at the end, too */
    read_until(watch, [&](const Json &object) {
        look(object);
        return false;
    });
    EXPECT_FALSE(loss);
}

/* Of the creation inotify tells, of the writing fanotify. */
TEST(Reading, PathsThatAreTooLongAreLosses)
{
    NEED(testlib::can_fanotify(), "fanotify needs root");
    TempTree tree;
    std::string below;
    while (tree.path(below).size() < 900)
        below += std::string(100, 'd') + "/";
    const std::string dir = tree.dir(below + "e"), file = dir + "/" + std::string(200, 'f');
    Watch watch(tree.root(), {"-r", "-e", "create,close_write"});
    watch.established();
    make_file(file);
    make_file(tree.path("last"));
    uint64_t lost = 0;
    bool last = false;
    EXPECT_TRUE(read_until(watch, [&](const Json &object) {
        const std::string path = object.value("path", "");
        if (is_loss(object, "path")) {
            EXPECT_EQ(by_filesystem() ? "" : file.substr(0, 1023), path);
            lost += object.value("count", 0u);
        } else {
            EXPECT_NE(file.substr(0, dir.size()), path.substr(0, dir.size()));
        }
        last |= path == tree.path("last");
        return lost >= (by_filesystem() ? 1 : 2) && last;
    })) << lost;
    if (by_filesystem()) /* what waits together of one process and entry is one record of the kernel's */
        return;
    EXPECT_EQ(2u, lost);
    Process dump({{FMON_TEST_BIN "/fmon", "dump", "-t", "losses", std::to_string(watch.process().pid())}});
    const std::string line = dump.line().value_or("");
    EXPECT_EQ(0u, line.find("2 events had no path that can be told")) << line << dump.errors();
    EXPECT_EQ(0, dump.wait());
}

/* ---- whose path it is ---- */

/* In a namespace of his own a stranger mounts a file of his over another's: the kernel tells the other's path. */
TEST(Reading, WritesUnderForgedNamesAreLossesNotEvents)
{
    NEED(testlib::can_fanotify() && can_be_stranger() && can_have_namespace(), kNeedsStranger);
    TempTree tree;
    const std::string home = strangers_dir(tree, "home"), secret = tree.file("secret", "x");
    Watch watch(tree.root(), {"-r", "-e", "modify,close_write"});
    watch.established();
    Child forger(in_own_namespace([&] {
        make_file(home + "/mine");
        bind_mount(home + "/mine", secret);
        for (int i = 0; i < 3; i++)
            append_file(secret);
    }));
    make_file(tree.path("last"));
    bool forged = false, loss = false, last = false;
    EXPECT_TRUE(read_until(watch,
                           [&](const Json &object) {
                               forged |= object.value("type", "") == "event" && object.value("path", "") == secret;
                               /* By its handle the file that was written to is found, whatever its name there. */
                               loss |= by_filesystem() ? object.value("path", "") == home + "/mine"
                                                       : is_loss(object, "path") && object.value("path", "") == secret;
                               last |= object.value("path", "") == tree.path("last");
                               return loss && last;
                           }))
        << "loss " << loss << ", last " << last;
    EXPECT_FALSE(forged);
    append_file(secret);
    EXPECT_TRUE(read_until(watch, [&](const Json &object) { return object.value("path", "") == secret; }))
        << "the true one is told";
}

/* With the namespace gone the kernel tells no path at all; it goes behind the scenes, at some time. */
TEST(Reading, WritesOfANamespaceThatIsGoneAreLosses)
{
    NEED(testlib::can_fanotify() && can_be_stranger() && can_have_namespace(), kNeedsStranger);
    TempTree tree;
    const std::string home = strangers_dir(tree, "home"), secret = tree.file("secret", "x");
    Watch watch(tree.root(), {"-r", "-e", "close_write"});
    watch.established();
    watch.process().send(SIGSTOP);
    EXPECT_TRUE(run(in_own_namespace([&] {
        make_file(home + "/mine");
        bind_mount(home + "/mine", secret);
        append_file(secret);
    })));
    pause_ms(200);
    watch.process().send(SIGCONT);
    EXPECT_TRUE(read_until(watch, [&](const Json &object) {
        if (is_loss(object, "path")) {
            EXPECT_EQ(secret, object.value("path", secret)) << "if any";
            return true;
        }
        if (by_filesystem() && object.value("path", "") == home + "/mine")
            return true; /* found by its handle */
        EXPECT_NE(secret, object.value("path", ""));
        return false;
    }));
}

/* A container that has a watched directory under another name, as long as its process lives. */
TEST(Reading, WritesInAnotherNamespaceHaveTheWatchedPath)
{
    NEED(testlib::can_fanotify() && can_be_stranger() && can_have_namespace(), kNeedsStranger);
    TempTree tree;
    const std::string data = strangers_dir(tree, "data"), elsewhere = strangers_dir(tree, "elsewhere");
    Watch watch(data, {"-r", "-e", "close_write"});
    watch.established();
    Child inside(in_own_namespace([&] {
        bind_mount(data, elsewhere);
        make_file(elsewhere + "/f");
    }));
    EXPECT_TRUE(read_until(watch, [&](const Json &object) { return object.value("path", "") == data + "/f"; }));
}

/* Of the namespace that the monitor is in, too. */
TEST(Reading, WritesThroughAnotherMountHaveTheWatchedPath)
{
    NEED(testlib::can_fanotify() && testlib::can_mount(), "needs root");
    EXPECT_TRUE(run([&] {
        ASSERT_EQ(0, unshare(CLONE_NEWNS));
        ASSERT_EQ(0, mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
        TempTree tree;
        const std::string watched = tree.dir("x/a"), other = tree.dir("y/b");
        tree.file("x/a/f");
        tree.file("x/a/g");
        Watch watch(tree.path("x"), {"-r", "-e", "close_write"});
        watch.established();
        bind_mount(watched, other);
        for (int i = 0; i < 2; i++) {
            append_file(other + "/f");
            EXPECT_TRUE(
                read_until(watch, [&](const Json &object) { return object.value("path", "") == watched + "/f"; }));
            append_file(watched + "/g");
            EXPECT_TRUE(
                read_until(watch, [&](const Json &object) { return object.value("path", "") == watched + "/g"; }));
        }
        EXPECT_EQ(0, watch.stop());
        unmount(other);
    }));
}

}  // namespace
