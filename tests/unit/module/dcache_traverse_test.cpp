/* Tests of dcache_traverse.cpp: the walk over the cache, and the blocks that it carries down. */

#include <cstring>

#include "dcache_fixture.h"

namespace
{

using testlib::Fault;

using Visits = std::vector<std::string>;

class DcacheTraverseTest : public DcacheFixture
{
protected:
    ~DcacheTraverseTest() override { dcache_traverse_end(&walk); }

    void build_tree(std::initializer_list<const char *> paths)
    {
        for (const char *path : paths)
            ASSERT_NE(nullptr, add(path));
    }
    void start_walk(const std::string &path = "/", const void *data = nullptr)
    {
        dcache_traverse_start(&walk, find(path), data);
    }
    /* "path state", or "end". */
    std::string take_visit()
    {
        struct dentry *d = dcache_traverse_next_safe(&walk);
        EXPECT_EQ(d, walk.ret.d);
        return d ? full_path(d) + " " + std::to_string(walk.state) : "end";
    }
    Visits take_all()
    {
        Visits visits;
        for (std::string visit; (visit = take_visit()) != "end";)
            visits.push_back(visit);
        return visits;
    }

    struct dcache_traverse walk = [] {
        struct dcache_traverse w = {};
        list_init(&w.stack);
        return w;
    }();
};

TEST_F(DcacheTraverseTest, DirectoriesAreMetTwiceLeavesOnce)
{
    build_tree({"/a/b", "/a/c"});
    start_walk();
    EXPECT_EQ((Visits{"/a 0", "/a/b 1", "/a/c 1", "/a 2"}), take_all());
    EXPECT_EQ("end", take_visit());
    EXPECT_EQ("end", take_visit()) << "the end is final";
}

TEST_F(DcacheTraverseTest, NothingBelowTheStart)
{
    start_walk();
    EXPECT_EQ("end", take_visit());
    EXPECT_EQ("end", take_visit());
    EXPECT_EQ(DCACHE_LEAF, walk.state);
}

TEST_F(DcacheTraverseTest, OnlyWhatLiesBelowTheStartIsMet)
{
    build_tree({"/x", "/a/b/c", "/a/d", "/y"});
    start_walk("/a");
    EXPECT_EQ((Visits{"/a/b 0", "/a/b/c 1", "/a/b 2", "/a/d 1"}), take_all());
}

TEST_F(DcacheTraverseTest, SiblingsComeInTheOrderOfTheirMaking)
{
    build_tree({"/c/1", "/a", "/b/2/3"});
    start_walk();
    EXPECT_EQ((Visits{"/c 0", "/c/1 1", "/c 2", "/a 1", "/b 0", "/b/2 0", "/b/2/3 1", "/b/2 2", "/b 2"}), take_all());
}

TEST_F(DcacheTraverseTest, SixHundredLevels)
{
    std::string path;
    for (int i = 0; i < 600; i++)
        path += "/d";
    build_tree({path.c_str()});
    start_walk();
    int enters = 0, leaves = 0;
    while (dcache_traverse_next_safe(&walk))
        (walk.state == DCACHE_ENTER ? enters : leaves)++;
    EXPECT_EQ(599, enters);
    EXPECT_EQ(600, leaves);
}

/* ---- blocks ---- */

TEST_F(DcacheTraverseTest, TheStartBlockIsGivenOrZero)
{
    unsigned char block[DCACHE_DATA_SIZE];
    for (size_t i = 0; i < sizeof(block); i++)
        block[i] = static_cast<unsigned char>(i + 1);
    build_tree({"/a"});
    start_walk("/", block);
    EXPECT_EQ(0, memcmp(block, walk.cur.data, sizeof(block)));
    take_visit();
    EXPECT_EQ(0, memcmp(block, walk.cur.data, sizeof(block)));
    dcache_traverse_end(&walk);
    memset(&walk, 0xa5, sizeof(walk));
    start_walk();
    EXPECT_EQ(0, walk.cur.data[0]);
    EXPECT_EQ(0, walk.cur.data[31]);
}

TEST_F(DcacheTraverseTest, ABlockWrittenOnTheWayDownReachesTheChildren)
{
    build_tree({"/a/b/c", "/a/d", "/e"});
    unsigned char block[DCACHE_DATA_SIZE] = {10};
    start_walk("/", block);
    Visits seen;
    while (struct dentry *d = dcache_traverse_next_safe(&walk)) {
        seen.push_back(name_of(d) + std::to_string(walk.state) + " parent " + std::to_string(walk.cur.data[0]) +
                       " own " + std::to_string(walk.ret.data[0]));
        if (walk.state == DCACHE_ENTER)
            walk.ret.data[0] = static_cast<unsigned char>(walk.cur.data[0] + 1);
    }
    EXPECT_EQ((Visits{"a0 parent 10 own 0", "b0 parent 11 own 0", "c1 parent 12 own 0", "b2 parent 11 own 12",
                      "d1 parent 11 own 0", "a2 parent 10 own 11", "e1 parent 10 own 0"}),
              seen);
}

TEST_F(DcacheTraverseTest, ABlockNotWrittenIsZeroBelow)
{
    build_tree({"/a/b/c"});
    unsigned char block[DCACHE_DATA_SIZE] = {10};
    start_walk("/", block);
    take_visit();
    EXPECT_EQ(10, walk.cur.data[0]);
    take_visit();
    EXPECT_EQ(0, walk.cur.data[0]);
}

TEST_F(DcacheTraverseTest, TheCurrentDirectoryIsTheParentOfWhatIsReturned)
{
    build_tree({"/a/b/c", "/a/d/e", "/f"});
    start_walk();
    while (struct dentry *d = dcache_traverse_next_safe(&walk))
        EXPECT_EQ(d->parent, walk.cur.d) << full_path(d);
}

/* ---- changes under way ---- */

TEST_F(DcacheTraverseTest, WhatIsReturnedForGoodMayBeDeleted)
{
    build_tree({"/a/b/c", "/a/b/d", "/a/e", "/f/g", "/h"});
    start_walk();
    int deleted = 0;
    while (struct dentry *d = dcache_traverse_next_safe(&walk))
        if (walk.state != DCACHE_ENTER) {
            EXPECT_EQ(0, dcache_del(&cache, d));
            deleted++;
        }
    EXPECT_EQ(8, deleted);
    EXPECT_EQ(0u, cache.count);
}

TEST_F(DcacheTraverseTest, EverySecondLeafMayBeDeleted)
{
    build_tree({"/a/1", "/a/2", "/a/3", "/a/4", "/a/5"});
    start_walk();
    Visits seen;
    for (int i = 0; struct dentry *d = dcache_traverse_next_safe(&walk); i++) {
        seen.push_back(full_path(d));
        if (i % 2)
            dcache_del(&cache, d);
    }
    EXPECT_EQ((Visits{"/a", "/a/1", "/a/2", "/a/3", "/a/4", "/a/5", "/a"}), seen);
    EXPECT_EQ((Visits{"/a", "/a/2", "/a/4"}), tree());
}

TEST_F(DcacheTraverseTest, ADirectoryEmptiedBeforeItIsEnteredIsLeftAtOnce)
{
    build_tree({"/a/b", "/c"});
    start_walk();
    EXPECT_EQ("/a 0", take_visit());
    ASSERT_EQ(0, del("/a/b"));
    EXPECT_EQ((Visits{"/a 2", "/c 1"}), take_all());
}

TEST_F(DcacheTraverseTest, ANonZeroStatePrunes)
{
    build_tree({"/a/b/c", "/d/e"});
    start_walk();
    EXPECT_EQ("/a 0", take_visit());
    walk.state = DCACHE_LEAF;
    EXPECT_EQ("/d 0", take_visit());
    walk.state = 77;
    EXPECT_EQ("end", take_visit());
}

TEST_F(DcacheTraverseTest, APrunedDirectoryGetsNoSecondVisitButItsParentDoes)
{
    build_tree({"/a/b/c", "/a/d"});
    start_walk();
    EXPECT_EQ("/a 0", take_visit());
    EXPECT_EQ("/a/b 0", take_visit());
    walk.state = DCACHE_LEAVE;
    EXPECT_EQ((Visits{"/a/d 1", "/a 2"}), take_all());
}

/* ---- failed pushes, early ends ---- */

TEST_F(DcacheTraverseTest, AFailedPushSkipsTheSubtreeAndItsSecondVisit)
{
    build_tree({"/a/b", "/c/d", "/e"});
    start_walk();
    Fault fault("malloc");
    EXPECT_EQ((Visits{"/a 0", "/c 0", "/c/d 1", "/c 2", "/e 1"}), take_all());
    EXPECT_EQ(1, testlib::log_count(1, "dir malloc failed\n"));
    EXPECT_EQ("dcache.c", testlib::log_lines().at(0).file);
}

TEST_F(DcacheTraverseTest, EachPushMayFail)
{
    build_tree({"/a/b/c/d", "/a/e/f", "/g/h"});
    start_walk();
    const Visits all = take_all();
    const Visits entered = {"/a", "/a/b", "/a/b/c", "/a/e", "/g"}; /* in the order of the pushes */
    int nth = 0;
    const int runs = testlib::fail_each("malloc", ENOMEM, [&](Fault &fault) {
        testlib::log_clear();
        start_walk();
        const Visits visits = take_all();
        Visits expected = all;
        if (fault.hit()) {
            const std::string &skipped = entered[static_cast<size_t>(nth++)];
            std::erase_if(expected, [&](const std::string &visit) {
                return visit.starts_with(skipped + "/") || visit == skipped + " 2";
            });
        }
        EXPECT_EQ(expected, visits);
        EXPECT_EQ(fault.hit() ? 1 : 0, testlib::log_count(1, "dir malloc failed\n"));
        EXPECT_TRUE(list_empty(&walk.stack));
    });
    EXPECT_EQ(5, runs);
}

TEST_F(DcacheTraverseTest, WithNoMemoryAtAllTheFirstLevelIsStillMet)
{
    build_tree({"/a/b", "/c/d", "/e"});
    start_walk();
    Fault fault("malloc", 1, ENOMEM, 1000);
    EXPECT_EQ((Visits{"/a 0", "/c 0", "/e 1"}), take_all());
    EXPECT_EQ(2, testlib::log_count(1, "dir malloc failed\n"));
}

TEST_F(DcacheTraverseTest, AnEarlyEndFreesTheLevels)
{
    build_tree({"/a/b/c/d/e"});
    start_walk();
    for (int i = 0; i < 4; i++)
        take_visit();
    EXPECT_FALSE(list_empty(&walk.stack));
    dcache_traverse_end(&walk);
    EXPECT_TRUE(list_empty(&walk.stack));
    dcache_traverse_end(&walk);
}

}  // namespace
