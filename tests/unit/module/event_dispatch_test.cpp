#include "core_fixture.h"

namespace
{

using namespace testlib;

constexpr uint32_t kModify = FMON_MODIFY, kClose = FMON_CLOSE_WRITE, kCreate = FMON_CREATE;
constexpr uint32_t kTree = FMON_DIR | FMON_RECURSIVE;

class Dispatch : public CoreTest
{
protected:
    Dispatch() : dir(tree.dir("d")), punished("punish(7," + dir + "/f)") {}

    /* The instances whose queue holds the record of that path. */
    uint32_t takers(const std::string &path, uint32_t pid = 0)
    {
        struct event *ev = record(path, pid);
        return ev ? ev->ref : 0;
    }

    std::string dir, punished;
};

/* ---- by dentry ---- */

TEST_F(Dispatch, WatchesUpToTheRootAreAsked)
{
    std::string deep = tree.dir("d/e/f");
    int at_root = instance("root"), at_dir = instance("dir"), at_leaf = instance("leaf");
    ASSERT_EQ(0, add(at_root, "/", kCreate, kTree));
    ASSERT_EQ(0, add(at_dir, dir, kCreate, kTree));
    ASSERT_EQ(0, add(at_leaf, deep, kCreate));
    process(deep, "x", kCreate);
    EXPECT_EQ(7u, takers(deep + "/x"));
    process(dir + "/e", "x", kCreate);
    EXPECT_EQ(3u, takers(dir + "/e/x"));
    process("/", "x", kCreate);
    EXPECT_EQ(1u, takers("/x"));
}

TEST_F(Dispatch, StartsAtTheChildWhereItIsCached)
{
    std::string file = tree.file("d/f");
    int id = instance();
    ASSERT_EQ(0, add(id, file, kModify, FMON_FILE));
    process(dir, "f", kModify);
    EXPECT_EQ(1u, takers(file));
    process(dir, "g", kModify);
    EXPECT_EQ(nullptr, record(dir + "/g"));
}

TEST_F(Dispatch, DirectoryItselfIsAskedWithoutAName)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, FMON_DELETE_SELF));
    process(dir, "", FMON_DELETE_SELF);
    EXPECT_EQ(1u, takers(dir));
}

TEST_F(Dispatch, SiblingsAreNotAsked)
{
    int id = instance();
    ASSERT_EQ(0, add(id, tree.dir("e"), kCreate, kTree));
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, dir.c_str()));
    process(dir, "f", kCreate);
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Dispatch, EventOfAProbeWithADentryIsNotForTheWholeSystem)
{
    int id = instance(), global = instance("global");
    ASSERT_EQ(0, add(id, dir, kCreate));
    ASSERT_EQ(0, fmon_add_global_watch(global, kCreate));
    process(dir, "f", kCreate, 5, 0);
    EXPECT_EQ(1u, takers(dir + "/f", 5));
}

TEST_F(Dispatch, InstanceIsGivenARecordOnceHoweverManyWatchesMatch)
{
    int id = instance();
    ASSERT_EQ(0, add(id, "/", kCreate, kTree));
    ASSERT_EQ(0, add(id, tree.root(), kCreate, kTree));
    ASSERT_EQ(0, add(id, dir, kCreate));
    process(dir, "f", kCreate);
    EXPECT_EQ(1u, queued(id));
}

TEST_F(Dispatch, WatchesOfOneDentryAreAskedInTheirOrder)
{
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(0, add(instance("i" + std::to_string(i)), dir, kCreate));
    Lines lines = log_of([&] { process(dir, "f", kCreate); });
    ASSERT_EQ(7u, lines.size());
    for (size_t i = 0; i < 3; i++) {
        std::string id = std::to_string(i);
        EXPECT_EQ(event_line(4, "instance " + id + " prefer this event\n"), lines[1 + 2 * i]);
        EXPECT_EQ(event_line(4, "dispatch event to " + id), lines[2 + 2 * i]);
    }
}

TEST_F(Dispatch, InnerWatchesAreAskedBeforeOuterOnes)
{
    int outer = instance("outer"), inner = instance("inner");
    ASSERT_EQ(0, add(outer, tree.root(), kCreate, kTree));
    ASSERT_EQ(0, add(inner, dir, kCreate));
    Lines lines = log_of([&] { process(dir, "f", kCreate); });
    EXPECT_EQ(event_line(4, "instance 1 prefer this event\n"), lines[1]);
    EXPECT_EQ(event_line(4, "instance 0 prefer this event\n"), lines[3]);
}

