/* Tests of linux/seq.h: the table of watch descriptors, its holes and its limits. */

#include "linux/seq.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "testlib/fake_host.h"
#include "testlib/fault.h"

namespace
{

using testlib::CallCount;
using testlib::Fault;

constexpr uint64_t kDentry = 0x1000;

/* The allocators of the sanitizers copy a block each time it grows, so that a million entries take minutes. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kMany = 100000;
#else
constexpr int kMany = 1000000;
#endif

class SeqTest : public ::testing::Test
{
protected:
    SeqTest() { testlib::reset_host(); }
    ~SeqTest() override { free(t.entries); }

    /* Stores kDentry + wd for every wd of [first, last]. */
    void fill(int first, int last)
    {
        for (int wd = first; wd <= last; wd++)
            ASSERT_EQ(0, seq_set(&t, wd, kDentry + static_cast<uint64_t>(wd)));
    }
    void del(int first, int last)
    {
        for (int wd = first; wd <= last; wd++)
            ASSERT_EQ(0, seq_del(&t, wd)) << wd;
    }
    void expect_sorted() const
    {
        for (int i = 1; i < t.count; i++)
            ASSERT_LT(t.entries[i - 1].wd, t.entries[i].wd) << i;
    }
    size_t room() const { return malloc_usable_size(t.entries) / sizeof(struct seq_entry); }
    uint64_t get(int wd) { return seq_get(&t, wd); }

    struct seq_table t = {};
};

