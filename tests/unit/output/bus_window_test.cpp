/* Which records are sent next, and which are done with, whatever a bus answers and when. */
#include "output/sinks/bus_window.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace output;

namespace
{

class BusWindowTest : public testing::Test
{
protected:
    void push(std::initializer_list<uint64_t> ordinals)
    {
        for (const uint64_t ordinal : ordinals) {
            BusRecord record;
            record.entry.ordinal = ordinal;
            record.entry.bytes = "12345";
            window.push(record);
        }
    }
    /* Sends all that waits; what it was, in order. */
    std::vector<uint64_t> send()
    {
        std::vector<uint64_t> sent;
        for (size_t i = window.first_waiting(); i < window.size(); i = window.next_waiting(i + 1)) {
            sent.push_back(window.at(i).entry.ordinal);
            window.mark_sent(i);
        }
        return sent;
    }
    std::vector<uint64_t> pop()
    {
        std::vector<uint64_t> done;
        BusRecord record;
        while (window.pop_done(record))
            done.push_back(record.entry.ordinal);
        return done;
    }
    using Numbers = std::vector<uint64_t>;

    BusWindow window;
};

}  // namespace

TEST_F(BusWindowTest, WhatIsDoneLeavesInOrder)
{
    push({3, 4, 7});
    EXPECT_EQ((Numbers{3, 4, 7}), send());
    EXPECT_EQ(3u, window.sent());
    window.settle(4, FMON_BUS_STORED);
    EXPECT_TRUE(pop().empty());
    window.settle(3, FMON_BUS_STORED);
    EXPECT_EQ((Numbers{3, 4}), pop());
    EXPECT_EQ(5u, window.bytes());
    EXPECT_EQ(1u, window.sent());
    window.settle(7, FMON_BUS_REFUSED);
    EXPECT_EQ((Numbers{7}), pop());
    EXPECT_TRUE(window.empty());
    EXPECT_EQ(0u, window.bytes());
}

TEST_F(BusWindowTest, WhatFailedIsSentAgainInOrder)
{
    push({1, 2, 3, 4});
    send();
    window.settle(3, FMON_BUS_AGAIN);
    window.settle(1, FMON_BUS_AGAIN);
    window.settle(2, FMON_BUS_STORED);
    EXPECT_EQ((Numbers{1, 3}), send());
    EXPECT_TRUE(window.at(0).again);
    EXPECT_FALSE(window.at(1).again);
    EXPECT_EQ(3u, window.sent());
}

TEST_F(BusWindowTest, AnAnswerThatComesLateCounts)
{
    push({1, 2});
    send();
    window.settle(1, FMON_BUS_AGAIN);
    window.settle(1, FMON_BUS_STORED); /* of the first time */
    EXPECT_EQ(1u, window.sent());
    EXPECT_TRUE(send().empty());
    EXPECT_EQ((Numbers{1}), pop());
    window.settle(1, FMON_BUS_STORED); /* and one of nobody */
    window.settle(99, FMON_BUS_AGAIN);
    EXPECT_EQ(1u, window.sent());
}

TEST_F(BusWindowTest, AFailureAfterSuccessIsNone)
{
    push({1, 2});
    send();
    window.settle(2, FMON_BUS_STORED);
    window.settle(2, FMON_BUS_AGAIN);
    EXPECT_TRUE(send().empty());
}

TEST_F(BusWindowTest, WhatWasNotTakenWaits)
{
    push({1, 2, 3});
    send();
    window.settle(2, FMON_BUS_STORED);
    window.take_back(2);
    window.take_back(1); /* it has its outcome */
    EXPECT_EQ((Numbers{3}), send());
    push({4});
    EXPECT_EQ((Numbers{4}), send());
    for (const uint64_t ordinal : {1, 3, 4})
        window.settle(ordinal, FMON_BUS_STORED);
    EXPECT_EQ((Numbers{1, 2, 3, 4}), pop());
    push({5});
    EXPECT_EQ((Numbers{5}), send());
}
