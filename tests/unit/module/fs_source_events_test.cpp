/* The way of events from the source of whole file systems to the instances; start and stop. */
#include "fs_source_fixture.h"

namespace
{

/* ---- events ---- */

TEST_F(FsSource, AnEventWithItsProcess)
{
    NEED_HANDLES();
    tree.dir("a/b");
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    feed(record(FAN_CREATE, tree.path("a/b"), "f"));
    ASSERT_TRUE(turn());
    struct event *ev = fmon_peek_event(m.id);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(77u, ev->pid);
    EXPECT_EQ(Events{tree.path("a/b/f") + ":create"}, m.events());
}

TEST_F(FsSource, WhatNobodyAskedForIsNotHandedOn)
{
    NEED_HANDLES();
    ASSERT_EQ(0, m.add(tree.root(), FMON_DELETE, kTree));
    feed(record(FAN_CREATE, tree.root(), "f") + record(FAN_DELETE, tree.root(), "g"));
    ASSERT_TRUE(turn());
    EXPECT_EQ(Events{tree.path("g") + ":delete"}, m.events());
}

TEST_F(FsSource, OwnDoingsAreNoEvents)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    feed(record(FAN_CREATE, tree.root(), "own", getpid()) + record(FAN_CREATE, tree.root(), "other"));
    ASSERT_TRUE(turn());
    EXPECT_EQ(Events{tree.path("other") + ":create"}, m.events());
}

/* Each source has its watches: of the same path and process two records stand side by side. */
TEST_F(FsSource, EventsOfTheSourcesDoNotMix)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    ASSERT_EQ(0, fmon_add_watch(m.id2, tree.root().c_str(), FMON_CREATE | FMON_DELETE, kTree, 5, 0)); /* marks */
    tree.file("f");
    m.pump_all();
    EXPECT_EQ(Events{}, m.events());
    EXPECT_EQ(1, fmon_has_event(m.id2));
    feed(record(FAN_CREATE, tree.root(), "f", 0));
    ASSERT_TRUE(turn());
    EXPECT_EQ(2, fmon.event_count);
    EXPECT_EQ(Events{tree.path("f") + ":create"}, m.events());
    EXPECT_EQ(Events{tree.path("f") + ":create"}, m.events(m.id2));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(FsSource, WhileTheTableIsFullTheRestWaits)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    fmon.max_events = 3;
    for (const char *name : {"1", "2", "3", "4", "5"})
        feed(record(FAN_CREATE, tree.root(), name));
    while (fmon.event_count < 3)
        ASSERT_TRUE(turn());
    EXPECT_EQ(3u, m.events().size());
    while (fmon.event_count < 2)
        ASSERT_TRUE(turn());
    EXPECT_EQ((Events{tree.path("4") + ":create", tree.path("5") + ":create"}), m.events());
    fmon.max_events = 1000;
}

/* The end of the root is read from inotify; what happened in it before stands in the group. */
TEST_F(FsSource, WhatHappenedBeforeTheRootsEndIsReportedFirst)
{
    const std::string root = tree.dir("r");
    ASSERT_EQ(0, m.add(root, FMON_CREATE | FMON_DELETE, FMON_DIR | FMON_DELETED));
    const std::string last = record(FAN_DELETE, root, "f");
    tree.remove("r");
    feed(last);
    m.pump_all();
    EXPECT_EQ(Events{root + "/f:delete"}, m.events());
    EXPECT_EQ(0u, status().watches);
    EXPECT_FALSE(testlib::cached(root));
    tree.dir("r"); /* it waits, and is served again */
    fmon_tbd_pass();
    EXPECT_TRUE(served(root));
    EXPECT_EQ(1u, status().watches);
}

TEST_F(FsSource, ARootThatIsMovedAwayWaitsForItsPath)
{
    const std::string root = tree.dir("r");
    ASSERT_EQ(0, m.add(root, FMON_CREATE, FMON_DIR | FMON_DELETED));
    ASSERT_EQ(0, ::rename(root.c_str(), tree.path("s").c_str()));
    m.pump_all();
    EXPECT_EQ(0u, status().watches);
    EXPECT_FALSE(testlib::cached(root));
}