TEST_F(Dispatch, QueueKeepsTheOrderOfEvents)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, kCreate | kModify));
    for (const char *name : {"c", "a", "b"})
        process(dir, name, kCreate);
    process(dir, "c", kModify); /* a merge does not move it */
    for (const char *name : {"c", "a", "b"}) {
        EXPECT_EQ(dir + "/" + name, fmon_peek_event(id)->path);
        fmon_drop_event(id);
    }
}

TEST_F(Dispatch, AllInstancesCanTakeOneRecord)
{
    for (int i = 0; i < FMON_MAX_INSTANCES; i++)
        ASSERT_EQ(0, add(instance("i" + std::to_string(i)), dir, kCreate));
    process(dir, "f", kCreate);
    EXPECT_EQ(0xffffffffu, takers(dir + "/f"));
    EXPECT_EQ(0xffffffffu, fmon.event_mask);
    for (int i = 0; i < FMON_MAX_INSTANCES; i++) {
        EXPECT_EQ(1, fmon.event_count);
        EXPECT_EQ(1u, queued(i));
        fmon_drop_event(i);
    }
    EXPECT_EQ(0, fmon.event_count);
}

/* ---- by path ---- */

TEST_F(Dispatch, PathIsWalkedDownFromTheRoot)
{
    std::string file = tree.file("d/f");
    int at_root = instance("root"), at_dir = instance("dir"), at_file = instance("file");
    ASSERT_EQ(0, add(at_root, "/", kModify, kTree));
    ASSERT_EQ(0, add(at_dir, dir, kModify));
    ASSERT_EQ(0, add(at_file, file, kModify, FMON_FILE));
    Lines lines = log_of([&] { process_path(file, kModify); });
    EXPECT_EQ(7u, takers(file));
    for (size_t i = 0; i < 3; i++)
        EXPECT_EQ(event_line(4, "instance " + std::to_string(i) + " prefer this event\n"), lines[1 + 2 * i]);
}

TEST_F(Dispatch, PathWalkStopsWhereTheCacheEnds)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, kModify, kTree));
    process_path(dir + "/not/cached/f", kModify);
    EXPECT_EQ(1u, takers(dir + "/not/cached/f"));
    process_path(tree.root() + "/other/d/f", kModify);
    EXPECT_EQ(1, fmon.event_count);
}

TEST_F(Dispatch, PathWalkEndsAtAnEmptyComponent)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, kModify, kTree));
    process_path(tree.root() + "//d/f", kModify);
    EXPECT_EQ(0, fmon.event_count);
    process_path(dir + "//f", kModify);
    EXPECT_EQ(1, fmon.event_count);
}

TEST_F(Dispatch, PathWalkStopsAtAComponentLongerThan1024Bytes)
{
    int id = instance();
    ASSERT_EQ(0, add(id, "/", kModify, kTree));
    for (size_t length : {1023u, 1024u, 1025u, 4000u}) {
        std::string name(length, 'x'), path = "/" + name + "/f";
        struct dentry *d = dcache_add(&fmon.dcache, ("/" + name).c_str());
        struct watch w = {};
        if (d) {
            w.mask = kCreate;
            w.flags = kTree;
            w.path = const_cast<char *>("/");
            list_add_tail(&w.link, &owner_of(d)->watches);
        }
        ASSERT_EQ(length <= 1024, d != nullptr);
        process_path(path, kCreate);
        EXPECT_EQ(d ? 1u : 0u, takers(path)) << length;
        list_unlink(&w.link);
        fmon_drop_event(id);
    }
}

TEST_F(Dispatch, FirstCharacterOfAPathIsSkippedWhateverItIs)
{
    int id = instance();
    ASSERT_EQ(0, add(id, "/", kModify, kTree));
    struct dentry *d = dcache_add(&fmon.dcache, "/ipe:[7]");
    struct watch w = {};
    w.mask = kModify;
    w.flags = FMON_FILE;
    w.path = const_cast<char *>("/ipe:[7]");
    w.instance = static_cast<uint16_t>(instance("pipes"));
    list_add_tail(&w.link, &owner_of(d)->watches);
    process_path("pipe:[7]", kModify);
    EXPECT_EQ(3u, takers("pipe:[7]"));
    list_unlink(&w.link);
}

