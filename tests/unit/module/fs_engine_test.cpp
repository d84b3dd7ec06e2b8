/*
 * The engine of file-system-wide events: paths of the moment of each event, out of records and a made-up disk.
 * Directories: 2 is the file system's root, 10 the watched one at /m/w, 11 another beside.
 */
#include <string>

#include "fs_fixture.h"
#include "testlib/fault.h"

using namespace fs_unit;
using testlib::entry_record;
using testlib::info;
using testlib::named_record;

namespace
{

class FsEngine : public FsFixture
{
protected:
    FsEngine()
    {
        world.disk = {{2, {0, ""}}, {10, {2, "w"}}, {11, {2, "o"}}};
        EXPECT_EQ(0, anchor(10, "/m/w"));
    }
};

TEST_F(FsEngine, ANewDirectoryIsKnownByItsRecord)
{
    take(made(10, "a", 20, kDir) + made(20, "b", 21, kDir) + made(21, "f", 50));
    EXPECT_EQ((Lines{"create /m/w/a", "create /m/w/a/b", "create /m/w/a/b/f"}), told());
    EXPECT_EQ(3u, counts().asked) << "what lies above the anchor";
}

TEST_F(FsEngine, WhatLiesOutsideIsAskedForOnce)
{
    world.disk[30] = {11, "x"};
    take(made(30, "f", 50) + made(30, "g", 51));
    const uint64_t asked = counts().asked;
    take(made(30, "h", 52) + made(11, "i", 53));
    EXPECT_EQ(Lines{}, told());
    EXPECT_EQ(asked, counts().asked);
}

TEST_F(FsEngine, TheKernelIsAskedForWhatWasThereBefore)
{
    world.disk[20] = {10, "a"};
    world.disk[21] = {20, "b"};
    take(made(21, "f", 50));
    EXPECT_EQ((Lines{"create /m/w/a/b/f"}), told());
}

TEST_F(FsEngine, ALaterRecordSaysMoreThanTheKernel)
{
    world.disk[20] = {11, "now"}; /* the disk is ahead of the records */
    take(made(20, "f", 50) + moved(10, "then", 11, "now", 20));
    EXPECT_EQ((Lines{"create /m/w/then/f", "from /m/w/then"}), told());
    take(made(20, "g", 51));
    EXPECT_EQ(Lines{}, told());
}

TEST_F(FsEngine, WhatCameWhileTheKernelWasAskedIsLookedAt)
{
    world.disk[20] = {10, "now"};
    world.behind = {moved(10, "then", 10, "now", 20)};
    take(made(20, "f", 50));
    EXPECT_EQ((Lines{"create /m/w/then/f", "from /m/w/then", "to /m/w/now"}), told());
}

TEST_F(FsEngine, AnAnswerThatIsNotCertainIsCounted)
{
    world.disk[20] = {10, "a"};
    world.read_fails = true;
    take(made(20, "f", 50));
    EXPECT_EQ(Lines{}, told());
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, ADirectoryThatIsGoneIsCounted)
{
    take(made(99, "f", 50));
    EXPECT_EQ(Lines{}, told());
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]);
    EXPECT_EQ(1u, counts().lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, ARemovedDirectoryKeepsItsPlace)
{
    take(made(10, "a", 20, kDir) + removed(10, "a", 20, kDir));
    take(entry_record(FMON_CLOSE_WRITE, 7, handle(20), "f", handle(50)));
    EXPECT_EQ((Lines{"create /m/w/a", "delete /m/w/a", "close_write /m/w/a/f"}), told());
}

TEST_F(FsEngine, MadeAndRemovedInOneRecordComesFirst)
{
    take(made(10, "x", 20, kDir | FMON_DELETE) + made(20, "f", 50) + moved(10, "x", 10, "y", 20) +
         removed(20, "f", 50, 0, 8) + moved(10, "y", 10, "x", 20));
    EXPECT_EQ((Lines{"create /m/w/x", "delete /m/w/x", "create /m/w/x/f", "from /m/w/x", "to /m/w/y", "delete /m/w/y/f",
                     "from /m/w/y", "to /m/w/x"}),
              told());
}

TEST_F(FsEngine, KindsOfOneRecordComeInTheirOrder)
{
    take(entry_record(0x3bf | FMON_CREATE, 7, handle(10), "f", handle(50)));
    EXPECT_EQ((Lines{"create /m/w/f", "to /m/w/f", "open /m/w/f", "access /m/w/f", "attrib /m/w/f", "modify /m/w/f",
                     "close_write /m/w/f", "close_nowrite /m/w/f", "delete /m/w/f"}),
              told());
}

