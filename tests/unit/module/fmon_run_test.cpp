/* Tests of fmon_run.cpp: a turn of the monitor, and the queue of an instance. */

#include "core_fixture.h"
#include "testlib/hardened.h"

namespace
{

using namespace testlib;

class Run : public CoreTest
{
protected:
    explicit Run(int max_events = 100) : CoreTest(max_events), id(instance()), dir(tree.dir("d"))
    {
        EXPECT_EQ(0, add(id, dir, FMON_CREATE | FMON_MODIFY));
        backend.calls.clear();
        log_clear();
    }
    /* Whether a run at that time retries the waiting watches. */
    bool passes(uint32_t now)
    {
        std::string path = tree.dir("late");
        int result = 0;
        tree.remove("late");
        EXPECT_EQ(0, add(id, path, FMON_CREATE, FMON_DIR | FMON_DELETED));
        tree.dir("late");
        result = fmon_run(now);
        EXPECT_EQ(0, result);
        bool attached = find(id, path)->dentry != nullptr;
        EXPECT_EQ(0, del(id, path));
        return attached;
    }
    void fill(int n)
    {
        for (int i = 0; i < n; i++)
            ASSERT_EQ(0, process(dir, "f" + std::to_string(i), FMON_CREATE));
    }

    int id;
    std::string dir;
};

class FullTable : public Run
{
protected:
    FullTable() : Run(3) {}
};

/* ---- descriptors ---- */

TEST_F(Run, DescriptorsAreTheBackends)
{
    backend.fds = {4, -1, 5};
    backend.lower_timeout = 150;
    int32_t *fds = nullptr;
    uint32_t timeout = 1000;
    EXPECT_EQ(3, fmon_get_selectable_fds(&fds, &timeout));
    EXPECT_EQ(backend.fds.data(), fds);
    EXPECT_EQ(150u, timeout);
}

TEST_F(FullTable, OffersNoDescriptor)
{
    backend.fds = {4};
    backend.lower_timeout = 150;
    int32_t *fds = nullptr;
    uint32_t timeout = 1000;
    fill(2);
    EXPECT_EQ(1, fmon_get_selectable_fds(&fds, &timeout));
    fill(3);
    ASSERT_EQ(3, fmon.event_count);
    fds = nullptr;
    timeout = 1000;
    EXPECT_EQ(0, fmon_get_selectable_fds(&fds, &timeout));
    EXPECT_EQ(nullptr, fds);
    EXPECT_EQ(1000u, timeout);
    fill(4);
    EXPECT_EQ(0, fmon_get_selectable_fds(&fds, &timeout)); /* above the limit as well */
    fmon_drop_event(id);
    fmon_drop_event(id);
    EXPECT_EQ(1, fmon_get_selectable_fds(&fds, &timeout));
}

/* ---- the run step ---- */

TEST_F(Run, ReadsTheBackend)
{
    backend.read_result = 17;
    EXPECT_EQ(17, fmon_run(500));
    EXPECT_EQ(1, backend.count("read_event(500)"));
    backend.read_result = -5;
    EXPECT_EQ(-5, fmon_run(501));
}

TEST_F(Run, HandsTheBackendTheTable)
{
    backend.on_read = [&](struct fmon *object, uint32_t, fmon_event_cb cb) {
        EXPECT_EQ(&fmon, object);
        return cb(object, dentry(dir), "f", FMON_CREATE, 3, kFd, nullptr);
    };
    EXPECT_EQ(0, fmon_run(500));
    EXPECT_NE(nullptr, record(dir + "/f", 3));
}

TEST_F(FullTable, ReadsNothingButRetriesWaitingWatches)
{
    fill(3);
    backend.read_result = 17;
    EXPECT_TRUE(passes(2000));
    EXPECT_EQ(0, backend.count("read_event(2000)"));
    EXPECT_EQ(2000u, fmon.tbd_last);
    fmon_drop_event(id);
    EXPECT_EQ(17, fmon_run(2001));
}

TEST_F(Run, PassIsDueAfterMoreThanTheInterval)
{
    EXPECT_FALSE(passes(999));
    EXPECT_FALSE(passes(1000));
    EXPECT_EQ(0u, fmon.tbd_last);
    EXPECT_TRUE(passes(1001));
    EXPECT_EQ(1001u, fmon.tbd_last);
    EXPECT_FALSE(passes(2001));
    EXPECT_TRUE(passes(2002));
}

TEST_F(Run, TimerWrapIsHarmless)
{
    fmon.tbd_interval = 30000;
    fmon.tbd_last = static_cast<uint32_t>(-296); /* 301 ms before 5 */
    EXPECT_FALSE(passes(5));
    fmon.tbd_last = static_cast<uint32_t>(-296);
    EXPECT_FALSE(passes(29704));
    EXPECT_TRUE(passes(29705));
    EXPECT_EQ(29705u, fmon.tbd_last);
    fmon.tbd_last = 0xffffffff;
    EXPECT_FALSE(passes(0));
    EXPECT_FALSE(passes(0xffffffff));
    EXPECT_TRUE(passes(0xfffffffe)); /* a clock that went back counts as far ahead */
}

TEST_F(Run, PassComesBeforeTheReading)
{
    std::string path = tree.dir("late");
    tree.remove("late");
    ASSERT_EQ(0, add(id, path, FMON_CREATE, FMON_DIR | FMON_DELETED));
    tree.dir("late");
    backend.on_read = [&](struct fmon *, uint32_t, fmon_event_cb) {
        EXPECT_NE(nullptr, find(id, path)->dentry);
        return 0;
    };
    fmon_run(5000);
    EXPECT_EQ(1, backend.count("read_event(5000)"));
}

/* ---- reading events ---- */

TEST_F(Run, PeekLeavesTheRecord)
{
    fill(1);
    struct event *ev = fmon_peek_event(id);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(ev, fmon_peek_event(id));
    EXPECT_EQ(1u, ev->ref);
    EXPECT_EQ(1, fmon_has_event(id));
}

TEST_F(Run, PeekOfAnEmptyQueueClearsTheBitAndNeverSetsOne)
{
    int other = instance("other");
    fmon.event_mask = 3;
    EXPECT_EQ(nullptr, fmon_peek_event(other));
    EXPECT_EQ(1u, *fmon_get_event_mask());
    EXPECT_EQ(nullptr, fmon_peek_event(other));
    EXPECT_EQ(1u, *fmon_get_event_mask());
    fill(1);
    fmon.event_mask = 0;
    EXPECT_NE(nullptr, fmon_peek_event(id));
    EXPECT_EQ(0u, *fmon_get_event_mask());
}

TEST_F(Run, ReadTakesTheRecordOffTheQueue)
{
    fill(2);
    struct event *ev = fmon_read_event(id);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(dir + "/f0", ev->path);
    EXPECT_EQ(0u, ev->ref);
    EXPECT_EQ(1u, queued(id));
    EXPECT_EQ(2, fmon.event_count); /* until it is freed */
    EXPECT_EQ(1u, *fmon_get_event_mask());
    EXPECT_EQ((Lines{fmon_line(4, "free event " + dir + "/f0\n")}), log_of([&] { fmon_free_event(ev); }));
    EXPECT_EQ(1, fmon.event_count);
}

TEST_F(Run, ReadOfAnEmptyQueueClearsTheBit)
{
    fmon.event_mask = 1;
    EXPECT_EQ(nullptr, fmon_read_event(id));
    EXPECT_EQ(0u, *fmon_get_event_mask());
}

TEST_F(Run, LastReadLeavesTheBitUntilTheNextLook)
{
    fill(1);
    fmon_drop_event(id);
    EXPECT_EQ(0, fmon_has_event(id));
    EXPECT_EQ(1u, *fmon_get_event_mask());
    fmon_drop_event(id);
    EXPECT_EQ(0u, *fmon_get_event_mask());
}

TEST_F(Run, RecordThatWasReadStillTakesEventsIn)
{
    fill(1);
    struct event *ev = fmon_read_event(id);
    process(dir, "f0", FMON_MODIFY);
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ(FMON_CREATE | FMON_MODIFY, ev->mask);
    EXPECT_EQ(ev, fmon_peek_event(id)); /* queued again */
    EXPECT_TRUE(log_of([&] { fmon_free_event(ev); }).empty());
    EXPECT_EQ(1, fmon.event_count);
}

TEST_F(Run, DropFreesOnlyWhatNobodyElseHolds)
{
    int other = instance("other");
    ASSERT_EQ(0, add(other, dir, FMON_CREATE));
    fill(1);
    ASSERT_EQ(3u, fmon_peek_event(id)->ref);
    EXPECT_TRUE(log_of([&] { fmon_drop_event(id); }).empty());
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ((Lines{fmon_line(4, "free event " + dir + "/f0\n")}), log_of([&] { fmon_drop_event(other); }));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Run, DropKeepsWhatIsHeldBack)
{
    int other = instance("other");
    ASSERT_EQ(0, add(other, dir, FMON_MODIFY | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY));
    process(dir, "f", FMON_MODIFY);
    ASSERT_EQ(2u, fmon_peek_event(id)->pending);
    fmon_drop_event(id);
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_NE(nullptr, record(dir + "/f"));
}

TEST_F(Run, DropOfAnEmptyQueueDoesNothing)
{
    EXPECT_TRUE(log_of([&] { fmon_drop_event(id); }).empty());
}

TEST_F(Run, SlotNeverUsedHasNoEvents)
{
    for (int never : {5, 31}) {
        EXPECT_EQ(0, fmon_has_event(never));
        EXPECT_EQ(nullptr, fmon_peek_event(never));
        EXPECT_EQ(nullptr, fmon_read_event(never));
        fmon_drop_event(never);
    }
}

TEST_F(Run, DestroyedSlotHasNoEvents)
{
    fill(2);
    fmon_destroy_instance(id);
    EXPECT_EQ(0, fmon_has_event(id));
    EXPECT_EQ(nullptr, fmon_peek_event(id));
    EXPECT_EQ(nullptr, fmon_read_event(id));
}

TEST_F(Run, EventMaskIsLive)
{
    uint32_t *mask = fmon_get_event_mask();
    EXPECT_EQ(0u, *mask);
    fill(1);
    EXPECT_EQ(1u, *mask);
    EXPECT_EQ(&fmon.event_mask, mask);
}

/* A queue entry without a record does not occur; were there one, it would be dropped like any other. */
TEST_F(Run, EntryWithoutARecordIsDropped)
{
    auto *entry = static_cast<struct event_entry *>(calloc(1, sizeof(struct event_entry)));
    list_add_tail(&entry->link, &fmon.instances[id].events);
    EXPECT_EQ(1, fmon_has_event(id));
    fmon_drop_event(id);
    EXPECT_EQ(0, fmon_has_event(id));
    entry = static_cast<struct event_entry *>(calloc(1, sizeof(struct event_entry)));
    list_add_tail(&entry->link, &fmon.instances[id].events);
    EXPECT_EQ(0, fmon_destroy_instance(id));
}

TEST_F(Run, RateControlIsTheBackends)
{
    backend.rate_result = 3;
    EXPECT_EQ(3, fmon_rate_ctrl(10, 200, 0));
    EXPECT_EQ(1, backend.count("rate_ctrl(10,200,0)"));
}

/* ---- a table full of what is held back ---- */

class HeldBack : public CoreTest
{
protected:
    explicit HeldBack(int max_events = 16) : CoreTest(max_events), id(instance()), dir(tree.dir("d"))
    {
        EXPECT_EQ(0, add(id, dir, FMON_MODIFY | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY));
        backend.fds = {4};
    }
    void hold(int n)
    {
        for (int i = 0; i < n; i++)
            ASSERT_EQ(0, process(dir, "f" + std::to_string(made++), FMON_MODIFY));
    }
    /* The names of what a client is given, taken off. */
    Lines deliver(int of)
    {
        Lines out;
        while (struct event *ev = fmon_peek_event(of)) {
            out.push_back(std::string(ev->path).substr(dir.size() + 1) + ":" + event_str(ev->mask));
            fmon_drop_event(of);
        }
        return out;
    }
    static int selectable(uint32_t *timeout)
    {
        int32_t *fds = nullptr;
        return fmon_get_selectable_fds(&fds, timeout);
    }
    int id, made = 0;
    std::string dir;
};

TEST_F(HeldBack, OldestAreHandedOnUntilAnEighthIsFree)
{
    hold(16);
    log_clear();
    uint32_t timeout = 1000;
    EXPECT_EQ(0, selectable(&timeout));
    if (!hardened()) {
        EXPECT_EQ(1000u, timeout);
        EXPECT_EQ(0u, queued(id));
        return;
    }
    EXPECT_EQ(0u, timeout) << "there is something to deliver";
    EXPECT_EQ(0, fmon_run(5));
    EXPECT_EQ(0, backend.count("read_event(5)")) << "it is still full";
    EXPECT_TRUE(logged(2, "event table full: 2 events that wait for a close are handed on as they are\n"));
    EXPECT_EQ(2u, fmon.released);
    EXPECT_EQ((Lines{"f0:modify", "f1:modify"}), deliver(id));
    EXPECT_EQ(14, fmon.event_count);
    EXPECT_EQ(1, selectable(&timeout));
    EXPECT_EQ(0, fmon_run(6));
    EXPECT_EQ(1, backend.count("read_event(6)"));
    EXPECT_EQ(1, log_count_containing("event table full"));
}

TEST_F(HeldBack, RunAloneMakesRoomToo)
{
    hold(16);
    EXPECT_EQ(0, fmon_run(5));
    EXPECT_EQ(hardened() ? 2u : 0u, queued(id));
}

TEST_F(HeldBack, ThoseThatCameLaterGoOnWaiting)
{
    hold(15);
    EXPECT_EQ(0, process(dir, "f0", FMON_MODIFY)) << "an old one goes on counting from its first event";
    hold(1);
    fmon_run(5);
    EXPECT_EQ(hardened() ? (Lines{"f0:modify", "f1:modify"}) : Lines{}, deliver(id));
    EXPECT_EQ(0, process(dir, "f9", FMON_CLOSE_WRITE));
    EXPECT_EQ(Lines{"f9:modify,close_write"}, deliver(id));
}

TEST_F(HeldBack, NothingIsHandedOnWhileAnybodyHasSomethingToRead)
{
    const int other = instance("other");
    ASSERT_EQ(0, add(other, tree.dir("e"), FMON_CREATE));
    hold(15);
    ASSERT_EQ(0, process(tree.path("e"), "x", FMON_CREATE));
    fmon_run(5);
    EXPECT_EQ(0u, queued(id));
    fmon_drop_event(other);
    hold(1);
    fmon_run(5);
    EXPECT_EQ(hardened() ? 2u : 0u, queued(id));
}

TEST_F(HeldBack, EverybodyWhoHoldsARecordIsGivenIt)
{
    const int other = instance("other");
    ASSERT_EQ(0, add(other, dir, FMON_MODIFY | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY));
    hold(16);
    fmon_run(5);
    if (!hardened())
        return;
    EXPECT_EQ(2u, deliver(id).size());
    EXPECT_EQ(16, fmon.event_count);
    EXPECT_EQ(2u, deliver(other).size());
    EXPECT_EQ(14, fmon.event_count);
}

TEST_F(HeldBack, RecordsOfDeadInstancesAreFreed)
{
    const int other = instance("other");
    ASSERT_EQ(0, add(other, tree.dir("e"), FMON_MODIFY | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY));
    for (int i = 0; i < 16; i++)
        ASSERT_EQ(0, process(tree.path("e"), std::to_string(i), FMON_MODIFY));
    ASSERT_EQ(0, fmon_destroy_instance(other));
    fmon_run(5);
    EXPECT_EQ(hardened() ? 14 : 16, fmon.event_count);
    EXPECT_EQ(0u, queued(id));
}

TEST_F(HeldBack, WithoutMemoryTheyAreHeldUntilTheNextTurn)
{
    hold(16);
    {
        Fault fault("malloc");
        fmon_run(5);
        EXPECT_EQ(hardened(), fault.hit());
    }
    EXPECT_EQ(0u, queued(id));
    EXPECT_EQ(0u, fmon.released);
    EXPECT_EQ(hardened() ? 1u : 0u, fmon.lost.memory);
    fmon_run(5);
    EXPECT_EQ(hardened() ? 2u : 0u, queued(id));
}

class HeldBackOne : public HeldBack
{
protected:
    HeldBackOne() : HeldBack(1) {}
};

TEST_F(HeldBackOne, ASmallTableFreesOne)
{
    hold(1);
    fmon_run(5);
    EXPECT_EQ(hardened() ? 1u : 0u, queued(id));
    EXPECT_EQ(hardened() ? 1u : 0u, fmon.released);
}

}  // namespace