/* ---- nobody wants it ---- */

TEST_F(Dispatch, UnwantedEventOfADescriptorIsPunished)
{
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, dir.c_str()));
    EXPECT_EQ((Lines{event_line(4, "create new event: " + dir + "/f, len:" + std::to_string(dir.size() + 2) +
                                       ", ev: modify, pid: 0\n"),
                     event_line(4, "not watch prefer this event\n")}),
              log_of([&] { process_path(dir + "/f", kModify); }));
    EXPECT_EQ(1, backend.count(punished));
    EXPECT_EQ(0, fmon.event_count);
    process(dir, "f", kModify);
    EXPECT_EQ(2, backend.count(punished));
}

TEST_F(Dispatch, UnwantedEventOfAProbeIsNotPunished)
{
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, dir.c_str()));
    process(dir, "f", kModify, 5, 0);
    process_path(dir + "/f", kModify, 5, 0);
    EXPECT_EQ(2, log_count(4, "not watch prefer this event\n"));
    EXPECT_EQ(0, backend.count("punish(0," + dir + "/f)"));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Dispatch, AWatchMetOnTheWayPreventsThePunishment)
{
    int id = instance();
    ASSERT_EQ(0, add(id, "/", kCreate)); /* other kinds, and not recursive */
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, dir.c_str()));
    process_path(dir + "/f", kModify);
    process(dir, "f", kModify);
    EXPECT_EQ(2, log_count(4, "not watch prefer this event\n"));
    EXPECT_EQ(0, backend.count(punished));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Dispatch, EntryThatFailsIsNotPunished)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, kModify));
    Fault fault("malloc", 2);
    EXPECT_EQ(0, process(dir, "f", kModify));
    EXPECT_EQ(0, backend.count(punished));
}

TEST_F(Dispatch, BackendNeedNotPunish)
{
    backend.drop_optional();
    EXPECT_EQ(0, process_path(dir + "/f", kModify));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Dispatch, HeldRecordIsNotUnwanted)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, kModify | kClose, FMON_DIR | FMON_DELAY));
    process(dir, "f", kModify);
    EXPECT_EQ(0, log_count(4, "not watch prefer this event\n"));
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ(0u, fmon.event_mask);
}

/* Several watches of one instance: a deliver clears what another holds; a hold after it changes nothing. */
TEST_F(Dispatch, DeliverWinsOverHoldInOneInstance)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, kModify | kClose, FMON_DIR | FMON_DELAY));
    ASSERT_EQ(0, add(id, tree.root(), kModify, kTree));
    process(dir, "f", kModify); /* held by the inner, then given by the outer one */
    EXPECT_EQ(1u, record(dir + "/f")->ref);
    EXPECT_EQ(0u, record(dir + "/f")->pending);
    process(dir, "f", kModify);
    EXPECT_EQ(0u, record(dir + "/f")->pending);
}

/* ---- memory ---- */

TEST_F(Dispatch, InstanceWithoutAnEntryMissesTheEventTheOthersGetIt)
{
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(0, add(instance("i" + std::to_string(i)), dir, kCreate));
    for (int failing = 0; failing < 3; failing++) {
        Fault fault("malloc", 2 + failing);
        log_clear();
        EXPECT_EQ(0, process(dir, "f", kCreate));
        EXPECT_EQ(7u & ~(1u << failing), takers(dir + "/f"));
        EXPECT_EQ(1, log_count(1, "event1 malloc fail\n"));
        EXPECT_EQ(0, log_count(4, "instance " + std::to_string(failing) + " prefer this event\n"));
        for (int i = 0; i < 3; i++)
            fmon_drop_event(i);
    }
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Dispatch, AnotherWatchOfTheInstanceMayStillGiveIt)
{
    int id = instance();
    ASSERT_EQ(0, add(id, dir, kCreate));
    ASSERT_EQ(0, add(id, tree.root(), kCreate, kTree));
    Fault fault("malloc", 2);
    process(dir, "f", kCreate);
    EXPECT_EQ(1u, takers(dir + "/f"));
    EXPECT_EQ(1u, queued(id));
}

/* ---- for the whole system ---- */

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
