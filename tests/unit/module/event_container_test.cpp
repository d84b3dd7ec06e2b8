/* Tests of event.h: records of mounts that are a container's. */

#include "core_fixture.h"

namespace
{

using namespace testlib;

constexpr uint32_t kModify = FMON_MODIFY;

/* One instance that wants everything of one directory. */
class ContainerTest : public CoreTest
{
protected:
    ContainerTest() : dir(tree.dir("d"))
    {
        id = instance();
        EXPECT_EQ(0, add(id, dir, FMON_ALL_EVENTS));
        g_container_flag = 1;
        log_clear();
    }
    int process_mount(const std::string &path, const char *mount_id, uint32_t pid = 0)
    {
        return event_process(&fmon, nullptr, path.c_str(), kModify, pid, kFd, mount_id);
    }
    /* Without a container library every mount is the host's, seen below /rootfs. */
    int watch_rootfs(const std::string &path, uint32_t flags)
    {
        struct dentry *d = dcache_add(&fmon.dcache, ("/rootfs" + path).c_str());
        EXPECT_NE(nullptr, d);
        backend.on_add = [d](struct watch *w) {
            w->dentry = d;
            list_add_tail(&w->link, &owner_of(d)->watches);
            return 0;
        };
        return add(id, tree.dir("marker" + path), kModify, flags);
    }

    std::string dir;
    int id;
};

TEST_F(ContainerTest, WithoutAMountNothingIsTranslated)
{
    EXPECT_EQ(0, process_mount(dir + "/f", nullptr));
    ASSERT_NE(nullptr, record(dir + "/f"));
    EXPECT_EQ(nullptr, record(dir + "/f")->container);
}

TEST_F(ContainerTest, EmptyMountIdCountsAsNone)
{
    EXPECT_EQ(0, process_mount(dir + "/f", ""));
    ASSERT_NE(nullptr, record(dir + "/f"));
    EXPECT_EQ(nullptr, record(dir + "/f")->container);
}

TEST_F(ContainerTest, TheWalkFollowsTheTranslatedPathTheRecordKeepsItsOwn)
{
    ASSERT_EQ(0, watch_rootfs("/x/y", FMON_DIR | FMON_RECURSIVE));
    EXPECT_EQ(0, process_mount("/x/y/f", "77"));
    ASSERT_NE(nullptr, record("/x/y/f"));
    EXPECT_STREQ("host", record("/x/y/f")->container);
    EXPECT_EQ(nullptr, record("/rootfs/x/y/f"));
}

/* The directory test compares the watch with the record's untranslated path. Kept. */
TEST_F(ContainerTest, PlainDirectoryWatchBelowRootfsNeverMatchesATranslatedEvent)
{
    ASSERT_EQ(0, watch_rootfs("/x/y", FMON_DIR));
    EXPECT_EQ(0, process_mount("/x/y/f", "77"));
    EXPECT_EQ(nullptr, record("/x/y/f"));
}

TEST_F(ContainerTest, MergeIgnoresTheContainer)
{
    ASSERT_EQ(0, watch_rootfs("/x/y", FMON_DIR | FMON_RECURSIVE));
    process_mount("/x/y/f", "77", 5);
    EXPECT_EQ(0, process_mount("/x/y/f", nullptr, 5));
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_STREQ("host", record("/x/y/f", 5)->container);
}

TEST_F(ContainerTest, OutsideContainerModeTheMountIsIgnored)
{
    g_container_flag = 0;
    EXPECT_EQ(0, process_mount(dir + "/f", "77"));
    ASSERT_NE(nullptr, record(dir + "/f"));
    EXPECT_EQ(nullptr, record(dir + "/f")->container);
}

TEST_F(ContainerTest, EachAllocationCanFail)
{
    ASSERT_EQ(0, watch_rootfs("/x/y", FMON_DIR | FMON_RECURSIVE));
    std::string before = snapshot();
    int result = 0;
    for (const char *name : {"malloc", "calloc"}) {
        int hits = fail_each_then(
            name,
            [&] {
                log_clear();
                result = process_mount("/x/y/f", "77");
            },
            [&](bool hit) {
                bool entry_failed = logged(1, "event1 malloc fail\n");
                EXPECT_EQ(hit && !entry_failed ? FMON_ENOMEM : 0, result);
                EXPECT_EQ(hit ? 0u : 1u, queued(id));
                fmon_drop_event(id);
                EXPECT_EQ(nullptr, fmon_peek_event(id));
                EXPECT_EQ(before, snapshot());
            });
        EXPECT_EQ(name == std::string("malloc") ? 3 : 1, hits); /* path, container, entry; record */
    }
}

/* The translated path is cut at 1023 bytes: an event that deep is walked as far as that. */
TEST_F(ContainerTest, LongPathsAreCutNotOverrun)
{
    ASSERT_EQ(0, watch_rootfs("/x", FMON_DIR | FMON_RECURSIVE));
    std::string deep = "/x";
    while (deep.size() < 1015)
        deep += "/y";
    for (size_t length = 1010; length < 1030; length++) {
        std::string path = deep + std::string(length > deep.size() ? length - deep.size() : 0, 'z');
        ASSERT_EQ(0, process_mount(path, "77"));
        EXPECT_NE(nullptr, record(path)) << length;
        fmon_drop_event(id);
    }
}

}  // namespace