TEST_F(FsEngine, TheDiskSaysWhetherAFileWasRemovedFirst)
{
    world.files[{10, "there"}] = 50;
    world.files[{10, "other"}] = 99;
    const auto both = [](const char *name) { return made(10, name, 50, FMON_DELETE); };
    take(both("there") + both("gone") + both("other"));
    EXPECT_EQ((Lines{"delete /m/w/there", "create /m/w/there", "create /m/w/gone", "delete /m/w/gone",
                     "create /m/w/other", "delete /m/w/other"}),
              told());
    EXPECT_EQ(2u, counts().asked_files) << "of what the directory does not have nothing is asked";
    world.lists = false;
    take(both("there") + both("gone"));
    EXPECT_EQ((Lines{"delete /m/w/there", "create /m/w/there", "create /m/w/gone", "delete /m/w/gone"}), told());
    EXPECT_EQ(4u, counts().asked_files) << "one that is too big is asked for each";
}

TEST_F(FsEngine, TheDiskIsNotAskedForAnOrderThatNobodyLooksAt)
{
    restart(1000, false);
    ASSERT_EQ(0, anchor(10, "/m/w"));
    world.files[{10, "there"}] = 50;
    world.lists = false;
    take(made(10, "there", 50, FMON_DELETE));
    EXPECT_EQ((Lines{"create /m/w/there", "delete /m/w/there"}), told());
    EXPECT_EQ(0u, counts().asked_files);
}

TEST_F(FsEngine, ManyBusyDirectoriesAreOpenOnlyForTheBatch)
{
    std::string records;
    for (int i = 0; i < 40; i++) {
        records += made(10, "d" + std::to_string(i), 100 + i, kDir);
        world.disk[100 + i] = {10, "d" + std::to_string(i)};
    }
    for (int i = 0; i < 40; i++)
        records += made(100 + i, "f", 500 + i, FMON_DELETE);
    take(records);
    EXPECT_EQ(120u, told().size());
    EXPECT_EQ(0, world.opened);
}

TEST_F(FsEngine, ExchangesAreTwoRenames)
{
    take(made(10, "a", 20, kDir) + made(10, "b", 21, kDir) + moved(10, "a", 10, "b", 20) + moved(10, "b", 10, "a", 21) +
         made(20, "f", 50) + made(21, "g", 51));
    const Lines all = told();
    EXPECT_EQ((Lines{"create /m/w/b/f", "create /m/w/a/g"}), Lines(all.end() - 2, all.end()));
}

TEST_F(FsEngine, HalfARenameInView)
{
    world.disk[20] = {10, "there"};
    take(named_record(FS_MASK_RENAME | kDir, 7, {info(testlib::kInfoNew, handle(10), "in"), info(1, handle(20))}) +
         made(20, "f", 50) +
         named_record(FS_MASK_RENAME | kDir, 7, {info(testlib::kInfoOld, handle(10), "in"), info(1, handle(20))}) +
         made(20, "g", 51));
    EXPECT_EQ((Lines{"to /m/w/in", "create /m/w/in/f", "from /m/w/in", "create /m/w/there/g"}), told());
}

