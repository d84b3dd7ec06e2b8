#include "pace.h"

#include <gtest/gtest.h>

using cli::Pace;

namespace
{

constexpr uint64_t kSecond = 1'000'000'000;

TEST(Pace, FirstEventAfterASilenceIsNotHeldUp)
{
    Pace pace;
    EXPECT_EQ(0U, pace.event(kSecond));
    EXPECT_EQ(0U, pace.event(2 * kSecond));
    EXPECT_EQ(0U, pace.event(2 * kSecond + Pace::kSilence + 1));
}

TEST(Pace, StreamOfFewEventsATurnGathers)
{
    Pace pace;
    pace.event(kSecond);
    EXPECT_EQ(Pace::kNap, pace.event(kSecond + Pace::kSameTurn));
    EXPECT_EQ(Pace::kNap, pace.event(kSecond + Pace::kSameTurn + Pace::kSilence));
}

TEST(Pace, EventsOfOneTurnAreNotHeldUpAgain)
{
    Pace pace;
    pace.event(kSecond);
    uint64_t now = kSecond + 100'000;
    ASSERT_EQ(Pace::kNap, pace.event(now));
    now += Pace::kNap + 70'000; /* sleeps last longer than asked */
    pace.woke(now);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(0U, pace.event(now += 1000));
}

TEST(Pace, FullTurnsAreLeftAlone)
{
    Pace pace;
    uint64_t now = kSecond;
    for (uint32_t i = 0; i < Pace::kFullTurn; i++)
        pace.event(now += 1000);
    EXPECT_EQ(0U, pace.event(now += Pace::kSameTurn));
    EXPECT_EQ(Pace::kNap, pace.event(now + Pace::kSameTurn)) << "the turn between had one event only";
}

}  // namespace
