/* The queue of resolved events: its order, its limit in bytes, and what is thrown away beyond. */
#include "linux/fs/fs_queue.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <string>
#include <vector>

#include "testlib/fault.h"

namespace
{

class FsQueue : public ::testing::Test
{
protected:
    ~FsQueue() override { fs_queue_close(&queue_); }

    void open(size_t limit) { ASSERT_EQ(0, fs_queue_open(&queue_, limit)); }
    bool put(const std::string &path, uint32_t kinds = 1, uint32_t pid = 2)
    {
        return fs_queue_put(&queue_, path.c_str(), static_cast<uint32_t>(path.size()), kinds, pid);
    }
    /* "path:kinds:pid", or nothing. */
    std::string take()
    {
        struct fs_queued event;
        if (!fs_queue_take(&queue_, &event))
            return "";
        return std::string(event.path) + ":" + std::to_string(event.kinds) + ":" + std::to_string(event.pid);
    }
    bool readable() const
    {
        struct pollfd look = {queue_.event_fd, POLLIN, 0};
        return poll(&look, 1, 0) == 1;
    }

    struct fs_queue queue_ = {};
};

TEST_F(FsQueue, GivesBackWhatWasPutInInOrder)
{
    open(65536);
    EXPECT_TRUE(put("/a", 0x100, 7));
    EXPECT_TRUE(put("/b/c", 0x200, 8));
    EXPECT_TRUE(put("", 0, 0));
    EXPECT_EQ("/a:256:7", take());
    EXPECT_EQ("/b/c:512:8", take());
    EXPECT_EQ(":0:0", take());
    EXPECT_EQ("", take());
}

TEST_F(FsQueue, WhatWaitsIsWhatWasNotTaken)
{
    open(65536);
    EXPECT_EQ(0u, fs_queue_waiting(&queue_));
    put("/a");
    const size_t one = fs_queue_waiting(&queue_);
    EXPECT_GT(one, 0u);
    put("/b");
    EXPECT_EQ(2 * one, fs_queue_waiting(&queue_));
    take();
    EXPECT_EQ(one, fs_queue_waiting(&queue_));
    take();
    EXPECT_EQ(0u, fs_queue_waiting(&queue_));
    put("/c");
    EXPECT_EQ(one, fs_queue_waiting(&queue_));
    EXPECT_EQ("/c:1:2", take());
    EXPECT_EQ("", take());
    EXPECT_EQ(0u, fs_queue_waiting(&queue_));
}

TEST_F(FsQueue, CanBeReadWhileAnythingWaits)
{
    open(65536);
    EXPECT_FALSE(readable());
    put("/a");
    put("/b");
    EXPECT_TRUE(readable());
    take();
    EXPECT_TRUE(readable());
    take();
    take(); /* the one that finds nothing */
    EXPECT_FALSE(readable());
    put("/c");
    EXPECT_TRUE(readable());
}

TEST_F(FsQueue, CanBeReadWhenItWasCalled)
{
    open(65536);
    fs_queue_call(&queue_);
    fs_queue_call(&queue_);
    EXPECT_TRUE(readable());
    EXPECT_EQ("", take());
    EXPECT_FALSE(readable());
}

TEST_F(FsQueue, HeldItCanBeReadFromTheReleaseOn)
{
    open(65536);
    fs_queue_hold(&queue_);
    put("/a");
    put("/b");
    EXPECT_FALSE(readable());
    fs_queue_release(&queue_);
    EXPECT_TRUE(readable());
    EXPECT_EQ("/a:1:2", take());
    EXPECT_EQ("/b:1:2", take());
    EXPECT_EQ("", take());
    EXPECT_FALSE(readable());
    put("/c");
    EXPECT_TRUE(readable());
}

TEST_F(FsQueue, ReleasedWithNothingInItCannotBeRead)
{
    open(65536);
    fs_queue_hold(&queue_);
    fs_queue_release(&queue_);
    EXPECT_FALSE(readable());
}

TEST_F(FsQueue, HeldWhatWaitsCanBeTakenOut)
{
    open(65536);
    fs_queue_hold(&queue_);
    put("/a");
    EXPECT_EQ("/a:1:2", take());
    put("/b");
    EXPECT_EQ("/b:1:2", take());
    EXPECT_EQ("", take());
    fs_queue_release(&queue_);
    EXPECT_EQ("", take());
    EXPECT_FALSE(readable());
}

TEST_F(FsQueue, HeldItCanBeReadAtOnceWhenCalledOrWhenABlockIsFull)
{
    open(65536);
    fs_queue_hold(&queue_);
    fs_queue_call(&queue_);
    EXPECT_TRUE(readable());
    EXPECT_EQ("", take());
    int count = 0;
    for (; !readable() && count < 200; count++)
        ASSERT_TRUE(put("/some/directory/with/a/file"));
    EXPECT_GT(count, 50); /* 4 KiB */
    EXPECT_LT(count, 110);
}

TEST_F(FsQueue, AtItsLimitItTakesNoMoreUntilThereIsRoom)
{
    open(65536);
    const std::string path(1000, 'x');
    int count = 0;
    while (put(path))
        count++;
    EXPECT_GT(count, 50);
    EXPECT_LT(count, 66);
    EXPECT_LE(queue_.memory.load(), 65536u);
    for (int i = 0; i < 10; i++)
        EXPECT_NE("", take());
    EXPECT_TRUE(put(path));
    int left = 0;
    while (!take().empty())
        left++;
    EXPECT_EQ(count - 10 + 1, left);
}

TEST_F(FsQueue, MemoryOfOthersHoldsItBack)
{
    open(65536);
    fs_queue_count(&queue_, 65536);
    EXPECT_EQ(0u, fs_queue_room(&queue_));
    EXPECT_FALSE(put("/a"));
    fs_queue_uncount(&queue_, 65536);
    EXPECT_TRUE(put("/a"));
}

TEST_F(FsQueue, ManyBlocksInOrder)
{
    open(size_t{8} * 1024 * 1024);
    for (int i = 0; i < 50000; i++)
        ASSERT_TRUE(put("/some/directory/file" + std::to_string(i), 1, static_cast<uint32_t>(i)));
    for (int i = 0; i < 50000; i++)
        ASSERT_EQ("/some/directory/file" + std::to_string(i) + ":1:" + std::to_string(i), take());
    EXPECT_EQ("", take());
    EXPECT_LE(queue_.memory.load(), size_t{70} * 1024); /* one block is kept */
}

TEST_F(FsQueue, WithoutMemoryAnEventIsRefused)
{
    open(65536);
    {
        testlib::Fault fault("malloc");
        EXPECT_FALSE(put("/a"));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_FALSE(readable());
    EXPECT_TRUE(put("/a"));
}

TEST_F(FsQueue, WithoutADescriptorItIsNotOpen)
{
    testlib::Fault fault("eventfd", 1, EMFILE);
    EXPECT_EQ(-1, fs_queue_open(&queue_, 65536));
    EXPECT_EQ(EMFILE, errno);
    EXPECT_EQ(-1, queue_.event_fd);
}

}  // namespace