TEST_F(SeqTest, AnEmptyTableKnowsNothing)
{
    EXPECT_EQ(0u, get(1));
    EXPECT_EQ(0u, get(-1));
    EXPECT_EQ(-1, seq_del(&t, 1));
    EXPECT_EQ(0, t.deleted);
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(SeqTest, TheFirstInsertAllocatesOneChunk)
{
    const CallCount reallocs("realloc");
    fill(1, 1);
    EXPECT_EQ(1, reallocs.calls());
    EXPECT_EQ(1, t.count);
    EXPECT_GE(room(), 128u);
    EXPECT_LT(room(), 256u);
}

TEST_F(SeqTest, OneChunkHolds128Entries)
{
    const CallCount reallocs("realloc");
    fill(1, 127);
    EXPECT_EQ(1, reallocs.calls());
    fill(128, 128);
    EXPECT_EQ(1, reallocs.calls());
    EXPECT_EQ(128, t.count);
}

TEST_F(SeqTest, The129thInsertGrowsTheArrayToTwoChunks)
{
    const CallCount reallocs("realloc");
    fill(1, 129);
    EXPECT_EQ(2, reallocs.calls());
    EXPECT_GE(room(), 256u);
    EXPECT_LT(room(), 384u);
    fill(130, 256);
    EXPECT_EQ(2, reallocs.calls());
    fill(257, 257);
    EXPECT_EQ(3, reallocs.calls());
}

TEST_F(SeqTest, OverwritingAtAFullChunkDoesNotGrow)
{
    fill(1, 128);
    const CallCount reallocs("realloc");
    EXPECT_EQ(0, seq_set(&t, 128, 7));
    EXPECT_EQ(0, reallocs.calls());
    EXPECT_EQ(128, t.count);
    EXPECT_EQ(7u, get(128));
}

TEST_F(SeqTest, InsertingBelowExistingKeysKeepsTheOrder)
{
    fill(200, 328);
    fill(1, 10);
    fill(100, 100);
    expect_sorted();
    EXPECT_EQ(140, t.count);
    EXPECT_EQ(1, t.entries[0].wd);
    EXPECT_EQ(kDentry + 5, get(5));
    EXPECT_EQ(kDentry + 100, get(100));
    EXPECT_EQ(kDentry + 328, get(328));
}

TEST_F(SeqTest, DescendingInsertsAcrossTheChunkKeepTheOrder)
{
    for (int wd = 300; wd > 0; wd--)
        ASSERT_EQ(0, seq_set(&t, wd, static_cast<uint64_t>(wd)));
    expect_sorted();
    for (int wd = 1; wd <= 300; wd++)
        ASSERT_EQ(static_cast<uint64_t>(wd), get(wd));
}

TEST_F(SeqTest, KeysAtTheLimitsOfTheirTypeAreOrdinary)
{
    for (const int wd : {0, INT32_MAX, -1, INT32_MIN})
        ASSERT_EQ(0, seq_set(&t, wd, kDentry));
    expect_sorted();
    for (const int wd : {INT32_MIN, -1, 0, INT32_MAX})
        EXPECT_EQ(kDentry, get(wd));
    EXPECT_EQ(0u, get(1));
}

TEST_F(SeqTest, ValuesAreWholeSixtyFourBits)
{
    ASSERT_EQ(0, seq_set(&t, 1, 0xfedcba9876543210u));
    EXPECT_EQ(0xfedcba9876543210u, get(1));
}

TEST_F(SeqTest, APresentKeyIsOverwritten)
{
    fill(1, 3);
    ASSERT_EQ(0, seq_set(&t, 2, 9));
    EXPECT_EQ(9u, get(2));
    EXPECT_EQ(3, t.count);
}

TEST_F(SeqTest, ADeletedKeyReadsAsNeverSeen)
{
    fill(1, 3);
    del(2, 2);
    EXPECT_EQ(0u, get(2));
    EXPECT_EQ(0u, get(4));
    EXPECT_EQ(3, t.count);
    EXPECT_EQ(1, t.deleted);
}

TEST_F(SeqTest, DeletingAnAbsentKeyCountsNothing)
{
    fill(1, 3);
    EXPECT_EQ(-1, seq_del(&t, 4));
    EXPECT_EQ(0, t.deleted);
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(SeqTest, AHoleIsRevivedAndStaysCounted)
{
    fill(1, 3);
    del(2, 2);
    ASSERT_EQ(0, seq_set(&t, 2, 77));
    EXPECT_EQ(77u, get(2));
    EXPECT_EQ(1, t.deleted);
    EXPECT_EQ(3, t.count);
}

TEST_F(SeqTest, DeletingTheSameKeyTwiceCountsTwice)
{
    fill(1, 2);
    for (int i = 0; i < 255; i++)
        ASSERT_EQ(0, seq_del(&t, 1));
    EXPECT_EQ(2, t.count);
    EXPECT_EQ(255, t.deleted);
    ASSERT_EQ(0, seq_del(&t, 1));
    EXPECT_EQ(1, t.count);
    EXPECT_EQ(0, t.deleted);
    EXPECT_EQ(-1, seq_del(&t, 1));
    EXPECT_EQ(kDentry + 2, get(2));
}

TEST_F(SeqTest, TheDeletionAfter255SweepsTheHolesOut)
{
    fill(1, 1000);
    del(1, 255);
    EXPECT_EQ(1000, t.count);
    EXPECT_EQ(255, t.deleted);
    del(256, 256);
    EXPECT_EQ(744, t.count);
    EXPECT_EQ(0, t.deleted);
    EXPECT_GE(room(), 768u);
    EXPECT_LT(room(), 896u);
    for (int wd = 257; wd <= 1000; wd++)
        ASSERT_EQ(kDentry + static_cast<uint64_t>(wd), get(wd));
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(SeqTest, PoisonSurvivesTheSweep)
{
    fill(1, 400);
    for (const int wd : {1, 200, 400})
        ASSERT_EQ(0, seq_set(&t, wd, SEQ_POISON));
    for (int wd = 2, left = 256; left > 0; wd++) {
        if (wd == 200)
            continue;
        ASSERT_EQ(0, seq_del(&t, wd));
        left--;
    }
    EXPECT_EQ(0, t.deleted);
    EXPECT_EQ(144, t.count);
    for (const int wd : {1, 200, 400})
        EXPECT_EQ(uint64_t{SEQ_POISON}, get(wd));
    for (int i = 0; i < t.count; i++)
        ASSERT_NE(0u, t.entries[i].value);
}

TEST_F(SeqTest, ADeletedPoisonIsAHole)
{
    ASSERT_EQ(0, seq_set(&t, 1, SEQ_POISON));
    ASSERT_EQ(0, seq_del(&t, 1));
    EXPECT_EQ(0u, get(1));
}

TEST_F(SeqTest, ARevivedHoleSurvivesTheSweep)
{
    fill(1, 300);
    del(1, 200);
    ASSERT_EQ(0, seq_set(&t, 10, 5));
    del(201, 256);
    EXPECT_EQ(45, t.count);
    EXPECT_EQ(5u, get(10));
}

TEST_F(SeqTest, SweepingTheLastEntryLeavesAnEmptyTableThatGrowsAgain)
{
    fill(1, 256);
    errno = 0;
    del(1, 256);
    EXPECT_EQ(0, t.count);
    EXPECT_EQ(0, t.deleted);
    EXPECT_EQ(nullptr, t.entries);
    EXPECT_EQ(1, testlib::log_count_containing("realloc failed: "));
    EXPECT_TRUE(testlib::logged(2, std::string("realloc failed: ") + strerror(0) + "\n"));
    EXPECT_EQ("linux/seq.c", testlib::log_lines().at(0).file);
    EXPECT_EQ(0u, get(1));
    EXPECT_EQ(-1, seq_del(&t, 1));

    const CallCount reallocs("realloc");
    fill(500, 628);
    EXPECT_EQ(2, reallocs.calls());
    expect_sorted();
    EXPECT_EQ(kDentry + 628, get(628));
}

TEST_F(SeqTest, SweepingDownToOneChunkKeepsOneChunk)
{
    fill(1, 384);
    del(1, 256);
    EXPECT_EQ(128, t.count);
    EXPECT_GE(room(), 128u);
    EXPECT_LT(room(), 256u);
    const CallCount reallocs("realloc");
    fill(385, 385);
    EXPECT_EQ(1, reallocs.calls());
    EXPECT_EQ(kDentry + 257, get(257));
}

TEST_F(SeqTest, AfterASweepTheArrayGrowsWhenItIsFull)
{
    fill(1, 300);
    del(1, 256);
    ASSERT_EQ(44, t.count);
    const CallCount reallocs("realloc");
    fill(301, 384);
    EXPECT_EQ(0, reallocs.calls());
    EXPECT_EQ(128, t.count);
    fill(385, 385);
    EXPECT_EQ(1, reallocs.calls());
    expect_sorted();
}

TEST_F(SeqTest, AFailedFirstAllocationLeavesTheTableEmpty)
{
    {
        const Fault fault("realloc", 1, ENOMEM);
        EXPECT_EQ(-1, seq_set(&t, 1, kDentry));
    }
    EXPECT_TRUE(testlib::logged(1, "realloc seq failed: Cannot allocate memory\n"));
    EXPECT_EQ(0, t.count);
    EXPECT_EQ(nullptr, t.entries);
    fill(1, 1);
    EXPECT_EQ(kDentry + 1, get(1));
}

TEST_F(SeqTest, AFailedGrowthLeavesTheTableAsItWas)
{
    fill(2, 129);
    const std::vector<struct seq_entry> before(t.entries, t.entries + t.count);
    {
        const Fault fault("realloc", 1, ENOMEM, 2);
        EXPECT_EQ(-1, seq_set(&t, 130, kDentry));
        EXPECT_EQ(-1, seq_set(&t, 1, kDentry));
        EXPECT_EQ(0, seq_set(&t, 129, 3)) << "a present key needs no room";
    }
    EXPECT_EQ(2, testlib::log_count(1, "realloc seq failed: Cannot allocate memory\n"));
    ASSERT_EQ(128, t.count);
    EXPECT_EQ(0, memcmp(before.data(), t.entries, 127 * sizeof(struct seq_entry)));
    EXPECT_EQ(0u, get(130));
    EXPECT_EQ(0u, get(1));
    fill(130, 130);
    EXPECT_EQ(kDentry + 130, get(130));
}

TEST_F(SeqTest, AFailedShrinkKeepsTheLargerBlockAndTheSweptEntries)
{
    fill(1, 600);
    del(1, 255);
    const struct seq_entry *block = t.entries;
    {
        const Fault fault("realloc", 1, ENOMEM);
        EXPECT_EQ(0, seq_del(&t, 256));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(testlib::logged(2, "realloc failed: Cannot allocate memory\n"));
    EXPECT_EQ(block, t.entries);
    EXPECT_EQ(344, t.count);
    EXPECT_EQ(0, t.deleted);
    fill(601, 800);
    for (int wd = 257; wd <= 800; wd++)
        ASSERT_EQ(kDentry + static_cast<uint64_t>(wd), get(wd));
}

TEST_F(SeqTest, ACountThatOverflowsAborts)
{
    struct seq_entry entry = {1, kDentry};
    struct seq_table huge = {1, &entry, INT32_MAX};
    EXPECT_EXIT(seq_del(&huge, 1), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(SeqTest, ManyRisingKeysAreFound)
{
    fill(1, kMany);
    ASSERT_EQ(kMany, t.count);
    for (int wd = 1; wd <= kMany; wd += 997)
        ASSERT_EQ(kDentry + static_cast<uint64_t>(wd), get(wd));
    del(1, 256);
    EXPECT_EQ(kMany - 256, t.count);
}

/* A table beside a map: holes are absent in the map, and a sweep must not be seen from outside. */
TEST_F(SeqTest, BehavesAsAMapUnderRandomUse)
{
    std::mt19937 random(20240611);
    std::map<int, uint64_t> model;
    for (int step = 0; step < 200000; step++) {
        const int wd = static_cast<int>(random() % 2000);
        const auto kind = random() % 10;
        if (kind < 5) {
            const uint64_t value = kind == 0 ? uint64_t{SEQ_POISON} : kDentry + random();
            ASSERT_EQ(0, seq_set(&t, wd, value));
            model[wd] = value;
        } else if (kind < 9) {
            const bool known = model.erase(wd) != 0;
            const int result = seq_del(&t, wd);
            ASSERT_TRUE(result == 0 || !known) << wd;
        } else {
            ASSERT_EQ(model.count(wd) ? model[wd] : 0, get(wd));
        }
    }
    expect_sorted();
    for (int wd = 0; wd < 2000; wd++)
        ASSERT_EQ(model.count(wd) ? model[wd] : 0, get(wd)) << wd;
}

TEST_F(SeqTest, RandomUseWithFailingAllocationsLosesNothing)
{
    std::mt19937 random(7);
    std::map<int, uint64_t> model;
    for (int step = 0; step < 20000; step++) {
        const int wd = static_cast<int>(random() % 3000);
        const Fault fault("realloc", 1, ENOMEM, random() % 2 ? 1 : 0);
        if (random() % 3) {
            const uint64_t value = kDentry + random() % 99;
            if (seq_set(&t, wd, value) == 0)
                model[wd] = value;
        } else if (seq_del(&t, wd) == 0) {
            model.erase(wd);
        }
    }
    expect_sorted();
    for (int wd = 0; wd < 3000; wd++)
        ASSERT_EQ(model.count(wd) ? model[wd] : 0, get(wd)) << wd;
}

}  // namespace
