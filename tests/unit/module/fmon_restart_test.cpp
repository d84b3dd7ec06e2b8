/* Tests of fmon.h: what survives the end of the monitor, and the next start. */

#include "core_fixture.h"

namespace
{

using namespace testlib;

/* ---- stopping and starting again with everything still alive ---- */

class Restart : public CoreTest
{
protected:
    Restart() : dir(tree.dir("d")) {}
    int start(int max_events = 100) { return fmon_init(max_events, 1000, 1000); }
    void restart()
    {
        fmon_deinit();
        ASSERT_EQ(0, start());
    }
    std::string dir;
};

TEST_F(Restart, InstancesKeepNameIdAndWatches)
{
    int a = instance("a"), b = instance("b");
    ASSERT_EQ(0, add(b, dir, FMON_CREATE));
    restart();
    EXPECT_EQ(3u, fmon.inst_mask);
    EXPECT_STREQ("a", fmon.instances[a].name);
    EXPECT_EQ(1u, watches(b));
    EXPECT_EQ(FMON_EEXIST, fmon_create_instance("b"));
    EXPECT_EQ(2, fmon_create_instance("c"));
}

TEST_F(Restart, WatchesAreCutOffTheTree)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    restart();
    EXPECT_EQ(nullptr, find(id, dir)->dentry);
    EXPECT_FALSE(list_linked(&find(id, dir)->link));
    EXPECT_EQ(FMON_EEXIST, add(id, dir, FMON_CREATE));
    backend.calls.clear();
    EXPECT_EQ(0, del(id, dir));
    EXPECT_EQ(0, backend.count("del_watch(" + dir + ")"));
    EXPECT_EQ(0, add(id, dir, FMON_CREATE));
    EXPECT_EQ(0, process(dir, "f", FMON_CREATE));
    EXPECT_EQ(1u, queued(id));
}

TEST_F(Restart, WaitingWatchesNoLongerWait)
{
    int id = instance();
    std::string missing = tree.path("missing");
    ASSERT_EQ(0, add(id, missing, FMON_CREATE, FMON_DIR | FMON_DELETED));
    ASSERT_EQ(0, add(id, tree.path("*/log"), FMON_CREATE));
    restart();
    EXPECT_EQ(0u, waiting());
    EXPECT_EQ(2u, watches(id));
    EXPECT_EQ(0, del(id, missing));
    EXPECT_EQ(0, del(id, tree.path("*/log")));
    EXPECT_EQ(0u, watches(id));
    EXPECT_EQ(0u, waiting());
}

TEST_F(Restart, DynamicWatchesGoWithTheirPattern)
{
    int id = instance();
    tree.dir("x/log");
    std::string pattern = tree.path("*/log");
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    ASSERT_EQ(2u, watches(id));
    restart();
    backend.calls.clear();
    EXPECT_EQ((Lines{fmon_line(4, "del watch: " + pattern + " from instance client\n"),
                     fmon_line(4, "delete asterisk watch\n"),
                     fmon_line(4, "delete asterisk dynamic watch " + tree.path("x/log") + "\n")}),
              log_of([&] { EXPECT_EQ(0, del(id, pattern)); }));
    EXPECT_TRUE(backend.calls.empty());
    EXPECT_EQ(0u, watches(id));
}

TEST_F(Restart, InstanceCanBeDestroyed)
{
    int id = instance();
    tree.dir("x/log");
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    ASSERT_EQ(0, add(id, tree.path("missing"), FMON_CREATE, FMON_DIR | FMON_DELETED));
    ASSERT_EQ(0, add(id, tree.path("*/log"), FMON_CREATE));
    process(dir, "f", FMON_CREATE);
    restart();
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ(0, fmon_destroy_instance(id));
    EXPECT_EQ(0, fmon.event_count);
    EXPECT_EQ(0u, waiting());
}

TEST_F(Restart, QueuedRecordsAreStillRead)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    for (const char *name : {"Ab", "BA", "c"})
        process(dir, name, FMON_CREATE); /* two in one chain */
    restart();
    EXPECT_EQ(3, fmon.event_count);
    EXPECT_EQ(1u, fmon.event_mask);
    for (const char *name : {"Ab", "BA", "c"}) {
        ASSERT_NE(nullptr, fmon_peek_event(id));
        EXPECT_EQ(dir + "/" + name, fmon_peek_event(id)->path);
        EXPECT_EQ(FMON_CREATE, fmon_peek_event(id)->mask);
        fmon_drop_event(id);
    }
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Restart, QueuedRecordsAreReadWhileStopped)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    for (const char *name : {"Ab", "BA", "c"})
        process(dir, name, FMON_CREATE);
    fmon_deinit();
    EXPECT_EQ(3, fmon.event_count);
    fmon_drop_event(id);
    EXPECT_EQ(2, fmon.event_count);
    ASSERT_EQ(0, start());
    EXPECT_EQ(2, fmon.event_count);
}

