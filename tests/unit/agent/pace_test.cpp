/* When a session looks around, and when it lets events gather: tables of times, no clock. */
#include "agent/pace.h"

#include <gtest/gtest.h>

using agent::Pace;
using agent::TimeLimit;

TEST(Pace, LooksEachSecondWhileEventsCome)
{
    Pace pace;
    pace.start(10'000);
    EXPECT_FALSE(pace.look_is_due(10'999));
    EXPECT_TRUE(pace.look_is_due(11'000));
    pace.sleeps(10'990);
    pace.wakes(11'000);
    pace.looked(11'000, false);
    EXPECT_EQ(12'000u, pace.next_look());
}

TEST(Pace, LooksRarelyAtAnIdleMachine)
{
    Pace pace;
    pace.start(10'000);
    pace.sleeps(10'000);
    pace.wakes(11'000);
    pace.looked(11'000, false);
    EXPECT_EQ(15'000u, pace.next_look());
}

TEST(Pace, LooksEachSecondForWhatIsExpected)
{
    Pace pace;
    pace.start(10'000);
    pace.sleeps(10'000);
    pace.wakes(11'000);
    pace.looked(11'000, true);
    EXPECT_EQ(12'000u, pace.next_look());
}

TEST(Pace, WhatIsSeenMakesALookSoonButNoneLater)
{
    Pace pace;
    pace.start(10'000);
    pace.sleeps(10'000);
    pace.wakes(11'000);
    pace.looked(11'000, false);
    pace.look_soon(12'000);
    EXPECT_EQ(13'000u, pace.next_look());
    pace.look_soon(12'500);
    EXPECT_EQ(13'000u, pace.next_look());
}

TEST(Pace, EventsGatherInAStreamOnly)
{
    Pace pace;
    pace.start(10'000);
    EXPECT_EQ(Pace::kGatherMs, pace.gather_ms());  // before the first sleep
    pace.sleeps(10'000);
    pace.wakes(10'000 + Pace::kStreamMs + 1);
    EXPECT_EQ(0u, pace.gather_ms());
    pace.sleeps(20'000);
    pace.wakes(20'000 + Pace::kStreamMs);
    EXPECT_EQ(Pace::kGatherMs, pace.gather_ms());
    pace.wakes(90'000);  // did not sleep
    EXPECT_EQ(Pace::kGatherMs, pace.gather_ms());
}

TEST(TimeLimit, BeginsAnewWithWhatIsShown)
{
    TimeLimit limit(500);
    limit.start(10'000);
    EXPECT_EQ(10'500u, limit.end());
    limit.see(10'400, 0);
    EXPECT_EQ(10'500u, limit.end());
    limit.see(10'400, 3);
    EXPECT_EQ(10'900u, limit.end());
    limit.see(10'800, 3);
    EXPECT_EQ(10'900u, limit.end());
}

TEST(TimeLimit, ThereMayBeNone)
{
    TimeLimit limit(0);
    limit.start(10'000);
    EXPECT_EQ(UINT64_MAX, limit.end());
}
