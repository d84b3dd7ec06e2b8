/*
 * Anchors and joints of the engine of file-system-wide events: which paths an event gets, and what becomes of anchors
 * when directories above them are moved.
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

using Ids = std::vector<uint64_t>;

class FsAnchor : public FsFixture
{
protected:
    FsAnchor() { world.disk = {{2, {0, ""}}, {5, {2, "u"}}, {10, {5, "w"}}, {11, {2, "o"}}}; }

    std::string self(uint64_t kind, int directory)
    {
        return named_record(kind | kDir, 7, {info(testlib::kInfoEntry, handle(directory), ".")});
    }
};

TEST_F(FsAnchor, WithoutAnchorsNothingIsLookedAt)
{
    take(made(10, "a", 20, kDir) + made(10, "f", 50));
    EXPECT_EQ(0u, counts().asked);
    EXPECT_EQ(0u, counts().directories);
    EXPECT_EQ(2u, counts().records);
}

TEST_F(FsAnchor, TwoPathsOfOneDirectoryAreBothTold)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    ASSERT_EQ(0, anchor(10, "/bound", 2));
    ASSERT_EQ(0, anchor(10, "/bound", 3));
    take(made(10, "f", 50));
    EXPECT_EQ((Lines{"create /bound/f", "create /m/u/w/f"}), told());
    EXPECT_EQ(1u, fs_engine_remove(engine, 2));
    EXPECT_EQ(1u, fs_engine_remove(engine, 1));
    take(made(10, "g", 51));
    EXPECT_EQ((Lines{"create /bound/g"}), told());
    EXPECT_EQ(0u, fs_engine_remove(engine, 1));
}

TEST_F(FsAnchor, AnchorsInsideOfEachOtherGiveOnePath)
{
    ASSERT_EQ(0, anchor(5, "/m/u", 1));
    ASSERT_EQ(0, anchor(10, "/m/u/w", 2));
    take(made(10, "f", 50) + made(5, "g", 51));
    EXPECT_EQ((Lines{"create /m/u/w/f", "create /m/u/g"}), told());
}

TEST_F(FsAnchor, TheRootDirectoryHasNoSecondSlash)
{
    ASSERT_EQ(0, anchor(2, "/"));
    take(made(2, "f", 50) + made(10, "g", 51) + self(FMON_ATTRIB, 2));
    EXPECT_EQ((Lines{"create /f", "create /u/w/g", "attrib /"}), told());
}

TEST_F(FsAnchor, OneThatIsNotRecursiveHasItsEntriesOnly)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1, false));
    world.disk[20] = {10, "a"};
    world.disk[21] = {20, "b"};
    take(made(10, "f", 50) + made(20, "g", 51) + self(FMON_ATTRIB, 10) + self(FMON_ATTRIB, 20) + self(FMON_ATTRIB, 21) +
         self(FMON_ATTRIB, 20));
    EXPECT_EQ((Lines{"create /m/u/w/f", "attrib /m/u/w", "attrib /m/u/w/a", "attrib /m/u/w/a"}), told());
    ASSERT_EQ(0, anchor(5, "/m/u", 2));
    take(made(21, "h", 52));
    EXPECT_EQ((Lines{"create /m/u/w/a/b/h"}), told());
}

TEST_F(FsAnchor, OneThatIsNotRecursiveNeedsNoHandleThatOpens)
{
    world.disk.erase(10);
    EXPECT_EQ(FMON_ENOENT, anchor(10, "/m/u/w", 1));
    EXPECT_EQ(0, anchor(10, "/m/u/w", 1, false));
    take(made(10, "f", 50) + moved(5, "w", 5, "v", 10) + made(10, "g", 51));
    EXPECT_EQ((Lines{"create /m/u/w/f"}), told());
    EXPECT_EQ((Ids{1}), world.displaced);
}

TEST_F(FsAnchor, AMovedAnchorHasNoPathAnyMore)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    take(made(10, "f", 50) + moved(5, "w", 5, "v", 10) + made(10, "g", 51) + self(FMON_MOVE_SELF, 10) +
         self(FMON_ATTRIB, 10));
    EXPECT_EQ((Lines{"create /m/u/w/f", "move_self /m/u/w"}), told());
    EXPECT_EQ((Ids{1}), world.displaced);
    take(moved(5, "v", 5, "w", 10) + made(10, "h", 52));
    EXPECT_EQ(Lines{}, told()) << "until it is added anew";
    EXPECT_EQ(1u, fs_engine_remove(engine, 1));
    ASSERT_EQ(0, anchor(10, "/m/u/w", 4));
    take(made(10, "i", 53));
    EXPECT_EQ((Lines{"create /m/u/w/i"}), told());
    EXPECT_EQ((Ids{1}), world.displaced);
}

TEST_F(FsAnchor, OneBelowAMovedDirectoryIsDisplacedToo)
{
    ASSERT_EQ(0, anchor(2, "/m", 1));
    ASSERT_EQ(0, anchor(10, "/m/u/w", 2));
    take(moved(2, "u", 2, "v", 5) + made(10, "f", 50) + self(FMON_ATTRIB, 10));
    EXPECT_EQ((Ids{2}), world.displaced);
    EXPECT_EQ((Lines{"from /m/u", "to /m/v", "create /m/v/w/f", "attrib /m/v/w"}), told());
}

TEST_F(FsAnchor, WhatIsAboveTheMountMovesNothing)
{
    ASSERT_EQ(0, anchor(2, "/m", 1));
    world.disk[5] = {0, ""}; /* seen through another mount: its root */
    ASSERT_EQ(0, anchor(10, "/bound/w", 2));
    ASSERT_EQ(0, anchor(5, "/bound", 3));
    world.disk[5] = {2, "u"};
    take(moved(2, "u", 2, "v", 5) + made(10, "f", 50));
    EXPECT_EQ(Ids{}, world.displaced);
    EXPECT_EQ((Lines{"from /m/u", "to /m/v", "create /bound/w/f", "create /m/v/w/f"}), told());
}

