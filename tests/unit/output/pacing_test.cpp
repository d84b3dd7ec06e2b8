/* Sampling, summaries of bursts, and limits of rates. */
#include "output/pacing.h"

#include "orx_fmon.h"
#include "output/formats.h"
#include "unit/agent/agent_testing.h"

using namespace output;
using agent_testing::event_of;
using V = Pacing::Verdict;

TEST(PacingTest, WithoutOptionsAllIsShown)
{
    Pacing pacing({});
    for (int i = 0; i < 1000; i++)
        EXPECT_EQ(V::kShown, pacing.judge(event_of("/d/a", FMON_CREATE), 0));
    EXPECT_EQ(UINT64_MAX, pacing.next());
}

TEST(PacingTest, OneOfSoManyIsShown)
{
    Pacing pacing({0, 3, 0});
    std::string shown;
    for (int i = 0; i < 7; i++)
        shown += pacing.judge(event_of("/d/a", FMON_CREATE), 0) == V::kShown ? 'x' : '.';
    EXPECT_EQ("x..x..x", shown);
}

TEST(PacingTest, ARateHoldsForEachSecond)
{
    Pacing pacing({2, 1, 0});
    const auto judge = [&](uint64_t now) { return pacing.judge(event_of("/d/a", FMON_CREATE), now); };
    EXPECT_EQ(V::kShown, judge(5000));
    EXPECT_EQ(V::kShown, judge(5100));
    EXPECT_EQ(V::kLimited, judge(5200));
    EXPECT_EQ(V::kLimited, judge(5999));
    EXPECT_EQ(0u, pacing.take_limited(6000));
    EXPECT_EQ(V::kShown, judge(6000));
    EXPECT_EQ(6200u, pacing.next());
    EXPECT_EQ(2u, pacing.take_limited(6200));
    EXPECT_EQ(0u, pacing.take_limited(9000));
}

TEST(PacingTest, WhatIsAlikeIsCounted)
{
    Pacing pacing({0, 1, 10'000});
    agent::ProcessInfo make;
    make.name = "make";
    EXPECT_EQ(V::kShown, pacing.judge(event_of("/d/a", FMON_CREATE), 100));
    EXPECT_EQ(V::kSummarised, pacing.judge(event_of("/d/b", FMON_CREATE), 200));
    EXPECT_EQ(V::kSummarised, pacing.judge(event_of("/d/c", FMON_CREATE), 10'099));
    EXPECT_EQ(V::kShown, pacing.judge(event_of("/d/a", FMON_DELETE), 200));
    EXPECT_EQ(V::kShown, pacing.judge(event_of("/e/a", FMON_CREATE), 200));
    EXPECT_EQ(V::kShown, pacing.judge(event_of("/d/a", FMON_CREATE, 7, &make), 200));
    EXPECT_EQ(10'100u, pacing.next());
    EXPECT_TRUE(pacing.take_bursts(10'099).empty());
    const std::vector<Burst> bursts = pacing.take_bursts(10'100);
    ASSERT_EQ(1u, bursts.size());
    EXPECT_EQ("/d", bursts[0].directory);
    EXPECT_EQ(uint32_t{FMON_CREATE}, bursts[0].mask);
    EXPECT_EQ(2u, bursts[0].count);
    EXPECT_EQ(10'000u, bursts[0].ms);
    EXPECT_EQ(V::kShown, pacing.judge(event_of("/d/d", FMON_CREATE), 10'200));
}

TEST(PacingTest, AtTheEndNothingIsKept)
{
    Pacing pacing({1, 1, 10'000});
    pacing.judge(event_of("/a", FMON_CREATE), 0);
    pacing.judge(event_of("/b", FMON_CREATE), 500);
    pacing.judge(event_of("/b", FMON_DELETE), 600);
    const std::vector<Burst> bursts = pacing.take_bursts(500, true);
    ASSERT_EQ(1u, bursts.size());
    EXPECT_EQ("/", bursts[0].directory);
    EXPECT_EQ(500u, bursts[0].ms);
    EXPECT_EQ(1u, pacing.take_limited(600, true));
}

TEST(PacingTest, ItsMemoryIsBounded)
{
    Pacing pacing({0, 1, 10'000});
    for (size_t i = 0; i < Pacing::kMostBursts; i++)
        pacing.judge(event_of("/" + std::to_string(i) + "/a", FMON_CREATE), 0);
    EXPECT_EQ(V::kShown, pacing.judge(event_of("/new/a", FMON_CREATE), 1));
    EXPECT_EQ(V::kShown, pacing.judge(event_of("/new/a", FMON_CREATE), 1));
    EXPECT_EQ(V::kSummarised, pacing.judge(event_of("/0/a", FMON_CREATE), 1));
}

TEST(PacingTest, ABurstIsARecordOfMostForms)
{
    const Burst burst = {"/d", "make", FMON_CREATE, 1204, 10'000};
    std::string error, json, text, csv;
    make_formatter("json", {}, error)->burst(0, burst, json);
    EXPECT_NE(std::string::npos,
              json.find(R"("events":["create"],"path":"/d","process":"make","count":1204,"seconds":10.0)"))
        << json;
    make_formatter("text", {}, error)->burst(0, burst, text);
    EXPECT_NE(std::string::npos, text.find("/d  1,204 more like this in 10 s: create by make")) << text;
    make_formatter("csv", {}, error)->burst(0, burst, csv);
    EXPECT_NE(std::string::npos, csv.find("burst,/d,0,")) << csv;
}
