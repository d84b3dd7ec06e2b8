/* Tests of recovery.h: when trees are walked again. The clock is moved by hand. */
#include "agent/recovery.h"

#include <gtest/gtest.h>

using agent::Recovery;

namespace
{

constexpr uint64_t kNow = 1'000'000;

TEST(Recovery, NothingIsDueWithoutALoss)
{
    const Recovery recovery;
    EXPECT_FALSE(recovery.walk_is_due(kNow));
    EXPECT_FALSE(recovery.trial_is_due(kNow));
    EXPECT_FALSE(recovery.is_walking());
    EXPECT_EQ(UINT64_MAX, recovery.next(kNow));
}

TEST(Recovery, ALossIsFollowedByOneWalkAtOnce)
{
    Recovery recovery;
    recovery.lost();
    EXPECT_TRUE(recovery.walk_is_due(kNow));
    recovery.started(kNow);
    EXPECT_TRUE(recovery.is_walking());
    EXPECT_FALSE(recovery.walk_is_due(kNow + 5000)) << "there is one";
    EXPECT_EQ(kNow + Recovery::kSliceMs, recovery.next(kNow));
    EXPECT_TRUE(recovery.ended(kNow + 10, false));
    EXPECT_FALSE(recovery.walk_is_due(kNow + 100'000));
    EXPECT_EQ(UINT64_MAX, recovery.next(kNow + 10));
}

TEST(Recovery, WhatIsLostDuringAWalkMakesItCountForNothing)
{
    Recovery recovery;
    recovery.lost();
    recovery.started(kNow);
    recovery.lost();
    EXPECT_FALSE(recovery.walk_is_due(kNow + 1)) << "not before the first is through";
    EXPECT_FALSE(recovery.ended(kNow + 1, false));
    EXPECT_EQ(kNow + 1 + Recovery::kShortestMs, recovery.next(kNow + 1));
    EXPECT_FALSE(recovery.walk_is_due(kNow + Recovery::kShortestMs));
    EXPECT_TRUE(recovery.walk_is_due(kNow + 1 + Recovery::kShortestMs));
}

TEST(Recovery, WalksComeLaterEachTimeWhileLossesContinue)
{
    Recovery recovery;
    uint64_t now = kNow, rest = Recovery::kShortestMs;
    recovery.lost();
    for (int i = 0; i < 10; i++) {
        ASSERT_TRUE(recovery.walk_is_due(now)) << i;
        recovery.started(now);
        recovery.lost();
        EXPECT_FALSE(recovery.ended(now, false));
        EXPECT_EQ(now + rest, recovery.next(now)) << i;
        now += rest;
        rest = std::min(2 * rest, Recovery::kLongestMs);
    }
    recovery.started(now);
    EXPECT_TRUE(recovery.ended(now, false));
    recovery.lost();
    EXPECT_EQ(now + Recovery::kLongestMs, recovery.next(now));
    now += 4 * Recovery::kLongestMs;
    recovery.started(now);
    EXPECT_TRUE(recovery.ended(now, false));
    recovery.lost();
    EXPECT_EQ(now + Recovery::kShortestMs, recovery.next(now)) << "calm again";
}

TEST(Recovery, WalksTakeAFifthOfTheTimeAtMost)
{
    Recovery recovery;
    recovery.lost();
    recovery.started(kNow);
    EXPECT_TRUE(recovery.ended(kNow + 2000, false));
    recovery.lost();
    EXPECT_EQ(kNow + 10'000, recovery.next(kNow + 2000));
}

TEST(Recovery, WantOfRoomIsTriedAndWalkedOnceThereIsSome)
{
    Recovery recovery;
    recovery.found_no_room(kNow);
    recovery.found_no_room(kNow + 500);
    EXPECT_FALSE(recovery.trial_is_due(kNow + Recovery::kTrialMs - 1));
    EXPECT_EQ(kNow + Recovery::kTrialMs, recovery.next(kNow));
    EXPECT_TRUE(recovery.trial_is_due(kNow + Recovery::kTrialMs));
    recovery.tried(kNow + 1000, false);
    EXPECT_FALSE(recovery.walk_is_due(kNow + 1000));
    EXPECT_FALSE(recovery.trial_is_due(kNow + 1000));
    recovery.tried(kNow + 2000, true);
    EXPECT_TRUE(recovery.walk_is_due(kNow + 2000));
    recovery.started(kNow + 2000);
    EXPECT_FALSE(recovery.trial_is_due(kNow + 9000)) << "the walk tries all";
    EXPECT_TRUE(recovery.ended(kNow + 2010, true));
    EXPECT_EQ(kNow + 2010 + Recovery::kTrialMs, recovery.next(kNow + 2010)) << "not for all of them";
    recovery.tried(kNow + 3010, true);
    recovery.started(kNow + 3010);
    EXPECT_TRUE(recovery.ended(kNow + 3020, false));
    EXPECT_EQ(UINT64_MAX, recovery.next(kNow + 3020));
}

}  // namespace