TEST_F(FsAnchor, ARemovedAnchorTellsItsEnd)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    take(removed(5, "w", 10, kDir) + self(FMON_DELETE_SELF, 10));
    EXPECT_EQ((Lines{"delete_self /m/u/w"}), told());
    EXPECT_EQ((Ids{1}), world.displaced);
}

TEST_F(FsAnchor, ObjectsAloneAreLookedForAmongFewAndAmongManyAnchors)
{
    const auto alone = [](int what) {
        return named_record(FMON_ATTRIB, 7, {info(testlib::kInfoObject, handle(what))});
    };
    for (int i = 0; i < 12; i++) {
        const int directory = 100 + i;
        world.disk[directory] = {2, "w" + std::to_string(i)};
        ASSERT_EQ(0, anchor(directory, "/m/w" + std::to_string(i), static_cast<uint64_t>(i)));
        take(alone(100) + alone(directory) + alone(50));
        EXPECT_EQ((Lines{"attrib /m/w0", "attrib /m/w" + std::to_string(i)}), told());
    }
}

TEST_F(FsAnchor, WhatWasMovedBeforeItWasAddedIsFoundOut)
{
    world.behind = {moved(2, "x", 2, "u", 5)};
    EXPECT_EQ(-EAGAIN, anchor(10, "/m/x/w", 1));
    EXPECT_EQ(0u, counts().anchors);
    EXPECT_EQ(0, anchor(10, "/m/u/w", 1));
    world.read_fails = true;
    EXPECT_EQ(-EAGAIN, anchor(11, "/m/o", 2)) << "it is not certain that nothing waits";
}

TEST_F(FsAnchor, WhatIsReadMeanwhileIsToldToOthers)
{
    ASSERT_EQ(0, anchor(11, "/m/o", 1));
    world.behind = {made(11, "f", 50) + made(10, "g", 51)};
    ASSERT_EQ(0, anchor(10, "/m/u/w", 2));
    EXPECT_EQ((Lines{"create /m/o/f"}), told()) << "what was before the anchor is not told";
}

TEST_F(FsAnchor, AJointLeadsOnUpwards)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    ASSERT_EQ(0, join(30, 2, 20, "mnt", 5));
    world.disk[20] = {10, "a"};
    world.disk[30] = {0, ""};
    world.disk[31] = {30, "d"};
    take(entry_record(FMON_CREATE, 7, handle(31, 2), "f", handle(50, 2)));
    EXPECT_EQ((Lines{"create /m/u/w/a/mnt/d/f"}), told());
    take(moved(10, "a", 10, "b", 20) + entry_record(FMON_CREATE, 7, handle(31, 2), "g", handle(51, 2)));
    EXPECT_EQ((Lines{"from /m/u/w/a", "to /m/u/w/b", "create /m/u/w/b/mnt/d/g"}), told());
    EXPECT_EQ(1u, fs_engine_remove(engine, 5));
    take(entry_record(FMON_CREATE, 7, handle(31, 2), "h", handle(52, 2)));
    EXPECT_EQ(Lines{}, told());
}

TEST_F(FsAnchor, ADirectoryThatIsBoundTwiceHasBothPaths)
{
    world.disk[20] = {10, "a"};
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    ASSERT_EQ(0, join(20, 1, 10, "again", 5));
    take(made(20, "f", 50));
    EXPECT_EQ((Lines{"create /m/u/w/again/f", "create /m/u/w/a/f"}), told());
}

TEST_F(FsAnchor, ADirectoryBoundBelowItselfIsCounted)
{
    world.disk[20] = {10, "a"};
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    ASSERT_EQ(0, join(10, 1, 20, "self", 5));
    take(made(10, "f", 50));
    EXPECT_EQ("create /m/u/w/f", told().back());
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]);
}