TEST_F(FsEngine, ADirectoryThatIsMovedInBringsWhatIsBelow)
{
    world.disk[30] = {11, "x"};
    world.disk[31] = {30, "y"};
    take(made(31, "f", 50));
    EXPECT_EQ(Lines{}, told());
    take(moved(11, "x", 10, "x", 30) + made(31, "g", 51));
    EXPECT_EQ((Lines{"to /m/w/x", "create /m/w/x/y/g"}), told());
    take(moved(10, "x", 11, "x", 30) + made(31, "h", 52));
    EXPECT_EQ((Lines{"from /m/w/x"}), told());
    EXPECT_EQ(0u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, WhereARenameMayBeHiddenTheDiskIsAsked)
{
    world.disk[20] = {10, "y"}; /* x to y, y to x, and x to y, joined to the first */
    world.files[{20, "f"}] = 50;
    take(made(10, "x", 20, kDir) + moved(10, "x", 10, "y", 20) + moved(10, "y", 10, "x", 20) + made(20, "f", 50));
    const Lines all = told();
    EXPECT_EQ("create /m/w/y/f", all.back());
    take(made(20, "g", 51));
    EXPECT_EQ((Lines{"create /m/w/y/g"}), told());
    EXPECT_EQ(0u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, WhatCameAndWentWhileARenameMayBeHiddenIsCounted)
{
    world.disk[20] = {10, "x"};
    take(made(10, "x", 20, kDir) + moved(10, "x", 10, "y", 20) + moved(10, "y", 10, "x", 20) +
         made(20, "f", 50, FMON_DELETE) + removed(20, "f", 50, 0, 8));
    EXPECT_EQ((Lines{"create /m/w/x", "from /m/w/x", "to /m/w/y", "from /m/w/y", "to /m/w/x"}), told());
    EXPECT_EQ(2u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, InTheNextEpochNothingIsHidden)
{
    world.disk[20] = {10, "x"};
    take(made(10, "x", 20, kDir) + moved(10, "x", 10, "y", 20));
    take(moved(10, "y", 10, "x", 20) + made(20, "f", 50, FMON_DELETE));
    const Lines all = told();
    EXPECT_EQ((Lines{"create /m/w/x/f", "delete /m/w/x/f"}), Lines(all.end() - 2, all.end()));
    EXPECT_EQ(0u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, AHiddenMoveAcrossTheBorderIsCountedOnce)
{
    world.disk[20] = {11, "x"};
    take(moved(11, "x", 10, "x", 20) + moved(10, "x", 11, "x", 20) + made(20, "f", 50, FMON_DELETE) +
         made(20, "g", 51, FMON_DELETE));
    EXPECT_EQ((Lines{"to /m/w/x", "from /m/w/x"}), told());
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, RemovedWhileInDoubt)
{
    world.disk[20] = {10, "d"};
    take(moved(11, "k", 10, "d", 20) + moved(10, "d", 11, "k", 20)); /* and again to d, hidden */
    world.disk.erase(20);
    told();
    take(removed(20, "a", 50) + removed(10, "d", 20, kDir));
    EXPECT_EQ((Lines{"delete /m/w/d/a", "delete /m/w/d"}), told());
}

TEST_F(FsEngine, OwnDoingsAreLearntAndNotTold)
{
    take(made(10, "a", 20, kDir, kOwnPid) + made(20, "f", 50, 0, kOwnPid) + made(20, "g", 51));
    EXPECT_EQ((Lines{"create /m/w/a/g"}), told());
}

TEST_F(FsEngine, RecordsOfAnObjectOnlyAreTheAnchorsOrNobodys)
{
    take(named_record(FMON_ATTRIB, 7, {info(1, handle(50))}) +
         named_record(FMON_ATTRIB | kDir, 7, {info(1, handle(10))}));
    EXPECT_EQ((Lines{"attrib /m/w"}), told());
    EXPECT_EQ(0u, world.lost[FS_LOST_UNRESOLVED]);
}

/* A file that was opened by its handle: nobody knows where it lies. */
TEST_F(FsEngine, ContentsOfAnObjectOnlyAreCounted)
{
    take(named_record(FMON_MODIFY | FMON_CLOSE_WRITE, 7, {info(1, handle(50))}) +
         named_record(FMON_OPEN | kDir, 7, {info(1, handle(20))}) +
         named_record(FMON_MODIFY, kOwnPid, {info(1, handle(50))}) +
         named_record(FMON_MODIFY, 7, {info(1, handle(50, 2))}));
    EXPECT_EQ(Lines{}, told());
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]) << "of a file system with anchors, by others, of files";
}

TEST_F(FsEngine, ADirectorysOwnEventsHaveItsPath)
{
    take(made(10, "a", 20, kDir) + named_record(FMON_ATTRIB | kDir, 7, {info(2, handle(20), ".")}) +
         named_record(FMON_ATTRIB | kDir, 7, {info(2, handle(10), ".")}));
    EXPECT_EQ((Lines{"create /m/w/a", "attrib /m/w/a", "attrib /m/w"}), told());
}

TEST_F(FsEngine, AReplacedDirectorysOwnEndIsNoLoss)
{
    take(named_record(FMON_ATTRIB | FMON_DELETE_SELF | kDir, 7, {info(2, handle(99), ".")}));
    EXPECT_EQ(0u, world.lost[FS_LOST_UNRESOLVED]);
    take(named_record(FMON_OPEN | kDir, 7, {info(2, handle(99), ".")}));
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, AWhiteoutIsADeletion)
{
    world.files[{10, "lower"}] = -1;
    world.files[{10, "upper"}] = 51;
    take(moved(11, "#1a", 10, "lower", 50, 0) + moved(11, "#1b", 10, "upper", 51, 0) + moved(11, "n", 10, "o", 52, 0));
    EXPECT_EQ((Lines{"delete /m/w/lower", "to /m/w/upper", "to /m/w/o"}), told());
}

TEST_F(FsEngine, PathsUpToTheLimit)
{
    const std::string name(255, 'n');
    std::string records;
    for (int i = 0; i < 4; i++)
        records += made(i ? 99 + i : 10, name, 100 + i, kDir);
    const std::string rest(1022 - strlen("/m/w/") - 3 * 256, 'r');
    take(records + made(102, rest, 50) + made(102, rest + "x", 51));
    const Lines all = told();
    ASSERT_EQ(4u, all.size());
    EXPECT_EQ(strlen("create ") + 1022, all.back().size());
    EXPECT_EQ(2u, world.lost[FS_LOST_TOO_LONG]) << "the fourth directory, and the longer name";
}

TEST_F(FsEngine, FourThousandDeep)
{
    for (int i = 0; i < 4000; i++) {
        world.disk[100 + i] = {i ? 99 + i : 10, "d"};
        world.disk[10000 + i] = {i ? 9999 + i : 11, "d"};
    }
    take(made(4099, "f", 1) + made(13999, "f", 1));
    EXPECT_EQ(Lines{}, told());
    EXPECT_EQ(1u, world.lost[FS_LOST_TOO_LONG]);
    EXPECT_EQ(0u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, CirclesEnd)
{
    take(moved(10, "a", 21, "a", 20) + moved(10, "b", 20, "b", 21) + made(20, "f", 50));
    EXPECT_LE(1u, world.lost[FS_LOST_UNRESOLVED]);
    take(made(10, "g", 51));
    EXPECT_EQ("create /m/w/g", told().back());
}

TEST_F(FsEngine, TheTableKeepsToItsLimit)
{
    restart(64);
    ASSERT_EQ(0, anchor(10, "/m/w"));
    for (int i = 0; i < 1000; i++) {
        world.disk[100 + i] = {10, "d" + std::to_string(i)};
        take(made(100 + i, "f", 5000 + i));
        take(made(10, "g", 6000 + i));
    }
    EXPECT_EQ(2000u, told().size());
    EXPECT_LE(counts().directories, 64u);
    EXPECT_EQ(0u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsEngine, RemovedDirectoriesStayUntilWhatHappenedInsideIsRead)
{
    restart(64);
    ASSERT_EQ(0, anchor(10, "/m/w"));
    std::string records;
    for (int i = 0; i < 100; i++)
        records += made(10, "d" + std::to_string(i), 100 + i, kDir | FMON_DELETE);
    for (int i = 0; i < 100; i++)
        records += made(100 + i, "f", 5000 + i);
    take(records);
    EXPECT_EQ(300u, told().size());
    EXPECT_EQ(0u, world.lost[FS_LOST_UNRESOLVED]);
    for (int i = 0; i < 1000; i++)
        take(made(10, "d" + std::to_string(i), 10000 + i, kDir | FMON_DELETE));
    EXPECT_LE(counts().directories, 128u);
}

TEST_F(FsEngine, CutRecordsAreCounted)
{
    const std::string good = made(10, "f", 50);
    take(good + good.substr(0, 30));
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]);
    take(named_record(FMON_CREATE, 7, {testlib::info_raw(2, 2, "")}) + good);
    EXPECT_EQ(2u, world.lost[FS_LOST_UNRESOLVED]);
    EXPECT_EQ((Lines{"create /m/w/f", "create /m/w/f"}), told());
}

TEST_F(FsEngine, ChunksWaitForTheNextTurnInAStorm)
{
    for (int i = 0; i < 600; i++) {
        world.disk[100 + i] = {10, "d" + std::to_string(i)};
        world.behind.push_back(made(100 + i, "f", 5000 + i));
    }
    world.disk[99] = {10, "first"};
    bool more = take(made(99, "f", 50), false);
    EXPECT_TRUE(more);
    int turns = 1;
    for (; more; turns++)
        more = take("", false);
    EXPECT_EQ(601u, told().size());
    EXPECT_GE(turns, 2);
}

TEST_F(FsEngine, WhatCannotBeAllocatedIsCountedNeverWrong)
{
    for (const char *call : {"malloc", "calloc", "realloc"})
        testlib::fail_each(call, ENOMEM, [&](testlib::Fault &) {
            world = {};
            world.disk = {{2, {0, ""}}, {10, {2, "w"}}, {20, {10, "b"}}, {40, {10, "k"}}};
            world.paths["/m/w"] = 10;
            world.behind = {made(40, "l", 53)};
            restart(64);
            if (!engine || anchor(10, "/m/w") != 0)
                return;
            take(made(10, "a", 20, kDir) + moved(10, "a", 10, "b", 20) + made(20, "f", 50) + made(40, "k", 51));
            for (const std::string &line : told())
                EXPECT_TRUE(line == "create /m/w/a" || line == "from /m/w/a" || line == "to /m/w/b" ||
                            line == "create /m/w/b/f" || line == "create /m/w/k/k" || line == "create /m/w/k/l")
                    << line;
            take(made(20, "g", 52));
            const bool counted = world.lost[FS_LOST_UNRESOLVED] > 0 || !world.displaced.empty();
            EXPECT_TRUE(counted || world.told == Lines{"create /m/w/b/g"});
        });
}

}  // namespace
