/* Tests of linux/dcache_iterate.h: the walk over the disk into the cache: its limits, what it enters, what fails. */

#include "linux/dcache_iterate.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "dcache_iterate_fixture.h"

namespace
{

using testlib::CallCount;
using testlib::Fault;
using testlib::log_count;
using testlib::open_fds;

TEST_F(DcacheIterateTest, AnEmptyDirectory)
{
    ASSERT_EQ(0, start_walk());
    EXPECT_EQ("", take_next());
    EXPECT_EQ("", take_next()) << "the end is final";
    EXPECT_EQ(fds_before, open_fds()) << "every stream is closed at the end already";
}

TEST_F(DcacheIterateTest, EveryDirectoryBelowTheStartIsCachedAndReturned)
{
    make_dirs({"a/b/c", "a/d", "e"});
    EXPECT_EQ((Paths{"a", "a/b", "a/b/c", "a/d", "e"}), walk());
    EXPECT_NE(nullptr, find(disk.path("a/b/c")));
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(DcacheIterateTest, AStartThatCannotBeOpened)
{
    {
        Fault fault("opendir", 1, EACCES);
        EXPECT_EQ(-1, start_walk());
    }
    EXPECT_EQ("linux/dcache_iterate.c", testlib::log_lines().at(0).file);
    EXPECT_EQ(1, log_count(1, "open dir " + disk.root() + " failed: Permission denied\n"));
    dcache_iterate_stop(&it);
    EXPECT_EQ(nullptr, dcache_iterate_next(&it));
}

TEST_F(DcacheIterateTest, AStartThatIsMissingOrNoDirectory)
{
    disk.file("file");
    EXPECT_EQ(-1, dcache_iterate_start(&cache, add(disk.path("gone")), &it, 0, 0, kZeros));
    EXPECT_EQ(1, log_count(1, open_failed("gone", ENOENT)));
    EXPECT_EQ(-1, dcache_iterate_start(&cache, add(disk.path("file")), &it, 0, 0, kZeros));
    EXPECT_EQ(1, log_count(1, open_failed("file", ENOTDIR)));
}

TEST_F(DcacheIterateTest, AStartWhosePathIsTooLong)
{
    struct dentry *start = add("/" + std::string(1022, 'x'));
    EXPECT_EQ(-1, dcache_iterate_start(&cache, start, &it, 0, 0, kZeros));
    EXPECT_EQ(1, log_count(1, "path is NULL\n"));
}

TEST_F(DcacheIterateTest, DirectoriesAreEnteredBeforeTheirSiblings)
{
    make_dirs({"a/1/x", "a/2/x", "b/1/x", "b/2/x", "c/1/x"});
    ASSERT_EQ(0, start_walk());
    struct dentry *before = add(disk.root());
    while (struct dentry *d = dcache_iterate_next(&it)) {
        EXPECT_EQ(d->parent, it.cur.d);
        EXPECT_EQ(d, it.pending.d);
        /* The parent is the one returned before, or one of its ancestors. */
        struct dentry *p = before;
        while (p && p != d->parent)
            p = p->parent;
        EXPECT_NE(nullptr, p) << full_path(d) << " after " << full_path(before);
        bool has_subdirs = access((full_path(before) + "/x").c_str(), F_OK) == 0;
        if (has_subdirs) {
            EXPECT_EQ(before, d->parent) << full_path(d);
        }
        before = d;
    }
}

/* ---- limits ---- */

TEST_F(DcacheIterateTest, TheDepthLimitBoundsWhatIsEntered)
{
    make_dirs({"a/b/c/d"});
    EXPECT_EQ((Paths{"a"}), walk(1));
    EXPECT_EQ((Paths{"a", "a/b"}), walk(2));
    EXPECT_EQ((Paths{"a", "a/b", "a/b/c"}), walk(3));
    EXPECT_EQ((Paths{"a", "a/b", "a/b/c", "a/b/c/d"}), walk(4));
    EXPECT_EQ((Paths{"a", "a/b", "a/b/c", "a/b/c/d"}), walk(0));
}

TEST_F(DcacheIterateTest, SiblingsBehindALimitedDirectoryAreStillReturned)
{
    make_dirs({"a/x", "b/x", "c/x"});
    EXPECT_EQ((Paths{"a", "b", "c"}), walk(1));
}

TEST_F(DcacheIterateTest, DepthIsCountedFromTheStart)
{
    make_dirs({"a/b"});
    ASSERT_EQ(0, start_walk());
    EXPECT_EQ(0, it.cur.depth);
    take_next();
    EXPECT_EQ(1, it.pending.depth);
    take_next();
    EXPECT_EQ(1, it.cur.depth);
    EXPECT_EQ(2, it.pending.depth);
}

TEST_F(DcacheIterateTest, APositiveNumberOfSubdirectoriesLimitsNothing)
{
    make_dirs({"a", "b", "c", "d/e"});
    for (int32_t max_subdirs : {1, 2, INT32_MAX})
        EXPECT_EQ((Paths{"a", "b", "c", "d", "d/e"}), walk(0, max_subdirs));
    EXPECT_EQ(0, it.subdir_count);
}

TEST_F(DcacheIterateTest, ANegativeNumberOfSubdirectoriesEndsTheWalkAtOnce)
{
    make_dirs({"a/b"});
    for (int32_t max_subdirs : {-1, INT32_MIN}) {
        ASSERT_EQ(0, start_walk(0, max_subdirs));
        EXPECT_EQ("", take_next());
        stop_walk();
        EXPECT_EQ(fds_before, open_fds());
    }
}

TEST_F(DcacheIterateTest, ACallerThatRaisesTheCountEndsTheWalk)
{
    make_dirs({"a", "b", "c"});
    ASSERT_EQ(0, start_walk(0, 2));
    take_next();
    it.subdir_count = 1;
    EXPECT_NE("", take_next());
    it.subdir_count = 2;
    EXPECT_EQ("", take_next());
}

/* ---- what is no directory ---- */

TEST_F(DcacheIterateTest, LinksAndFilesAreNeitherReturnedNorEntered)
{
    make_dirs({"real/inside"});
    disk.file("file");
    disk.link("link", disk.path("real"));
    disk.link("real/up", "..");
    disk.link("dangling", "nowhere");
    ASSERT_EQ(0, mkfifo(disk.path("fifo").c_str(), 0600));
    CallCount lstats("lstat");
    EXPECT_EQ((Paths{"real", "real/inside"}), walk());
    EXPECT_EQ(0, lstats.calls()) << "the stream tells the types";
}

class HiddenTypes : public DcacheIterateTest
{
protected:
    HiddenTypes() { testlib::hide_entry_types(true); }
    ~HiddenTypes() override { testlib::hide_entry_types(false); }
};

TEST_F(HiddenTypes, UnknownTypesAreLookedUp)
{
    make_dirs({"real/inside"});
    disk.file("file");
    disk.link("link", disk.path("real"));
    ASSERT_EQ(0, mkfifo(disk.path("fifo").c_str(), 0600));
    CallCount lstats("lstat");
    EXPECT_EQ((Paths{"real", "real/inside"}), walk());
    EXPECT_EQ(5, lstats.calls());
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(HiddenTypes, AnEntryThatVanishesIsSkipped)
{
    make_dirs({"a", "b", "c"});
    Fault fault("lstat", 2, ENOENT);
    EXPECT_EQ(2u, walk().size());
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(HiddenTypes, AnEntryWhosePathIsTooLongIsSkipped)
{
    std::string deep;
    while (disk.path(deep).size() < 850)
        deep += (deep.empty() ? "" : "/") + std::string(100, 'd');
    const size_t room = 1022 - disk.path(deep).size() - 1;
    ASSERT_LE(room + 1, 255u);
    disk.dir(deep + "/" + std::string(room, 'x'));
    disk.dir(deep + "/" + std::string(room + 1, 'y'));
    const Paths all = walk();
    EXPECT_EQ(1, std::count(all.begin(), all.end(), deep + "/" + std::string(room, 'x')));
    EXPECT_EQ(0, std::count(all.begin(), all.end(), deep + "/" + std::string(room + 1, 'y')));
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(DcacheIterateTest, ADirectoryWhosePathIsTooLongIsReturnedAndNotEntered)
{
    std::string deep;
    while (disk.path(deep).size() < 850)
        deep += (deep.empty() ? "" : "/") + std::string(100, 'd');
    const size_t room = 1022 - disk.path(deep).size() - 1;
    disk.dir(deep + "/" + std::string(room + 1, 'y'));
    disk.dir(deep + "/short/below");
    const Paths all = walk();
    EXPECT_EQ(1, std::count(all.begin(), all.end(), deep + "/" + std::string(room + 1, 'y')));
    EXPECT_EQ(1, std::count(all.begin(), all.end(), deep + "/short/below"));
    EXPECT_EQ(1, log_count(1, "path is NULL\n"));
}

/* ---- failures under way ---- */

TEST_F(DcacheIterateTest, AnUnreadableDirectoryIsReturnedAndItsSiblingsFollow)
{
    make_dirs({"a/x", "b/x", "c/x"});
    ASSERT_EQ(0, start_walk());
    const std::string shut = take_next();
    Paths rest;
    {
        Fault fault("opendir", 1, EACCES);
        rest = take_all();
    }
    EXPECT_EQ(4u, rest.size());
    EXPECT_EQ(0, std::count(rest.begin(), rest.end(), shut + "/x"));
    EXPECT_EQ(1, log_count(1, open_failed(shut, EACCES)));
    EXPECT_EQ(1u, testlib::log_lines().size()) << "the open is not tried again";
}

TEST_F(DcacheIterateTest, ADirectoryThatVanishesBeforeItIsEntered)
{
    make_dirs({"a/x"});
    ASSERT_EQ(0, start_walk());
    EXPECT_EQ("a", take_next());
    disk.remove("a");
    EXPECT_EQ("", take_next());
    EXPECT_EQ(1, log_count(1, open_failed("a", ENOENT)));
}

TEST_F(DcacheIterateTest, EachOpenMayFail)
{
    make_dirs({"a/b", "c/d/e", "f"});
    const int runs = testlib::fail_each("opendir", EMFILE, [&](Fault &fault) {
        const int result = start_walk();
        EXPECT_EQ(result < 0, fault.hit() && fault.calls() == 1);
        if (result == 0) {
            const Paths paths = take_all();
            EXPECT_GE(paths.size(), 3u) << "the first level is complete";
        }
        EXPECT_EQ(fault.hit() ? 1u : 0u, testlib::log_lines().size());
        stop_walk();
        EXPECT_EQ(fds_before, open_fds());
    });
    EXPECT_EQ(7, runs);
}

TEST_F(DcacheIterateTest, WithoutMemoryForALevelItsSubtreeIsSkipped)
{
    make_dirs({"a/x", "b/x", "c/x"});
    ASSERT_EQ(0, start_walk());
    const std::string first = take_next();
    Paths rest;
    {
        Fault fault("malloc", 1, ENOMEM);
        rest = take_all();
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(4u, rest.size());
    EXPECT_EQ(0, std::count(rest.begin(), rest.end(), first + "/x"));
    EXPECT_EQ(1, log_count(1, std::string("malloc iterate failed: ") + strerror(ENOMEM) + "\n"));
    EXPECT_EQ(1u, testlib::log_lines().size());
}

TEST_F(DcacheIterateTest, EachLevelsMemoryMayFail)
{
    make_dirs({"a/b/c", "d/e"});
    const int runs = testlib::fail_each("malloc", ENOMEM, [&](Fault &fault) {
        ASSERT_EQ(0, start_walk());
        EXPECT_GE(take_all().size(), 2u);
        EXPECT_EQ(fault.hit() ? 1 : 0, testlib::log_count_containing("malloc iterate failed: "));
        stop_walk();
    });
    EXPECT_EQ(5, runs);
}

TEST_F(DcacheIterateTest, EachDentrysMemoryMayFail)
{
    make_dirs({"a", "b", "c"});
    add(disk.root());
    const uint32_t before = cache.count;
    const int runs = testlib::fail_each("calloc", ENOMEM, [&](Fault &fault) {
        const Paths found = walk();
        EXPECT_EQ(fault.hit() ? 2u : 3u, found.size());
        EXPECT_EQ(fault.hit() ? 1 : 0, log_count(1, "iterate add dentry failed\n"));
        for (const std::string &path : found)
            del(disk.path(path));
        EXPECT_EQ(before, cache.count);
    });
    EXPECT_EQ(3, runs);
}

TEST_F(DcacheIterateTest, AFullCacheSkipsWhatIsNewAndWalksTheRest)
{
    make_dirs({"a", "b", "c", "old/new", "old/older"});
    add(disk.path("old/older"));
    cache.max_entries = static_cast<int32_t>(cache.count);
    EXPECT_EQ((Paths{"old", "old/older"}), walk());
    EXPECT_EQ(4, log_count(1, "iterate add dentry failed\n"));
    cache.max_entries++;
    EXPECT_EQ(3u, walk().size());
    EXPECT_EQ(3, log_count(1, "iterate add dentry failed\n"));
    EXPECT_EQ(static_cast<uint32_t>(cache.max_entries), cache.count);
}

/* ---- cache, streams, blocks ---- */

TEST_F(DcacheIterateTest, WhatIsCachedAlreadyIsReturnedAllTheSame)
{
    make_dirs({"a/b"});
    struct dentry *b = add(disk.path("a/b"));
    const uint32_t before = cache.count;
    EXPECT_EQ((Paths{"a", "a/b"}), walk());
    EXPECT_EQ(before, cache.count);
    EXPECT_EQ(b, find(disk.path("a/b")));
}

TEST_F(DcacheIterateTest, OneStreamIsOpenPerLevel)
{
    make_dirs({"a/b/c/d"});
    ASSERT_EQ(0, start_walk());
    for (int level = 1; !take_next().empty(); level++)
        EXPECT_EQ(fds_before + level, open_fds());
    EXPECT_EQ(fds_before, open_fds());
}

TEST_F(DcacheIterateTest, StoppingEarlyClosesEveryStream)
{
    make_dirs({"a/b/c/d"});
    for (int steps = 0; steps <= 5; steps++) {
        ASSERT_EQ(0, start_walk());
        for (int i = 0; i < steps; i++)
            take_next();
        dcache_iterate_stop(&it);
        EXPECT_EQ(fds_before, open_fds()) << steps;
        EXPECT_TRUE(list_empty(&it.stack));
        dcache_iterate_stop(&it);
        EXPECT_EQ("", take_next()) << "nothing after the stop";
    }
}

TEST_F(DcacheIterateTest, TheStartBlockIsTheFirstLevelsParentBlock)
{
    make_dirs({"a"});
    unsigned char block[DCACHE_DATA_SIZE];
    for (size_t i = 0; i < sizeof(block); i++)
        block[i] = static_cast<unsigned char>(i + 1);
    ASSERT_EQ(0, start_walk(0, 0, block));
    EXPECT_EQ(0, memcmp(block, it.cur.data, sizeof(block)));
    take_next();
    EXPECT_EQ(0, memcmp(block, it.cur.data, sizeof(block)));
    EXPECT_EQ(0, memcmp(kZeros, it.pending.data, sizeof(block)));
}

TEST_F(DcacheIterateTest, BlocksAreInheritedLevelByLevel)
{
    make_dirs({"a/b/c", "d/e", "f"});
    unsigned char block[DCACHE_DATA_SIZE] = {10};
    ASSERT_EQ(0, start_walk(0, 0, block));
    while (struct dentry *d = dcache_iterate_next(&it)) {
        EXPECT_EQ(10 + it.pending.depth - 1, it.cur.data[0]) << full_path(d);
        it.pending.data[0] = static_cast<unsigned char>(it.cur.data[0] + 1);
    }
}

TEST_F(DcacheIterateTest, ABlockOfADirectoryThatCannotBeEnteredIsNotPassedOn)
{
    make_dirs({"a/x", "b/x"});
    unsigned char block[DCACHE_DATA_SIZE] = {10};
    ASSERT_EQ(0, start_walk(0, 0, block));
    take_next();
    it.pending.data[0] = 99;
    Fault fault("opendir", 1, EACCES);
    take_next();
    EXPECT_EQ(10, it.cur.data[0]);
    EXPECT_EQ(0, it.pending.data[0]);
}

}  // namespace