TEST_F(FsSource, AtTheLimitOfMemoryEventsAreLostAndCounted)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    const std::string name(200, 'n');
    for (int i = 0; i < 200000 && status().lost.dropped == 0; i++) {
        const std::string bytes = record(FAN_CREATE, tree.root(), name + std::to_string(i));
        while (write(m.fanotify.fs_feed, bytes.data(), bytes.size()) < 0 && errno == EAGAIN)
            sched_yield();
        if (i == 0) {
            const FsLock lock;
            fs_source.queue.limit = 65536;
        }
    }
    EXPECT_GT(status().lost.dropped, 0u);
    /* A block for events and one for records, of 64 KiB and a head each, were made before the limit was lowered. */
    EXPECT_LE(status().memory, 2 * (size_t{65536} + 64));
}

/* ---- start and stop ---- */

TEST_F(FsSource, ThePositionIsTheLastOne)
{
    EXPECT_EQ(fmlnx.fd_num - 1, fmlnx.fs_position);
    EXPECT_EQ(fmon.fs_fd, fmlnx.fds[fmlnx.fs_position]);
    EXPECT_EQ(uint32_t{FMON_SOURCE_ON}, fmon_account.fs.source.state);
}

TEST_F(FsSource, ARestartServesAnew)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    const int fds = testlib::open_fds();
    fmon_deinit();
    EXPECT_EQ(0, fmon.fs_fd);
    ASSERT_EQ(0, fmon_init(1000, 10000, 1000));
    EXPECT_EQ(fds, testlib::open_fds());
    EXPECT_EQ(0u, status().watches);
    EXPECT_EQ(0, m.del(tree.root()));
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    EXPECT_TRUE(served(tree.root()));
}

class FsSourceStart : public ::testing::Test
{
protected:
    ~FsSourceStart() override
    {
        fmon_deinit();
        g_container_flag = 0;
        testlib::reset_host();
    }
    static int start() { return fmon_init(100, 100, 1000); }
    testlib::PaperFanotify paper;
};

TEST_F(FsSourceStart, NothingOfItWithoutTheKey)
{
    ASSERT_EQ(0, start());
    EXPECT_EQ(0, fmlnx.fs_position);
    EXPECT_EQ(-1, paper.fs_group);
    EXPECT_EQ(uint32_t{FMON_SOURCE_OFF}, fmon_account.fs.source.state);
}

TEST_F(FsSourceStart, AKernelThatKnowsNoSuchGroup)
{
    const Keys keys;
    paper.fs_init_error = EINVAL;
    ASSERT_EQ(0, start());
    EXPECT_EQ(0, fmlnx.fs_position);
    EXPECT_EQ(uint32_t{FMON_SOURCE_REFUSED}, fmon_account.fs.source.state);
    EXPECT_EQ(EINVAL, fmon_account.fs.source.error);
    testlib::TempTree tree;
    const int id = fmon_create_instance("x");
    EXPECT_EQ(0, fmon_add_watch(id, tree.root().c_str(), FMON_CREATE, kTree, 0, 0));
    EXPECT_EQ(uint32_t{FMON_FALLBACK_INIT}, fmon_account.fs.last_fallback.reason);
    EXPECT_EQ(EINVAL, fmon_account.fs.last_fallback.error);
    EXPECT_NE(0u, testlib::kernel_mask(tree.root()) & FMON_CREATE);
    fmon_destroy_instance(id);
}

TEST_F(FsSourceStart, NotInsideAContainer)
{
    const Keys keys;
    g_container_flag = 1;
    ASSERT_EQ(0, start());
    EXPECT_EQ(uint32_t{FMON_WHY_CONTAINER}, fmon_account.fs.source.reason);
    EXPECT_EQ(0, fmlnx.fs_position);
}

/* Without any of its parts it is off, nothing of it is left, and the monitor runs. */
TEST_F(FsSourceStart, EveryPartMayFail)
{
    const Keys keys;
    const int fds = testlib::open_fds();
    const struct {
        const char *name;
        int nth, error;
    } parts[] = {{"eventfd", 1, EMFILE}, {"eventfd", 2, EMFILE}, {"pthread_create", 1, EAGAIN}};
    for (const auto &part : parts) {
        {
            testlib::Fault fault(part.name, part.nth, part.error);
            ASSERT_EQ(0, start());
            EXPECT_TRUE(fault.hit()) << part.name;
        }
        EXPECT_EQ(uint32_t{FMON_SOURCE_REFUSED}, fmon_account.fs.source.state) << part.name;
        EXPECT_EQ(part.error, fmon_account.fs.source.error) << part.name;
        EXPECT_EQ(0, fmlnx.fs_position) << part.name;
        fmon_deinit();
        EXPECT_EQ(fds + (paper.fs_feed >= 0 ? 1 : 0), testlib::open_fds()) << part.name;
    }
}

}  // namespace
