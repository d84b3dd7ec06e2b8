/* The latest hit of a CPU: which of the next ones is the same, recorded by another event. */
#include "latest_hit.h"

#include <gtest/gtest.h>

#include <string_view>

using kprobe::LatestHit;
using kprobe::Sample;

namespace
{

Sample sample(uint64_t stream, uint32_t tid, std::string_view raw)
{
    return {
        stream, 7, tid, 100, reinterpret_cast<const unsigned char *>(raw.data()), static_cast<uint32_t>(raw.size())};
}

}  // namespace

TEST(KprobeLatestHit, EveryOtherEventRecordsItAgain)
{
    LatestHit latest;
    EXPECT_FALSE(latest.is_again(sample(1, 5, "raw")));
    EXPECT_TRUE(latest.is_again(sample(2, 5, "raw")));
    EXPECT_TRUE(latest.is_again(sample(3, 5, "raw")));
}

TEST(KprobeLatestHit, AnEventThatRecordedItRecordsTheNext)
{
    LatestHit latest;
    EXPECT_FALSE(latest.is_again(sample(1, 5, "raw")));
    EXPECT_FALSE(latest.is_again(sample(1, 5, "raw")));
    EXPECT_TRUE(latest.is_again(sample(2, 5, "raw")));
    EXPECT_FALSE(latest.is_again(sample(2, 5, "raw"))) << "the second hit has been recorded twice already";
}

TEST(KprobeLatestHit, AnotherThreadOrRecordIsAnotherHit)
{
    LatestHit latest;
    EXPECT_FALSE(latest.is_again(sample(1, 5, "raw")));
    EXPECT_FALSE(latest.is_again(sample(2, 6, "raw")));
    EXPECT_FALSE(latest.is_again(sample(3, 6, "row")));
    EXPECT_FALSE(latest.is_again(sample(4, 6, "rows")));
    EXPECT_TRUE(latest.is_again(sample(5, 6, "rows")));
}

TEST(KprobeLatestHit, WithoutBytes)
{
    LatestHit latest;
    EXPECT_FALSE(latest.is_again(sample(1, 0, ""))) << "there is none before the first";
    EXPECT_TRUE(latest.is_again(sample(2, 0, "")));
}