TEST_F(FsAnchor, ASecondMountShowsWhatTheFirstDoesNot)
{
    ASSERT_EQ(0, anchor(2, "/m", 1));
    world.mounts = 2;
    world.blind_mounts = 1;
    ASSERT_EQ(0, anchor(11, "/m/o", 2));
    world.disk[20] = {10, "a"};
    take(made(20, "f", 50));
    EXPECT_EQ((Lines{"create /m/u/w/a/f"}), told());
}

TEST_F(FsAnchor, AfterAnOverflowThePlacesAreAskedAnew)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    ASSERT_EQ(0, anchor(11, "/m/o", 2));
    take(made(10, "a", 20, kDir));
    world.disk[20] = {10, "z"};
    world.paths.erase("/m/o");
    take(testlib::overflow_record() + made(20, "f", 50) + made(11, "g", 51));
    EXPECT_EQ((Lines{"create /m/u/w/a", "create /m/u/w/z/f"}), told());
    EXPECT_EQ(1u, world.lost[FS_LOST_OVERFLOW]);
    EXPECT_EQ((Ids{2}), world.displaced);
}

TEST_F(FsAnchor, AnAnchorThatARecordBehindTheOverflowMovesIsDisplaced)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    take(testlib::overflow_record() + moved(2, "v", 2, "u", 5) + made(10, "f", 50));
    EXPECT_EQ(Lines{}, told());
    EXPECT_EQ((Ids{1}), world.displaced);
}

TEST_F(FsAnchor, RecordsThatDoNotSayWhichDirectoryWasMovedForgetAll)
{
    world.disk[20] = {10, "a"};
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    const std::string move = named_record(FMON_MOVED_TO | kDir, 7, {info(2, handle(10), "b")});
    take(made(20, "f", 50) + move);
    EXPECT_EQ((Lines{"to /m/u/w/b"}), told()) << "the kernel's answer may be of after the move";
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]);
    world.disk[20] = {10, "b"};
    take(made(20, "g", 51));
    EXPECT_EQ((Lines{"create /m/u/w/b/g"}), told());
}

TEST_F(FsAnchor, HalvesOfRenames)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    const auto half = [](uint64_t kind, const char *name) {
        return entry_record(kind | kDir, 7, handle(10), name, handle(20));
    };
    take(made(10, "a", 20, kDir) + half(FMON_MOVED_FROM, "a") + half(FMON_MOVED_TO, "b") + made(20, "f", 50));
    EXPECT_EQ((Lines{"create /m/u/w/a", "from /m/u/w/a", "to /m/u/w/b", "create /m/u/w/b/f"}), told());
    world.disk[20] = {10, "b"}; /* b to c, c to b: the kernel joins what it can */
    take(half(FMON_MOVED_FROM | FMON_MOVED_TO, "b") + half(FMON_MOVED_TO | FMON_MOVED_FROM, "c") + made(20, "g", 51));
    EXPECT_EQ("create /m/u/w/b/g", told().back());
    take(half(FMON_MOVED_FROM, "b"));
    told();
    world.behind = {half(FMON_MOVED_TO, "d")};
    take(made(20, "h", 52));
    EXPECT_EQ((Lines{"create /m/u/w/d/h", "to /m/u/w/d"}), told()) << "between the halves it lies in its new place";
}

TEST_F(FsAnchor, AFileSystemThatWentIsForgotten)
{
    ASSERT_EQ(0, anchor(10, "/m/u/w", 1));
    take(made(10, "a", 20, kDir));
    const int32_t fsid[2] = {1, 0};
    fs_engine_forget(engine, fsid);
    world.mounts = 0;
    take(made(20, "f", 50));
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]);
    EXPECT_EQ(1u, fs_engine_remove(engine, 1));
    EXPECT_EQ(0u, counts().directories);
    take(made(20, "g", 51));
    EXPECT_EQ(1u, world.lost[FS_LOST_UNRESOLVED]) << "nothing of it is ours";
}

TEST_F(FsAnchor, BadAnchorsAreRefused)
{
    EXPECT_EQ(FMON_EINVAL, anchor(10, std::string(1023, 'p')));
    testlib::Handle empty = {1, ""};
    const struct fs_anchor none = {key_of(empty), "/m", 1, kMountFd, true};
    EXPECT_EQ(FMON_EINVAL, fs_engine_add(engine, &none));
}

TEST_F(FsAnchor, WithoutMemoryNothingIsLeftBehind)
{
    for (const char *call : {"malloc", "calloc", "realloc"})
        testlib::fail_each(call, ENOMEM, [&](testlib::Fault &fault) {
            restart(64);
            if (!engine)
                return;
            const int added = anchor(10, "/m/u/w", 1);
            const int joined = join(30, 2, 10, "mnt", 2);
            EXPECT_TRUE(added == 0 || added == FMON_ENOMEM) << added;
            EXPECT_TRUE(joined == 0 || joined == FMON_ENOMEM) << joined;
            EXPECT_TRUE(fault.hit() || (added == 0 && joined == 0));
            fs_engine_remove(engine, 1);
            fs_engine_remove(engine, 2);
            EXPECT_EQ(0u, counts().directories);
        });
}

}  // namespace