TEST_F(Restart, SharedRecordsAreCountedOnce)
{
    int a = instance("a"), b = instance("b"), c = instance("c");
    fmon_destroy_instance(a);
    ASSERT_EQ(0, add(b, dir, FMON_CREATE));
    ASSERT_EQ(0, add(c, dir, FMON_CREATE));
    process(dir, "f", FMON_CREATE);
    process(dir, "g", FMON_CREATE);
    fmon_drop_event(b);
    restart();
    EXPECT_EQ(2, fmon.event_count);
    fmon_drop_event(c);
    EXPECT_EQ(1, fmon.event_count);
    fmon_drop_event(c);
    EXPECT_EQ(1, fmon.event_count); /* g is b's still */
    fmon_drop_event(b);
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Restart, RecordsThatWereOnlyHeldBackNoLongerCount)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_MODIFY | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY));
    process(dir, "f", FMON_MODIFY);
    struct event *lost = record(dir + "/f");
    ASSERT_NE(nullptr, lost);
    ASSERT_EQ(1, fmon.event_count);
    restart();
    EXPECT_EQ(0, fmon.event_count);
    _event_free(lost); /* nothing knows it any more */
}

/* Held back for b while queued for a: it can never be completed for b, so a's drop is its end. */
TEST_F(Restart, RecordHeldBackForAnotherIsFreedByItsReader)
{
    int a = instance("a"), b = instance("b");
    ASSERT_EQ(0, add(a, dir, FMON_MODIFY));
    ASSERT_EQ(0, add(b, dir, FMON_MODIFY | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY));
    process(dir, "f", FMON_MODIFY);
    ASSERT_EQ(2u, fmon_peek_event(a)->pending);
    restart();
    fmon_drop_event(a);
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Restart, OldRecordsTakeNoNewEvents)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE | FMON_MODIFY));
    process(dir, "f", FMON_CREATE);
    restart();
    ASSERT_EQ(0, del(id, dir));
    ASSERT_EQ(0, add(id, dir, FMON_CREATE | FMON_MODIFY));
    process(dir, "f", FMON_MODIFY);
    EXPECT_EQ(2, fmon.event_count);
    ASSERT_EQ(2u, queued(id));
    EXPECT_EQ(FMON_CREATE, fmon_peek_event(id)->mask);
    fmon_drop_event(id);
    EXPECT_EQ(FMON_MODIFY, fmon_peek_event(id)->mask);
    fmon_drop_event(id);
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Restart, FullTableIsEmptiedByItsReaders)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    for (int i = 0; i < 5; i++)
        process(dir, "f" + std::to_string(i), FMON_CREATE);
    fmon_deinit();
    ASSERT_EQ(0, start(5));
    int32_t *fds;
    uint32_t timeout = 1000;
    backend.fds = {3};
    EXPECT_EQ(0, fmon_get_selectable_fds(&fds, &timeout));
    fmon_drop_event(id);
    EXPECT_EQ(1, fmon_get_selectable_fds(&fds, &timeout));
}

TEST_F(Restart, FailedSecondStartLeavesTheQueuesReadable)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    process(dir, "f", FMON_CREATE);
    process(dir, "g", FMON_CREATE);
    fmon_deinit();
    backend.init_result = -1;
    EXPECT_EQ(-1, start());
    fmon_drop_event(id);
    backend.init_result = 0;
    EXPECT_EQ(0, start());
    EXPECT_EQ(1, fmon.event_count);
    fmon_drop_event(id);
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Restart, DumpBetweenStopAndStartTouchesNothingFreed)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    ASSERT_EQ(0, add(id, tree.path("missing"), FMON_CREATE, FMON_DIR | FMON_DELETED));
    process(dir, "f", FMON_CREATE);
    fmon_deinit();
    log_clear();
    EXPECT_EQ(0, fmon_dump(0, nullptr));
    EXPECT_TRUE(logged(4, "    [E] " + dir + "/f, event create, pid 0, ref 1, pending 0\n")) << log_text();
    EXPECT_TRUE(logged(4, "count: 1\n"));
    ASSERT_EQ(0, start());
}

TEST_F(Restart, GlobalMasksAreKept)
{
    int id = instance();
    fmon_add_global_watch(id, FMON_CREATE);
    restart();
    EXPECT_EQ(1u, fmon.global_instance_mask);
    EXPECT_EQ(FMON_CREATE, fmon.instances[id].global_mask);
    process_path("/x", FMON_CREATE, 5, 0);
    EXPECT_EQ(1u, queued(id));
}

}  // namespace
