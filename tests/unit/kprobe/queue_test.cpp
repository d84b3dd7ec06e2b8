/* The queue of waiting records against a plain model. */
#include "queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <vector>

#include "testlib/fault.h"
#include "testlib/random_bytes.h"

using namespace kprobe;

namespace
{

const unsigned char kByte[1] = {7};

struct Kept {
    uint64_t time;
    uint32_t probe, pid;
    std::vector<unsigned char> raw;
};

Kept some_record(std::mt19937 &random, size_t size)
{
    return {random(), static_cast<uint32_t>(random()), static_cast<uint32_t>(random()),
            testlib::random_bytes(random, size)};
}

bool push(RecordQueue &queue, const Kept &kept)
{
    const unsigned char *raw = kept.raw.empty() ? kByte : kept.raw.data();
    return queue.push({kept.time, kept.probe, kept.pid, raw, static_cast<uint32_t>(kept.raw.size())});
}

void expect_first(const RecordQueue &queue, const Kept &kept)
{
    QueuedRecord first;
    ASSERT_TRUE(queue.peek(first));
    ASSERT_EQ(kept.time, first.time);
    ASSERT_EQ(kept.probe, first.probe);
    ASSERT_EQ(kept.pid, first.pid);
    ASSERT_EQ(kept.raw, std::vector<unsigned char>(first.raw, first.raw + first.raw_size));
}

constexpr size_t kHead = 24, kPage = 4096; /* kHead: what an entry needs besides its bytes */

size_t need_of(size_t raw) { return (kHead + raw + 7) / 8 * 8; }

/* A queue and what must be in it. */
struct AgainstAModel {
    std::mt19937 random;
    const size_t room;
    RecordQueue queue;
    std::deque<Kept> model;
    size_t used = 0; /* without gaps: a lower bound */
    int refused = 0;

    explicit AgainstAModel(size_t bytes) : random(static_cast<unsigned>(bytes)), room(bytes)
    {
        EXPECT_TRUE(queue.open(room));
    }
    void clear()
    {
        ASSERT_EQ(model.size(), queue.clear());
        model.clear();
        used = 0;
    }
    void add()
    {
        const Kept kept = some_record(random, random() % 20 == 0 ? random() % 2500 : random() % 450);
        const size_t need = need_of(kept.raw.size());
        const bool taken = push(queue, kept);
        ASSERT_FALSE(taken && used + need > room);
        ASSERT_FALSE(!taken && used + 2 * need + 2560 <= room) << "there was room";
        refused += !taken;
        if (!taken)
            return;
        model.push_back(kept);
        used += need;
    }
    void take()
    {
        expect_first(queue, model.front());
        used -= need_of(model.front().raw.size());
        queue.pop();
        model.pop_front();
    }
};

}  // namespace

TEST(KprobeQueue, Empty)
{
    RecordQueue queue;
    QueuedRecord record;
    EXPECT_FALSE(queue.push({1, 2, 3, kByte, 0})); /* not opened */
    ASSERT_TRUE(queue.open(kPage));
    EXPECT_TRUE(queue.empty());
    EXPECT_FALSE(queue.peek(record));
    EXPECT_EQ(0u, queue.clear());
    EXPECT_TRUE(queue.push({1, 2, 3, kByte, 0}));
    EXPECT_EQ(1u, queue.count());
}

TEST(KprobeQueue, CannotBeOpened)
{
    RecordQueue queue;
    const testlib::Fault fault("mmap", 1, ENOMEM);
    EXPECT_FALSE(queue.open(kPage));
    EXPECT_FALSE(queue.push({1, 2, 3, kByte, 0}));
}

TEST(KprobeQueue, FullToTheLastByte)
{
    std::mt19937 random(1);
    RecordQueue queue;
    ASSERT_TRUE(queue.open(kPage));
    const Kept kept = some_record(random, 1024 - kHead); /* four of them fill it */
    for (int round = 0; round < 3; round++) {
        for (int i = 0; i < 4; i++)
            ASSERT_TRUE(push(queue, kept)) << i;
        EXPECT_FALSE(push(queue, some_record(random, 0)));
        queue.pop();
        EXPECT_TRUE(push(queue, kept));
        EXPECT_FALSE(push(queue, some_record(random, 0)));
        EXPECT_EQ(4u, queue.count());
        expect_first(queue, kept);
        EXPECT_EQ(4u, queue.clear());
        EXPECT_TRUE(queue.empty());
    }
}

TEST(KprobeQueue, ARecordThatNeverFits)
{
    std::mt19937 random(2);
    RecordQueue queue;
    ASSERT_TRUE(queue.open(kPage));
    const Kept small = some_record(random, 10);
    EXPECT_FALSE(push(queue, some_record(random, kPage - kHead + 1)));
    ASSERT_TRUE(push(queue, small));
    EXPECT_FALSE(push(queue, some_record(random, kPage)));
    expect_first(queue, small);
    queue.pop();
    EXPECT_FALSE(push(queue, some_record(random, kPage - kHead + 1)));
    EXPECT_TRUE(push(queue, some_record(random, kPage - kHead))); /* the largest that does */
}

TEST(KprobeQueue, AnEntryBehindAGap)
{
    std::mt19937 random(3);
    RecordQueue queue;
    ASSERT_TRUE(queue.open(kPage));
    const Kept a = some_record(random, 1500), b = some_record(random, 1500), c = some_record(random, 1400);
    ASSERT_TRUE(push(queue, a));
    ASSERT_TRUE(push(queue, b));
    EXPECT_FALSE(push(queue, c)); /* neither behind b nor before a */
    queue.pop();
    ASSERT_TRUE(push(queue, c));
    expect_first(queue, b);
    queue.pop();
    expect_first(queue, c);
    queue.pop();
    EXPECT_TRUE(queue.empty());
}

TEST(KprobeQueue, AgainstAModel)
{
    for (const size_t room : {kPage, 3 * kPage, size_t{1} << 19}) {
        AgainstAModel both(room);
        unsigned filling = 60;
        for (int i = 0; i < 60000 && !HasFatalFailure(); i++) {
            if (i % 1000 == 0)
                filling = 30 + both.random() % 50; /* grows for a while, shrinks for a while */
            if (both.random() % 5000 == 0)
                both.clear();
            else if (both.random() % 100 < filling)
                both.add();
            else if (!both.model.empty())
                both.take();
            ASSERT_EQ(both.model.size(), both.queue.count());
            ASSERT_EQ(both.model.empty(), both.queue.empty());
        }
        while (!both.model.empty() && !HasFatalFailure())
            both.take();
        EXPECT_TRUE(both.queue.empty());
        EXPECT_GT(both.refused, 0) << room;
    }
}
