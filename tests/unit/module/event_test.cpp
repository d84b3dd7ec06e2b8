/* Tests of event.h: the table of records: what is merged, queued, counted and freed. */

#include <cstring>
#include <map>
#include <random>

#include "core_fixture.h"

namespace
{

using namespace testlib;

constexpr uint32_t kModify = FMON_MODIFY, kClose = FMON_CLOSE_WRITE, kOpen = FMON_OPEN;

uint32_t djb2(const std::string &text)
{
    uint64_t h = 5381;
    for (unsigned char c : text)
        h = (h * 33 + c) & 0xffffffff;
    return static_cast<uint32_t>(h);
}

/* ---- records ---- */

class EventTest : public CoreTest
{
protected:
    EventTest() : dir(tree.dir("d"))
    {
        id = instance();
        EXPECT_EQ(0, add(id, dir, FMON_ALL_EVENTS));
        log_clear();
    }
    std::string dir;
    int id;
};

TEST_F(EventTest, NewRecordHoldsWhatTheEventSaid)
{
    ASSERT_EQ(0, process(dir, "f", kModify, 42));
    struct event *ev = record(dir + "/f", 42);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(kModify, ev->mask);
    EXPECT_EQ(42u, ev->pid);
    EXPECT_EQ(1u, ev->ref);
    EXPECT_EQ(0u, ev->pending);
    EXPECT_EQ(nullptr, ev->container);
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ(1u, fmon.event_mask);
    EXPECT_EQ(ev, fmon_peek_event(id));
}

TEST_F(EventTest, NewRecordIsLogged)
{
    std::string path = dir + "/f";
    EXPECT_EQ((Lines{event_line(4, "create new event: " + path + ", len:" + std::to_string(path.size()) +
                                       ", ev: modify, pid: 42\n"),
                     event_line(4, "instance 0 prefer this event\n"), event_line(4, "dispatch event to 0")}),
              log_of([&] { process(dir, "f", kModify, 42); }));
}

TEST_F(EventTest, MergeIsLoggedWithBothMasks)
{
    process(dir, "f", kModify);
    EXPECT_EQ((Lines{event_line(4, "merge into old event, old event modify, new event close_write\n")}),
              log_of([&] { process(dir, "f", kClose); }));
    EXPECT_EQ((Lines{event_line(4, "merge into old event, old event modify,close_write, new event open\n")}),
              log_of([&] { process(dir, "f", kOpen); }));
}

TEST_F(EventTest, RepeatedEventsOfOneProcessAreOneRecordWithOneEntry)
{
    for (int i = 0; i < 5; i++)
        ASSERT_EQ(0, process(dir, "f", kModify, 42));
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ(1u, queued(id));
    EXPECT_EQ(kModify, fmon_peek_event(id)->mask);
}

TEST_F(EventTest, MergeAddsKinds)
{
    process(dir, "f", kModify, 42);
    process(dir, "f", kClose, 42);
    process(dir, "f", kOpen, 42);
    EXPECT_EQ(kModify | kClose | kOpen, fmon_peek_event(id)->mask);
    EXPECT_EQ(1u, queued(id));
}

TEST_F(EventTest, ProcessesAreKeptApart)
{
    process(dir, "f", kModify, 42);
    process(dir, "f", kModify, 43);
    process(dir, "f", kModify, 0);
    EXPECT_EQ(3, fmon.event_count);
    EXPECT_EQ(3u, queued(id));
}

TEST_F(EventTest, EventWithoutANameIsTheDirectorys)
{
    process(dir, "", FMON_DELETE_SELF);
    EXPECT_NE(nullptr, record(dir));
}

TEST_F(EventTest, PathAndDentryEventsOfOneObjectMerge)
{
    process(dir, "f", kModify, 42);
    process_path(dir + "/f", kClose, 42);
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ(kModify | kClose, record(dir + "/f", 42)->mask);
}

TEST_F(EventTest, HostileNamesArriveWhole)
{
    const std::string names[] = {"%n%s%x", "a\nb", "\x1b[31m", "\xff\xfe", "*", std::string(255, 'n'), " ", "-rf"};
    for (const std::string &name : names) {
        ASSERT_EQ(0, process(dir, name, kModify));
        EXPECT_NE(nullptr, record(dir + "/" + name)) << name;
    }
    EXPECT_EQ(static_cast<int>(std::size(names)), fmon.event_count);
}

TEST_F(EventTest, RecordsStandInTheChainOfTheirPathsHash)
{
    for (int i = 0; i < 60; i++)
        process(dir, "f" + std::to_string(i), kModify);
    int seen = 0;
    for (uint32_t i = 0; i < 32; i++)
        for (hlink *node = fmon.hash[i]; node; node = node->next, seen++)
            EXPECT_EQ(i, djb2(FMON_RECORD(node, struct event, link)->path) % 32);
    EXPECT_EQ(60, seen);
}

class LargeTable : public CoreTest
{
protected:
    LargeTable() : CoreTest(12000) {}
};

/* A thousand chains: bytes above 127 would fall into another one if they counted as negative. */
TEST_F(LargeTable, BytesCountAsUnsigned)
{
    int id = instance();
    std::string dir = tree.dir("d");
    ASSERT_EQ(0, add(id, dir, kModify));
    for (const char *name : {"\x80", "\xff", "a\xc3\xa4", "\xfe\xff"}) {
        process(dir, name, kModify);
        struct event *ev = record(dir + "/" + name);
        ASSERT_NE(nullptr, ev);
        EXPECT_EQ(&ev->link, fmon.hash[djb2(dir + "/" + name) % 1000]);
    }
}

TEST_F(EventTest, EqualHashesAreToldApartAndStandNewestFirst)
{
    ASSERT_EQ(djb2(dir + "/Ab"), djb2(dir + "/BA"));
    process(dir, "Ab", kModify);
    process(dir, "BA", kModify);
    process(dir, "Ab", kClose);
    process(dir, "BA", kOpen);
    ASSERT_EQ(2, fmon.event_count);
    struct event *older = record(dir + "/Ab"), *newer = record(dir + "/BA");
    EXPECT_EQ(kModify | kClose, older->mask);
    EXPECT_EQ(kModify | kOpen, newer->mask);
    EXPECT_EQ(&newer->link, fmon.hash[djb2(dir + "/BA") % 32]);
    EXPECT_EQ(&older->link, newer->link.next);
}

TEST_F(EventTest, AnyRecordOfAChainCanLeaveIt)
{
    const std::string names[] = {"AbAb", "AbBA", "BAAb"}; /* one hash */
    for (const std::string &out : names) {
        for (const std::string &name : names)
            process(dir, name, kModify);
        ASSERT_EQ(3, fmon.event_count);
        struct event *leaving = record(dir + "/" + out);
        leaving->ref = 0;
        FMON_LIST_EACH_SAFE (node, &fmon.instances[id].events) {
            auto *entry = FMON_RECORD(node, struct event_entry, link);
            if (entry->ev == leaving) {
                list_unlink(node);
                free(entry);
            }
        }
        fmon_free_event(leaving);
        for (const std::string &name : names)
            EXPECT_EQ(name != out, record(dir + "/" + name) != nullptr) << out << " " << name;
        process(dir, out, kOpen);
        EXPECT_EQ(kOpen, record(dir + "/" + out)->mask);
        while (fmon_has_event(id))
            fmon_drop_event(id);
        ASSERT_EQ(0, fmon.event_count);
    }
}

/* Against a model: random events, drops and instances that come and go. */
TEST_F(EventTest, RandomTrafficKeepsTheTableWhole)
{
    std::mt19937 random(7);
    auto pick = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    std::map<std::pair<std::string, uint32_t>, uint32_t> model; /* what the queue of `id` must hold */
    for (int step = 0; step < 20000; step++) {
        if (pick(3)) {
            std::string name = (pick(2) ? "Ab" : "BA") + std::to_string(pick(200));
            uint32_t pid = pick(3), kind = 1U << pick(12);
            ASSERT_EQ(0, process(dir, name, kind, pid));
            model[{dir + "/" + name, pid}] |= kind;
        } else if (struct event *ev = fmon_peek_event(id)) {
            auto found = model.find({ev->path, ev->pid});
            ASSERT_NE(model.end(), found);
            ASSERT_EQ(found->second, ev->mask);
            model.erase(found);
            fmon_drop_event(id);
        }
        ASSERT_EQ(static_cast<int>(model.size()), fmon.event_count);
    }
    EXPECT_EQ(model.size(), table_records().size());
    EXPECT_EQ(model.size(), queued(id));
    for (struct event *ev : table_records())
        EXPECT_EQ(1u, model.count({ev->path, ev->pid}));
}

/* Read by instance 0, still held by instance 1: the next event queues it for instance 0 again, with the old kinds. */
TEST_F(EventTest, RecordReadByOneHolderIsQueuedForItAgain)
{
    int other = instance("other");
    ASSERT_EQ(0, add(other, dir, FMON_ALL_EVENTS));
    process(dir, "f", kModify);
    struct event *ev = fmon_read_event(id);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(2u, ev->ref);
    fmon_free_event(ev);
    EXPECT_EQ(0u, queued(id));

    process(dir, "f", kClose);
    ASSERT_EQ(1u, queued(id));
    EXPECT_EQ(ev, fmon_peek_event(id));
    EXPECT_EQ(kModify | kClose, ev->mask);
    EXPECT_EQ(3u, ev->ref);
    EXPECT_EQ(1u, queued(other));
    EXPECT_EQ(1, fmon.event_count);
}

/* ---- what destroyed instances leave behind ---- */

class DelayedTest : public EventTest
{
protected:
    DelayedTest()
    {
        holder = instance("holder");
        EXPECT_EQ(0, add(holder, dir, kModify | kClose, FMON_DIR | FMON_DELAY));
        find(id, dir)->mask = kOpen;
        log_clear();
    }
    int holder;
};

TEST_F(DelayedTest, MergeForgetsWhatADestroyedInstanceHeldBack)
{
    process(dir, "f", kModify);
    ASSERT_EQ(2u, record(dir + "/f")->pending);
    fmon_destroy_instance(holder);
    EXPECT_EQ(2u, record(dir + "/f")->pending); /* until the next merge */
    process(dir, "f", kOpen);
    EXPECT_EQ(0u, record(dir + "/f")->pending);
    EXPECT_EQ(1u, record(dir + "/f")->ref);
}

TEST_F(DelayedTest, MergeFreesARecordThatOnlyADestroyedInstanceHeld)
{
    process(dir, "f", kModify);
    fmon_destroy_instance(holder);
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ((Lines{event_line(4, "merge into old event, old event modify, new event close_write\n"),
                     event_line(4, "clear deleted instance's pending event\n")}),
              log_of([&] { process(dir, "f", kClose); }));
    EXPECT_EQ(0, fmon.event_count);
    EXPECT_EQ(nullptr, record(dir + "/f"));
    EXPECT_EQ(0, backend.count("punish(7," + dir + "/f)"));
}

TEST_F(DelayedTest, AnIdUsedAgainInheritsWhatWasHeldBack)
{
    process(dir, "f", kModify);
    fmon_destroy_instance(holder);
    ASSERT_EQ(holder, instance("heir"));
    process(dir, "f", kClose);
    ASSERT_NE(nullptr, record(dir + "/f"));
    EXPECT_EQ(2u, record(dir + "/f")->pending);
    EXPECT_EQ(0u, queued(holder));
}

TEST_F(DelayedTest, OneHoldsWhatAnotherIsGiven)
{
    process(dir, "f", kModify | kOpen);
    EXPECT_EQ(1u, record(dir + "/f")->ref);
    EXPECT_EQ(2u, record(dir + "/f")->pending);
    fmon_drop_event(id);
    EXPECT_EQ(1, fmon.event_count); /* still held back */
    process(dir, "f", kClose);
    EXPECT_EQ(1u, queued(holder));
    EXPECT_EQ(1u, queued(id)); /* the record's open is offered to it again */
    fmon_drop_event(holder);
    fmon_drop_event(id);
    EXPECT_EQ(0, fmon.event_count);
}

/* ---- memory ---- */

TEST_F(EventTest, PathThatCannotBeBuiltLosesTheEvent)
{
    std::string before = snapshot();
    EXPECT_EQ(FMON_ENOMEM, process(dir, std::string(1024, 'x'), kModify));
    EXPECT_EQ(before, snapshot());
}

TEST_F(EventTest, NeitherDentryNorPathIsNoEvent)
{
    EXPECT_EQ(FMON_ENOMEM, event_process(&fmon, nullptr, nullptr, kModify, 0, kFd, nullptr));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(EventTest, EachAllocationOfANewRecordCanFail)
{
    for (bool by_path : {false, true}) {
        std::string before = snapshot();
        auto send = [&] { return by_path ? process_path(dir + "/f", kModify) : process(dir, "f", kModify); };
        {
            Fault fault("malloc"); /* the path */
            EXPECT_EQ(FMON_ENOMEM, send());
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(before, snapshot());
        {
            Fault fault("calloc"); /* the record */
            EXPECT_EQ(FMON_ENOMEM, send());
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(before, snapshot());
        log_clear();
        {
            Fault fault("malloc", 2); /* the delivery entry: the only taker misses it, so nobody wants the record */
            EXPECT_EQ(0, send());
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_TRUE(logged(1, "event1 malloc fail\n")) << log_text();
        EXPECT_TRUE(logged(4, "not watch prefer this event\n"));
        EXPECT_EQ(before, snapshot());
    }
    EXPECT_EQ(0, fail_each("realloc", ENOMEM, [&](Fault &) { EXPECT_EQ(0, process(dir, "f", kModify)); }));
}

TEST_F(EventTest, MergeThatCannotBuildItsPathIsLost)
{
    process(dir, "f", kModify);
    std::string before = snapshot();
    {
        Fault fault("malloc");
        EXPECT_EQ(FMON_ENOMEM, process(dir, "f", kClose));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(before, snapshot());
}

TEST_F(DelayedTest, EntryThatFailsAtTheCompletionLeavesNothingHeld)
{
    process(dir, "f", kModify);
    {
        Fault fault("malloc", 2);
        EXPECT_EQ(0, process(dir, "f", kClose));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(logged(1, "event1 malloc fail\n"));
    EXPECT_TRUE(logged(4, "clear deleted instance's pending event\n")); /* nobody is left, whatever the reason */
    EXPECT_EQ(0, fmon.event_count);
}

/* ---- the dump of the table ---- */

TEST_F(EventTest, DumpOfAnEmptyTable)
{
    EXPECT_EQ((Lines{event_line(4, "\nEvents:\n"), event_line(4, "count: 0\n")}), log_of([] { event_dump(&fmon); }));
}

TEST_F(EventTest, DumpShowsEveryRecord)
{
    process(dir, "f", kModify | kOpen, 42);
    EXPECT_EQ((Lines{event_line(4, "\nEvents:\n"), event_line(4, "count: 1\n"),
                     event_line(4, "  " + dir + "/f, event open,modify pid 42, ref 1, pending 0\n")}),
              log_of([] { event_dump(&fmon); }));
}

TEST_F(EventTest, DumpGoesByChainAndNewestFirst)
{
    process(dir, "Ab", kModify);
    process(dir, "BA", kModify);
    Lines lines = log_of([] { event_dump(&fmon); });
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(event_line(4, "  " + dir + "/BA, event modify pid 0, ref 1, pending 0\n"), lines[2]);
    EXPECT_EQ(event_line(4, "  " + dir + "/Ab, event modify pid 0, ref 1, pending 0\n"), lines[3]);
}

TEST(EventDump, WorksWithoutATable)
{
    struct fmon monitor = {};
    EXPECT_EQ((Lines{event_line(4, "\nEvents:\n"), event_line(4, "count: 0\n")}),
              log_of([&] { event_dump(&monitor); }));
}

/* ---- losses ---- */

TEST_F(EventTest, EventWithoutMemoryIsCounted)
{
    uint64_t lost = 0;
    fail_each_then(
        "malloc", [&] { process(dir, "f", kModify, 42); },
        [&](bool hit) {
            lost += hit;
            EXPECT_EQ(lost, fmon.lost.memory);
            while (fmon_peek_event(id))
                fmon_drop_event(id);
        });
    EXPECT_EQ(2U, lost) << "the path and the delivery";
    Fault record("calloc");
    EXPECT_EQ(FMON_ENOMEM, process(dir, "f", kModify, 42));
    EXPECT_EQ(3U, fmon.lost.memory);
    EXPECT_EQ(0U, fmon.lost.path);
}

TEST_F(EventTest, PathlessEventWithoutMemoryIsCounted)
{
    Fault fault("malloc");
    EXPECT_EQ(FMON_ENOMEM, process_path(dir + "/f", kModify));
    EXPECT_EQ(1U, fmon.lost.memory);
}

}  // namespace
