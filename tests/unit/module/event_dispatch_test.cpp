/* Tests of event_dispatch.cpp: which watches and instances an event is offered to, in which order. */

#include "dispatch_fixture.h"

namespace
{

using namespace testlib;

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

}  // namespace
