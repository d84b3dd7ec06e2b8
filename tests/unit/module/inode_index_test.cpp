/* Tests of linux/inode_index.h: dentries by what they stand for on the disk. */

#include "linux/inode_index.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "testlib/fault.h"

using testlib::Fault;

namespace
{

class InodeIndex : public ::testing::Test
{
protected:
    ~InodeIndex() override { inode_index_release(); }
    struct dentry *make()
    {
        made_.push_back(std::make_unique<struct dentry>());
        dentry_init(made_.back().get());
        return made_.back().get();
    }
    std::vector<std::unique_ptr<struct dentry>> made_;
};

TEST_F(InodeIndex, FindsWhatWasEntered)
{
    struct dentry *a = make(), *b = make();
    EXPECT_EQ(nullptr, inode_index_find(1, 2));
    EXPECT_EQ(0, inode_index_set(a, makedev(8, 1), 77));
    EXPECT_EQ(0, inode_index_set(b, makedev(8, 2), 77));
    EXPECT_EQ(a, inode_index_find(makedev(8, 1), 77));
    EXPECT_EQ(b, inode_index_find(makedev(8, 2), 77));
    EXPECT_EQ(nullptr, inode_index_find(makedev(8, 3), 77));
    EXPECT_EQ(nullptr, inode_index_find(makedev(8, 1), 78));
    EXPECT_TRUE(inode_index_is(a, makedev(8, 1), 77));
    EXPECT_FALSE(inode_index_is(a, makedev(8, 2), 77));
}

TEST_F(InodeIndex, DevicesDifferInTheirHighestBits)
{
    struct dentry *a = make(), *b = make();
    ASSERT_EQ(0, inode_index_set(a, makedev(0xfff, 0xfffff), 1));
    ASSERT_EQ(0, inode_index_set(b, makedev(0x7ff, 0xfffff), 1));
    EXPECT_EQ(a, inode_index_find(makedev(0xfff, 0xfffff), 1));
    EXPECT_EQ(b, inode_index_find(makedev(0x7ff, 0xfffff), 1));
    EXPECT_EQ(nullptr, inode_index_find(makedev(0xfff, 0x7ffff), 1));
}

TEST_F(InodeIndex, ADentryStandsForOneInodeAtATime)
{
    struct dentry *a = make();
    ASSERT_EQ(0, inode_index_set(a, 1, 10));
    ASSERT_EQ(0, inode_index_set(a, 1, 10));
    EXPECT_EQ(1U, inode_index_count());
    ASSERT_EQ(0, inode_index_set(a, 1, 11));
    EXPECT_EQ(1U, inode_index_count());
    EXPECT_EQ(nullptr, inode_index_find(1, 10));
    EXPECT_EQ(a, inode_index_find(1, 11));
    inode_index_remove(a);
    inode_index_remove(a);
    EXPECT_EQ(0U, inode_index_count());
    EXPECT_EQ(nullptr, inode_index_find(1, 11));
    EXPECT_FALSE(inode_index_is(a, 1, 11));
}

TEST_F(InodeIndex, TwoNamesOfOneInode)
{
    struct dentry *a = make(), *b = make();
    ASSERT_EQ(0, inode_index_set(a, 1, 10));
    ASSERT_EQ(0, inode_index_set(b, 1, 10));
    inode_index_remove(inode_index_find(1, 10));
    struct dentry *left = inode_index_find(1, 10);
    EXPECT_TRUE(left == a || left == b);
    inode_index_remove(left);
    EXPECT_EQ(nullptr, inode_index_find(1, 10));
}

TEST_F(InodeIndex, AllNamesInTheOrderOfTheirAddresses)
{
    std::vector<struct dentry *> all;
    for (int i = 0; i < 5; i++)
        all.push_back(make());
    for (struct dentry *d : all)
        ASSERT_EQ(0, inode_index_set(d, 1, 10));
    struct dentry *other = make();
    ASSERT_EQ(0, inode_index_set(other, 1, 11));
    std::sort(all.begin(), all.end(), std::less<>());
    const struct dentry *last = nullptr;
    for (struct dentry *d : all) {
        EXPECT_EQ(d, inode_index_above(all[0], last));
        last = d;
    }
    EXPECT_EQ(nullptr, inode_index_above(all[0], last));
    inode_index_remove(all[2]);
    EXPECT_EQ(all[3], inode_index_above(all[0], all[2])) << "what was last may be gone";
    EXPECT_EQ(other, inode_index_above(other, nullptr));
}

/* Against a map, with numbers so close that chains run into one another and round the end of the table. */
TEST_F(InodeIndex, ChurnAgreesWithAMap)
{
    std::mt19937 random(1);
    std::map<struct dentry *, uint64_t> model;
    for (int i = 0; i < 500; i++)
        make();
    for (int step = 0; step < 200000; step++) {
        struct dentry *d = made_[random() % made_.size()].get();
        if (random() % 5 < 2) {
            inode_index_remove(d);
            model.erase(d);
        } else {
            uint64_t ino = random() % 700;
            ASSERT_EQ(0, inode_index_set(d, 3, ino));
            model[d] = ino;
        }
    }
    EXPECT_EQ(model.size(), inode_index_count());
    std::map<uint64_t, int> wanted;
    for (const auto &[d, ino] : model) {
        EXPECT_TRUE(inode_index_is(d, 3, ino));
        wanted[ino]++;
    }
    for (uint64_t ino = 0; ino < 700; ino++) {
        int found = 0;
        while (struct dentry *d = inode_index_find(3, ino)) {
            inode_index_remove(d);
            found++;
        }
        EXPECT_EQ(wanted[ino], found) << ino;
    }
    EXPECT_EQ(0U, inode_index_count());
}

TEST_F(InodeIndex, WithoutMemoryForATable)
{
    struct dentry *a = make();
    Fault fault("calloc", 1, ENOMEM);
    EXPECT_EQ(FMON_ENOMEM, inode_index_set(a, 1, 1));
    EXPECT_TRUE(fault.hit());
    EXPECT_FALSE(inode_index_is(a, 1, 1));
    EXPECT_EQ(nullptr, inode_index_find(1, 1));
    EXPECT_EQ(0, inode_index_set(a, 1, 1)) << "the next try finds memory";
}

/* A table that cannot grow is filled further than it likes, and then refuses; nothing in it is lost. */
TEST_F(InodeIndex, WithoutMemoryToGrow)
{
    ASSERT_EQ(0, inode_index_set(make(), 1, 0));
    Fault fault("calloc", 1, ENOMEM, 1000);
    uint64_t entered = 1;
    while (inode_index_set(make(), 1, entered) == 0)
        entered++;
    EXPECT_EQ(56U, entered);
    for (uint64_t ino = 0; ino < entered; ino++)
        EXPECT_NE(nullptr, inode_index_find(1, ino)) << ino;
    EXPECT_EQ(nullptr, inode_index_find(1, entered));
    inode_index_remove(inode_index_find(1, 5));
    EXPECT_EQ(0, inode_index_set(made_.back().get(), 1, entered));
}

}  // namespace
