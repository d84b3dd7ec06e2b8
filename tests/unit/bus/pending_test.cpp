/* Messages that wait for an answer, and what a plug-in was told. */
#include "bus/nats/pending.h"

#include <gtest/gtest.h>

#include <fstream>
#include <vector>

#include "bus/settings.h"
#include "testlib/tree.h"

using bus::Pending;
using Numbers = std::vector<uint64_t>;

TEST(BusPending, WhatWaitsTooLongIsTakenOutInOrder)
{
    Pending pending;
    pending.add(1, 10);
    pending.add(2, 20);
    pending.add(3, 30);
    EXPECT_EQ(Numbers{}, pending.take(9));
    EXPECT_EQ((Numbers{1, 2}), pending.take(20));
    EXPECT_FALSE(pending.remove(1));
    EXPECT_TRUE(pending.remove(3));
    EXPECT_EQ(0u, pending.size());
    EXPECT_EQ(Numbers{}, pending.take(UINT64_MAX));
}

TEST(BusPending, WhatIsSentAgainWaitsFromThenOn)
{
    Pending pending;
    pending.add(1, 10);
    EXPECT_EQ(Numbers{1}, pending.take(10));
    pending.add(1, 20);
    EXPECT_EQ(Numbers{}, pending.take(19));
    EXPECT_TRUE(pending.remove(1));
    pending.add(1, 30); /* the entry of the time before is passed over */
    EXPECT_EQ(Numbers{}, pending.take(29));
    EXPECT_EQ(Numbers{1}, pending.take(30));
}

TEST(BusSettings, ValuesAreOfTheirKind)
{
    const struct fmon_bus_setting told[] = {{"servers", "a\nb\n"}, {"tls", "true"}, {"number", "12"}, {"text", "x"}};
    const bus::Settings settings(told, std::size(told));
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), settings.texts("servers"));
    EXPECT_TRUE(settings.flag("tls"));
    EXPECT_FALSE(settings.flag("text"));
    EXPECT_EQ(12u, settings.number("number"));
    EXPECT_TRUE(settings.has("text"));
    EXPECT_FALSE(settings.has("other"));
    EXPECT_TRUE(settings.texts("other").empty());
}

TEST(BusSettings, ASecretIsReadWithoutItsLineEnd)
{
    testlib::TempTree tree;
    const std::string path = tree.file("secret", "geheim\n");
    const struct fmon_bus_setting told[] = {{"password", path.c_str()}, {"token", "/does/not/exist"}};
    const bus::Settings settings(told, std::size(told));
    std::string secret;
    EXPECT_TRUE(settings.secret("password", secret));
    EXPECT_EQ("geheim", secret);
    EXPECT_FALSE(settings.secret("token", secret));
}
