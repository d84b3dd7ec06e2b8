#include "pace.h"

#include <gtest/gtest.h>

using cli::Pace;

namespace
{

constexpr uint64_t kSecond = 1'000'000'000;

TEST(Pace, EventsThatFollowAtOnceAreOneTurn)
{
    Pace pace;
    EXPECT_TRUE(pace.starts_turn(kSecond));
    EXPECT_FALSE(pace.starts_turn(kSecond + Pace::kSameTurn - 1));
    EXPECT_TRUE(pace.starts_turn(kSecond + 2 * Pace::kSameTurn - 1));
}

TEST(Pace, FirstEventAfterASilenceIsNotHeldUp)
{
    Pace pace;
    pace.starts_turn(kSecond);
    EXPECT_EQ(0U, pace.nap(1));
    pace.starts_turn(kSecond + Pace::kSilence + 1);
    EXPECT_EQ(0U, pace.nap(2));
    pace.starts_turn(kSecond + 2 * Pace::kSilence + 1);
    EXPECT_EQ(Pace::kNap, pace.nap(3));
}

TEST(Pace, TurnThatWasNotWaitedForIsNotHeldUp)
{
    Pace pace;
    pace.starts_turn(kSecond);
    pace.nap(7);
    pace.starts_turn(kSecond + 50'000);
    EXPECT_EQ(0U, pace.nap(7)) << "the kernel has more already";
    pace.starts_turn(kSecond + 100'000);
    EXPECT_EQ(Pace::kNap, pace.nap(8));
}

TEST(Pace, ItsOwnSleepIsNoWait)
{
    Pace pace;
    pace.starts_turn(kSecond);
    pace.nap(1);
    pace.starts_turn(kSecond + 100'000);
    ASSERT_EQ(Pace::kNap, pace.nap(2));
    uint64_t now = kSecond + 100'000 + Pace::kNap + 70'000; /* sleeps last longer than asked */
    pace.woke(now, 3);
    EXPECT_FALSE(pace.starts_turn(now + 1000)) << "still the same turn";
    pace.starts_turn(now + 200'000);
    EXPECT_EQ(0U, pace.nap(3));
}

}  // namespace
