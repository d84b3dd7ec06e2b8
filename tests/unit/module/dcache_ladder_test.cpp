/* Tests of dcache.h: the sizes that the hash array goes through as entries come and go. */

#include "dcache_fixture.h"

namespace
{

using testlib::CallCount;
using testlib::Fault;

class DcacheLadderTest : public DcacheFixture
{
protected:
    DcacheLadderTest() : DcacheFixture(DCACHE_MAX_ENTRIES) {}

    static std::string name(int i) { return "/entry-" + std::to_string(i); }
    void fill_to(int count)
    {
        for (int i = static_cast<int>(cache.count); i < count; i++)
            ASSERT_NE(nullptr, add(name(i)));
    }
    void drain_to(int count)
    {
        for (int i = static_cast<int>(cache.count) - 1; i >= count; i--)
            ASSERT_EQ(0, del(name(i)));
    }
    /* As if the cache held `count` entries: the table's size depends on the count, not on the entries. */
    template <typename F>
    void pretend(uint32_t count, F step)
    {
        const uint32_t offset = count - cache.count;
        cache.count += offset;
        step();
        cache.count -= offset;
    }

    /* The chains after a move to `size` buckets: old buckets in order, each chain from its head, pushed at the head. */
    std::vector<std::vector<struct dentry *>> rehashed(int32_t size)
    {
        std::vector<std::vector<struct dentry *>> out(static_cast<size_t>(size));
        for (const auto &chain : buckets())
            for (struct dentry *d : chain) {
                const uint32_t hash = full_name_hash(reinterpret_cast<uintptr_t>(d->parent), dentry_name(d), d->len);
                auto &bucket = out[hash % static_cast<uint32_t>(size)];
                bucket.insert(bucket.begin(), d);
            }
        return out;
    }
};

TEST_F(DcacheLadderTest, GrowsWhenAnEntryIsAddedToAFullTable)
{
    fill_to(1023);
    EXPECT_EQ(128, dcache_buckets(&cache));
    fill_to(1024);
    EXPECT_EQ(128, dcache_buckets(&cache));
    EXPECT_NE(nullptr, add(name(5)));
    EXPECT_EQ(128, dcache_buckets(&cache)) << "finding does not grow";
    fill_to(1025);
    EXPECT_EQ(1024, dcache_buckets(&cache));
}

TEST_F(DcacheLadderTest, ShrinksAt686)
{
    fill_to(1025);
    drain_to(687);
    EXPECT_EQ(1024, dcache_buckets(&cache));
    drain_to(686);
    EXPECT_EQ(128, dcache_buckets(&cache));
    expect_whole();
}

TEST_F(DcacheLadderTest, DoesNotFlapBetweenTheThresholds)
{
    fill_to(1025);
    drain_to(687);
    CallCount allocations("calloc");
    for (int i = 0; i < 5; i++) {
        fill_to(1024);
        drain_to(687);
    }
    EXPECT_EQ(5 * (1024 - 687), allocations.calls()) << "dentries only, no table";
    EXPECT_EQ(1024, dcache_buckets(&cache));
}

struct Rung {
    uint32_t full;    /* entries at which the table grows */
    int32_t size;     /* and to what */
    uint32_t shrinks; /* entries at which it goes back */
};
constexpr int32_t kFirst = 128;
const Rung kRungs[] = {
    {1024, 1024, 686}, {8192, 4096, 5488}, {32768, 16384, 21954}, {131072, 65536, 87818}, {524288, 262144, 351272},
};

TEST_F(DcacheLadderTest, EveryRungGrowsAndShrinksAtItsThreshold)
{
    fill_to(100);
    int32_t before = kFirst;
    for (const Rung &rung : kRungs) {
        pretend(rung.full - 1, [&] { ASSERT_NE(nullptr, add("/probe")); });
        EXPECT_EQ(before, dcache_buckets(&cache));
        pretend(rung.shrinks + 2, [&] { ASSERT_EQ(0, del("/probe")); });
        pretend(rung.full, [&] { ASSERT_NE(nullptr, add("/probe")); });
        EXPECT_EQ(rung.size, dcache_buckets(&cache));
        expect_whole();
        pretend(rung.shrinks + 2, [&] { ASSERT_EQ(0, del("/probe")); });
        EXPECT_EQ(rung.size, dcache_buckets(&cache)) << "one above the threshold";
        before = rung.size;
    }
    for (int i = 4; i >= 0; i--) {
        pretend(kRungs[i].shrinks + 1, [&] { add("/probe"); });
        pretend(kRungs[i].shrinks + 1, [&] { ASSERT_EQ(0, del("/probe")); });
        EXPECT_EQ(i ? kRungs[i - 1].size : kFirst, dcache_buckets(&cache));
        expect_whole();
    }
    EXPECT_EQ(100u, cache.count);
}

TEST_F(DcacheLadderTest, TheLastRungHoldsTheLargestCacheAndGrowsNoFurther)
{
    for (const Rung &rung : kRungs)
        pretend(rung.full, [&] { add(name(rung.size)); });
    ASSERT_EQ(262144, dcache_buckets(&cache));
    pretend(2097151, [&] { EXPECT_NE(nullptr, add("/the-last")); });
    pretend(2097152, [&] { EXPECT_EQ(nullptr, add("/one-too-many")); });
    pretend(2097152, [&] { EXPECT_NE(nullptr, add("/the-last")); });
    EXPECT_EQ(262144, dcache_buckets(&cache));
}

TEST_F(DcacheLadderTest, OneDeletionGoesDownOneRungOnly)
{
    fill_to(10);
    for (const Rung &rung : kRungs)
        pretend(rung.full, [&] { add(name(rung.size)); });
    ASSERT_EQ(15u, cache.count);
    const int32_t sizes[] = {65536, 16384, 4096, 1024, 128, 128};
    for (int i = 0; i < 6; i++) {
        ASSERT_EQ(0, del(name(i)));
        EXPECT_EQ(sizes[i], dcache_buckets(&cache));
    }
}

TEST_F(DcacheLadderTest, RealEntriesSurviveEveryMove)
{
    std::vector<struct dentry *> made;
    for (int i = 0; i < 33000; i++) {
        const std::string path = "/d" + std::to_string(i % 100) + "/a-rather-long-name-of-a-directory-" +
                                 std::to_string(i) + (i % 2 ? "" : "/x");
        made.push_back(add(path));
        ASSERT_NE(nullptr, made.back());
    }
    EXPECT_EQ(16384, dcache_buckets(&cache));
    EXPECT_EQ(33000u + 16500u + 100u, cache.count);
    expect_whole();
    for (int i = 0; i < 33000; i += 7)
        EXPECT_EQ(made[static_cast<size_t>(i)], find(full_path(made[static_cast<size_t>(i)])));
    while (cache.count > 5488)
        for (struct dentry *&d : made) {
            if (cache.count <= 5488 || !d)
                continue;
            struct dentry *parent = d->parent;
            ASSERT_EQ(0, dcache_del(&cache, d));
            d = parent != cache.root && parent->parent != cache.root ? parent : nullptr;
        }
    EXPECT_EQ(1024, dcache_buckets(&cache));
}

TEST_F(DcacheLadderTest, ChainsAreRebuiltInBucketOrder)
{
    fill_to(1024);
    const auto grown = rehashed(1024);
    struct dentry *extra = add("/extra");
    const uint32_t at = full_name_hash(reinterpret_cast<uintptr_t>(cache.root), "extra", 5) % 1024;
    auto chains = buckets();
    ASSERT_EQ(extra, chains[at].front());
    chains[at].erase(chains[at].begin());
    EXPECT_EQ(grown, chains);

    dcache_del(&cache, extra);
    drain_to(687);
    struct dentry *gone = find(name(686));
    std::vector<std::vector<struct dentry *>> shrunk;
    for (auto &chain : rehashed(128)) {
        std::erase(chain, gone);
        shrunk.push_back(chain);
    }
    drain_to(686);
    EXPECT_EQ(shrunk, buckets());
}

TEST_F(DcacheLadderTest, AddingFailsWhenTheTableCannotGrow)
{
    fill_to(1024);
    const auto before = buckets();
    {
        Fault fault("calloc");
        EXPECT_EQ(nullptr, add("/a/b"));
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(1, fault.calls()) << "no dentry without a table";
    }
    EXPECT_EQ(before, buckets());
    EXPECT_EQ(1024u, cache.count);
    EXPECT_NE(nullptr, add("/a/b"));
    EXPECT_EQ(1024, dcache_buckets(&cache));
}

TEST_F(DcacheLadderTest, AddingFailsAfterTheTableGrew)
{
    fill_to(1024);
    Fault fault("calloc", 2);
    EXPECT_EQ(nullptr, add("/a"));
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(1024u, cache.count);
    EXPECT_EQ(1024, dcache_buckets(&cache));
}

TEST_F(DcacheLadderTest, TheDentryIsGoneEvenWhenTheTableCannotShrink)
{
    fill_to(1025);
    drain_to(687);
    {
        Fault fault("calloc");
        EXPECT_EQ(-1, del(name(686)));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(686u, cache.count);
    EXPECT_EQ(nullptr, find(name(686)));
    EXPECT_EQ(1024, dcache_buckets(&cache)) << "the old table stays in force";
    expect_whole();
    EXPECT_EQ(0, del(name(685)));
    EXPECT_EQ(128, dcache_buckets(&cache)) << "the next deletion tries again";
}

TEST_F(DcacheLadderTest, RollingBackGoesOnWhenTheTableCannotShrink)
{
    fill_to(1025);
    drain_to(688);
    for (int i = 687; i >= 684; i--) /* below the threshold without a move */
        pretend(1000, [&] { ASSERT_EQ(0, del(name(i))); });
    ASSERT_EQ(1024, dcache_buckets(&cache));
    ASSERT_EQ(684u, cache.count);
    Fault fault("calloc", 3, ENOMEM, 100); /* /a and /a/b are made, /a/b/c is not, and no table */
    EXPECT_EQ(nullptr, add("/a/b/c"));
    EXPECT_EQ(684u, cache.count);
    EXPECT_EQ(nullptr, find("/a"));
    EXPECT_EQ(1024, dcache_buckets(&cache));
}

}  // namespace
