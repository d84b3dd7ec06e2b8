/* Mounts below a watch that whole file systems serve: found, joined, tried again where that failed for the moment. */
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <thread>

#include "fs_source_fixture.h"

namespace
{

/* In a mount namespace of the program's own, which the monitor is started in. */
class FsBelow : public FsSource
{
protected:
    static void SetUpTestSuite()
    {
        own_mounts = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    void SetUp() override
    {
        NEED(own_mounts && can_open_handles(), "mounts need root");
        NEED(tmpfs_has_an_id(), "tmpfs has no id here that an event could name it by, as before 5.13");
    }
    void TearDown() override
    {
        for (const std::string &at : {point, other})
            while (umount2(at.c_str(), MNT_DETACH) == 0) {
            }
    }

    static void mount_new(const std::string &at)
    {
        ASSERT_EQ(0, mount("fmon-test", at.c_str(), "tmpfs", 0, nullptr)) << strerror(errno);
    }
    bool tmpfs_has_an_id() const
    {
        struct statfs fs = {};
        mount_new(point);
        EXPECT_EQ(0, statfs(point.c_str(), &fs));
        EXPECT_EQ(0, umount(point.c_str()));
        const fsid_t none = {};
        return memcmp(&none, &fs.f_fsid, sizeof(none)) != 0;
    }
    static void bind(const std::string &from, const std::string &to)
    {
        ASSERT_EQ(0, mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
    }

    /* A turn of the monitor thread at that time. */
    static void turn_at(uint32_t now_ms) { fmon_linux_read_event2(&fmon, now_ms, event_process); }
    /* The same when there is something to do, and at last without. */
    static void next_turn_at(uint32_t now_ms)
    {
        struct pollfd call = {fmon.fs_fd, POLLIN, 0};
        poll(&call, 1, 20);
        turn_at(now_ms);
    }

    static struct fs_below *below(struct fs_root *root, const std::string &at)
    {
        FMON_LIST_EACH (node, &root->below)
            if (at == FMON_RECORD(node, struct fs_below, link)->point)
                return FMON_RECORD(node, struct fs_below, link);
        return nullptr;
    }
    static struct fs_root *first_root() { return FMON_RECORD(fs_source.roots.next, struct fs_root, link); }
    static bool joined(const std::string &at)
    {
        const struct fs_below *found = below(first_root(), at);
        return found && found->how == FS_BELOW_JOINED && found->system->bits != 0;
    }
    static bool watched(const std::string &at)
    {
        const struct fs_below *found = below(first_root(), at);
        return joined(at) || (found && found->part);
    }

    static inline bool own_mounts = false;
    const std::string point = tree.dir("point"), other = tree.dir("other");
};

TEST_F(FsBelow, AMountThatComesIsJoinedAndOneThatGoesIsForgotten)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    mount_new(point);
    ASSERT_TRUE(turn());
    EXPECT_TRUE(joined(point));
    EXPECT_FALSE(fs_source.retry.due);
    ASSERT_EQ(0, umount(point.c_str()));
    ASSERT_TRUE(turn());
    EXPECT_EQ(nullptr, below(first_root(), point));
}

/* Whichever call fails once: some turns later the mount is watched, by the one source or the other. */
TEST_F(FsBelow, WhatFailedForTheMomentIsTriedAgain)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    const struct {
        const char *name;
        int error;
    } calls[] = {{"open", EMFILE},   {"openat", EMFILE},  {"read", EIO},     {"malloc", ENOMEM},
                 {"calloc", ENOMEM}, {"realloc", ENOMEM}, {"fstat", ENOMEM}, {"name_to_handle_at", ENOMEM}};
    for (const auto &call : calls) {
        uint32_t now = 0;
        testlib::fail_each(call.name, call.error, [&](testlib::Fault &fault) {
            mount_new(point);
            ASSERT_TRUE(turn());
            for (const uint32_t end = now + 2000; now < end && !watched(point); now += 100)
                next_turn_at(now);
            EXPECT_TRUE(watched(point)) << call.name << " " << fault.calls();
            ASSERT_EQ(0, umount(point.c_str()));
            ASSERT_TRUE(turn());
        });
    }
}

/* An unmount took it along, and what is there now is another mount of the same. */
TEST_F(FsBelow, AMarkThatIsGoneAndCannotBeSetIsSetLater)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    mount_new(point);
    ASSERT_TRUE(turn());
    ASSERT_TRUE(joined(point));
    m.fanotify.fs_marks_gone = true;
    m.fanotify.fs_mark_error = ENOMEM;
    fs_source_look_at_mounts();
    EXPECT_TRUE(joined(point));
    EXPECT_TRUE(fs_source.retry.due);
    m.fanotify.fs_mark_error = 0;
    m.fanotify.marks.clear();
    for (uint32_t now = 0; now < 1000; now += 100)
        turn_at(now);
    EXPECT_TRUE(joined(point));
    EXPECT_FALSE(fs_source.retry.due);
    ASSERT_EQ(1u, m.fanotify.marks.size());
    EXPECT_EQ(unsigned{FAN_MARK_ADD | FAN_MARK_FILESYSTEM}, m.fanotify.marks[0].flags);
}

