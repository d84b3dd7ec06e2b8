/* Events for the whole system: which instances are given them. */
#include "dispatch_fixture.h"

namespace
{

using namespace testlib;

class GlobalDispatch : public Dispatch
{
protected:
    int global(const std::string &name, uint32_t mask)
    {
        int id = instance(name);
        EXPECT_EQ(0, fmon_add_global_watch(id, mask));
        return id;
    }
    int probe(const std::string &path, uint32_t mask, uint32_t pid = 9) { return process_path(path, mask, pid, 0); }
};

TEST_F(GlobalDispatch, GoesToTheInstancesThatWantAKindAndToNoOther)
{
    global("close", kClose);
    global("create", kCreate);
    instance("none");
    global("both", kClose | kCreate);
    probe("/x/f", kClose);
    EXPECT_EQ(9u, takers("/x/f", 9));
    EXPECT_EQ(9u, fmon.event_mask);
    probe("/x/g", kCreate);
    EXPECT_EQ(0xau, takers("/x/g", 9));
    probe("/x/h", FMON_DELETE);
    EXPECT_EQ(nullptr, record("/x/h", 9));
}

TEST_F(GlobalDispatch, IsLogged)
{
    global("a", kClose);
    global("b", kCreate);
    EXPECT_EQ((Lines{event_line(4, "create new event: /x, len:2, ev: close_write, pid: 9\n"),
                     event_line(4, "rest_mask=3, fmon->inst_mask = 3, fmon->global_instance_mask = 3, event_ref = 0"),
                     event_line(4, "dispatch event to 0")}),
              log_of([&] { probe("/x", kClose); }));
    EXPECT_EQ((Lines{event_line(4, "merge into old event, old event close_write, new event create\n"),
                     event_line(4, "rest_mask=2, fmon->inst_mask = 3, fmon->global_instance_mask = 3, event_ref = 1"),
                     event_line(4, "dispatch event to 1")}),
              log_of([&] { probe("/x", kCreate); }));
}

TEST_F(GlobalDispatch, WatchesOnTheWayAreNotAsked)
{
    int id = instance();
    ASSERT_EQ(0, add(id, "/", FMON_ALL_EVENTS, kTree));
    probe("/x", kClose);
    EXPECT_EQ(nullptr, record("/x", 9));
}

TEST_F(GlobalDispatch, EventOfADescriptorIsNotForTheWholeSystem)
{
    global("close", kClose);
    process_path("/x", kClose);
    EXPECT_EQ(nullptr, record("/x"));
}

TEST_F(GlobalDispatch, LinkKindReachesThoseWhoAskedForIt)
{
    global("all", FMON_ALL_EVENTS);
    global("link", FMON_LINK);
    probe("/x", FMON_LINK);
    EXPECT_EQ(2u, takers("/x", 9));
    EXPECT_EQ(0x1000u, fmon_peek_event(1)->mask);
    EXPECT_TRUE(logged(4, "create new event: /x, len:2, ev: , pid: 9\n")) << log_text();
}

TEST_F(GlobalDispatch, WholeMergedMaskCounts)
{
    global("close", kClose);
    global("create", kCreate);
    probe("/x", kClose);
    fmon_drop_event(0);
    EXPECT_EQ(0, fmon.event_count);
    probe("/x", kClose);
    probe("/x", kCreate);
    EXPECT_EQ(3u, takers("/x", 9));
    EXPECT_EQ(kClose | kCreate, fmon_peek_event(1)->mask);
}

TEST_F(GlobalDispatch, DestroyedInstanceIsLeftOut)
{
    int id = global("close", kClose);
    fmon_destroy_instance(id);
    EXPECT_EQ(1u, fmon.global_instance_mask); /* stays as it was */
    probe("/x", kClose);
    EXPECT_EQ(nullptr, record("/x", 9));
}

TEST_F(GlobalDispatch, AnIdUsedAgainWantsNothingOfItsOwn)
{
    int id = global("close", kClose);
    fmon_destroy_instance(id);
    ASSERT_EQ(id, instance("heir"));
    EXPECT_EQ(1u, fmon.global_instance_mask);
    probe("/x", kClose);
    EXPECT_EQ(nullptr, record("/x", 9));
}

TEST_F(GlobalDispatch, LastInstanceIsReached)
{
    for (int i = 0; i < FMON_MAX_INSTANCES - 1; i++)
        instance("i" + std::to_string(i));
    EXPECT_EQ(31, global("last", kClose));
    probe("/x", kClose);
    EXPECT_EQ(0x80000000u, takers("/x", 9));
}

/* A record that an instance holds back for a delayed watch loses that when the instance is asked for its system-wide
 * kinds, whether it is given the record or not. */
TEST_F(GlobalDispatch, ClearsWhatIsHeldBack)
{
    int id = global("delete", FMON_DELETE);
    ASSERT_EQ(0, add(id, dir, kModify | kClose, FMON_DIR | FMON_DELAY));
    process(dir, "f", kModify, 9);
    ASSERT_EQ(1u, record(dir + "/f", 9)->pending);
    probe(dir + "/f", kCreate);
    EXPECT_EQ(nullptr, record(dir + "/f", 9));
    EXPECT_EQ(0, fmon.event_count);
    EXPECT_TRUE(logged(4, "clear deleted instance's pending event\n"));
}

TEST_F(GlobalDispatch, StopsAtTheFirstEntryThatFails)
{
    for (int i = 0; i < 4; i++)
        global("i" + std::to_string(i), kClose);
    for (int failing = 0; failing < 4; failing++) {
        Fault fault("malloc", 2 + failing);
        log_clear();
        EXPECT_EQ(0, probe("/x", kClose));
        EXPECT_EQ((1u << failing) - 1, takers("/x", 9));
        EXPECT_EQ(1, log_count(1, "event1 malloc fail\n"));
        for (int i = 0; i < failing; i++)
            fmon_drop_event(i);
        EXPECT_EQ(0, fmon.event_count);
    }
}

}  // namespace
