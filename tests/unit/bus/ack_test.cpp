/* What a JetStream answers, and what may pretend to be an answer. */
#include "bus/nats/ack.h"

#include <gtest/gtest.h>

#include <string>

using bus::read_ack;

namespace
{

std::string why_of(const char *answer)
{
    std::string why;
    read_ack(answer, why);
    return why;
}
enum fmon_bus_outcome outcome_of(const char *answer)
{
    std::string why;
    return read_ack(answer, why);
}

}  // namespace

TEST(NatsAck, WhatIsStoredIsStored)
{
    EXPECT_EQ(FMON_BUS_STORED, outcome_of(R"({"stream":"FMON","seq":7})"));
    EXPECT_EQ(FMON_BUS_STORED, outcome_of(R"({"stream":"FMON", "seq":7,"duplicate": true})"));
    EXPECT_EQ("", why_of(R"({"stream":"error","seq":7})"));
}

TEST(NatsAck, AnErrorIsForAnotherTimeAndSaysWhy)
{
    const char *const answer =
        R"({"error":{"code":503,"err_code":10077,"description":"maximum bytes exceeded"},"stream":"FMON","seq":0})";
    EXPECT_EQ(FMON_BUS_AGAIN, outcome_of(answer));
    EXPECT_EQ("the stream refuses: maximum bytes exceeded", why_of(answer));
    EXPECT_EQ("the stream refuses: no reason is given", why_of(R"({"error":{"code":500}})"));
}

TEST(NatsAck, AMessageThatIsTooLongWillNeverBeTaken)
{
    EXPECT_EQ(
        FMON_BUS_REFUSED,
        outcome_of(R"({"error":{"code":400,"err_code":10054,"description":"message size exceeds maximum allowed"}})"));
}

TEST(NatsAck, WhatIsNoAnswerOfAStreamIsNone)
{
    for (const char *answer :
         {"", "+OK", "{}", "ok", R"({"seq":7})", R"({"stream":"FMON"})", R"("stream":"FMON","seq":7)"}) {
        EXPECT_EQ(FMON_BUS_AGAIN, outcome_of(answer)) << answer;
        EXPECT_NE(std::string::npos, why_of(answer).find("none of a JetStream")) << answer;
    }
}

TEST(NatsAck, ALongReasonIsCut)
{
    const std::string answer = R"({"error":{"description":")" + std::string(10'000, 'x');
    EXPECT_LT(why_of(answer.c_str()).size(), 300u);
}