/* What never gets better costs ever less. */
TEST_F(FsBelow, RetriesBecomeRare)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    mount_new(point);
    unsigned looks = 0;
    {
        const testlib::Fault fault("openat", 1, EMFILE, 1000000);
        const testlib::Fault whole("open", 1, EMFILE, 1000000);
        ASSERT_TRUE(turn());
        for (uint32_t now = 0; now < 600000; now += 100) {
            const int before = whole.calls();
            turn_at(now);
            looks += whole.calls() != before;
        }
    }
    EXPECT_TRUE(fs_source.retry.due);
    EXPECT_GE(looks, 10u);
    EXPECT_LE(looks, 20u);
    for (uint32_t now = 600000; now < 700000; now += 1000)
        turn_at(now);
    EXPECT_TRUE(joined(point));
    EXPECT_FALSE(fs_source.retry.due);
}

/* The same device is there at another place, with another number, before the one that went is forgotten. */
TEST_F(FsBelow, SystemWideAMountThatChangesItsPlaceIsWatchedThere)
{
    mount_new(point);
    ASSERT_TRUE(turn());
    ASSERT_EQ(0, fs_source_global(FMON_CREATE));
    ASSERT_TRUE(below(fs_source.global, point));
    bind(point, other);
    ASSERT_EQ(0, umount(point.c_str()));
    ASSERT_TRUE(turn());
    EXPECT_EQ(nullptr, below(fs_source.global, point));
    ASSERT_TRUE(below(fs_source.global, other));
    EXPECT_EQ(FS_BELOW_JOINED, below(fs_source.global, other)->how);
    EXPECT_EQ(0, fs_source_global(0));
}

TEST_F(FsBelow, WhereTheTopTakesNoMarkTheRestIsWatched)
{
    mount_new(point);
    ASSERT_TRUE(turn());
    {
        const testlib::Fault fault("open_by_handle_at", 1, EPERM);
        ASSERT_EQ(0, fs_source_global(FMON_CREATE));
    }
    ASSERT_TRUE(below(fs_source.global, point));
    EXPECT_EQ(FS_BELOW_ANCHORED, below(fs_source.global, point)->how);
    EXPECT_LE(1u, status().left_out);
    EXPECT_STREQ("/", status().last_fallback.path);
    EXPECT_EQ(uint32_t{FMON_FALLBACK_OPEN}, status().last_fallback.reason);
    EXPECT_EQ(0, fs_source_global(FMON_CREATE | FMON_MODIFY));
    EXPECT_EQ(kBase | FAN_MODIFY, below(fs_source.global, point)->system->bits);
    fs_source_dump();
    EXPECT_EQ(0, fs_source_global(0));
    EXPECT_EQ(&fs_source.roots, fs_source.roots.next);
    EXPECT_EQ(&fs_source.systems, fs_source.systems.next);
}

TEST_F(FsBelow, WhereNothingTakesAMarkSystemWideKindsAreRefused)
{
    const testlib::Fault fault("open_by_handle_at", 1, EPERM, 1000000);
    EXPECT_EQ(-1, fs_source_global(FMON_CREATE));
    EXPECT_STREQ("/", status().last_fallback.path);
    EXPECT_EQ(&fs_source.roots, fs_source.roots.next);
    EXPECT_EQ(nullptr, fs_source.global);
}

/* Parts of a file system that is nowhere mounted as a whole. */
TEST_F(FsBelow, PartsOfOneFileSystemAreAllWatched)
{
    const std::string base = tree.dir("base");
    mount_new(base);
    for (const char *part : {"/a", "/b", "/a/inside"})
        ASSERT_EQ(0, mkdir((base + part).c_str(), 0755));
    bind(base + "/a", point);
    bind(base + "/b", other);
    const std::string third = tree.dir("third");
    bind(base + "/a/inside", third);
    ASSERT_EQ(0, umount(base.c_str()));
    ASSERT_TRUE(turn());
    ASSERT_EQ(0, fs_source_global(FMON_CREATE));
    EXPECT_TRUE(below(fs_source.global, point));
    EXPECT_TRUE(below(fs_source.global, other));
    EXPECT_FALSE(below(fs_source.global, third)) << "to be seen at the first";
    EXPECT_EQ(0, fs_source_global(0));
    EXPECT_EQ(0, umount(third.c_str()));
}

/* What comes while the queue's descriptor is answered for something else. */
TEST_F(FsBelow, NoNewsWaitWithoutACall)
{
    for (int round = 0; round < 500; round++) {
        fs_source.news |= FS_NEWS_DISPLACED;
        std::thread another([] {
            fs_source.news |= FS_NEWS_MOUNTS;
            fs_queue_call(&fs_source.queue);
        });
        turn_at(0);
        another.join();
        struct pollfd call = {fmon.fs_fd, POLLIN, 0};
        ASSERT_TRUE(!(fs_source.news & FS_NEWS_MOUNTS) || poll(&call, 1, 0) == 1) << round;
    }
}

}  // namespace
