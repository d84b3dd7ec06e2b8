/* What was missed, as records and as lines. */
#include <gtest/gtest.h>

#include "agent/losses.h"

namespace
{

using agent::Losses;

struct fmon_status counters_of() { return {}; }

TEST(CliLosses, EachLookTellsWhatIsNew)
{
    Losses losses;
    struct fmon_status now = counters_of();
    EXPECT_TRUE(losses.since_last(now).empty());
    now.lost.inotify = 2;
    const auto first = losses.since_last(now);
    ASSERT_EQ(1u, first.size());
    EXPECT_STREQ("inotify", first[0].source);
    EXPECT_EQ(2u, first[0].count);
    EXPECT_NE(std::string::npos, first[0].text.find("overflowed 2 times"));
    EXPECT_NE(std::string::npos, first[0].text.find("sysctl fs.inotify.max_queued_events="));
    EXPECT_TRUE(losses.since_last(now).empty());
    now.lost.inotify = 3;
    EXPECT_EQ(1u, losses.since_last(now).at(0).count);
}

TEST(CliLosses, WhatMayBlindAWatchSaysSo)
{
    struct fmon_status now = counters_of();
    now.lost = {1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0};
    now.fs.lost = {1, 1, 1};
    now.fs.left_out = 1;
    std::string blinding;
    for (const agent::Loss &loss : Losses().since_last(now))
        blinding += loss.blinds ? std::string(loss.source) + " " : "";
    EXPECT_EQ("inotify fanotify table table filesystem filesystem table ", blinding);
    now = counters_of();
    now.lost.probes_queue = 1;
    EXPECT_FALSE(Losses().since_last(now).at(0).blinds) << "of the whole system, of which nothing is marked";
    now.inotify_probe.state = FMON_SOURCE_ON;
    EXPECT_TRUE(Losses().since_last(now).at(0).blinds);
}

TEST(CliLosses, EveryCounterIsTold)
{
    constexpr size_t kCounters = sizeof(struct fmon_loss_counts) / sizeof(uint64_t);
    for (size_t i = 0; i < kCounters; i++) {
        Losses losses;
        struct fmon_status now = counters_of();
        reinterpret_cast<uint64_t *>(&now.lost)[i] = 1;
        const auto found = losses.since_last(now);
        ASSERT_EQ(1u, found.size()) << "counter " << i;
        EXPECT_FALSE(found[0].text.empty());
    }
}

TEST(CliLosses, EveryCounterOfFileSystemsIsTold)
{
    const std::pair<uint64_t fmon_fs_losses::*, const char *> counters[] = {{&fmon_fs_losses::overflows, "filesystem"},
                                                                            {&fmon_fs_losses::dropped, "filesystem"},
                                                                            {&fmon_fs_losses::unresolved, "table"}};
    static_assert(std::size(counters) * sizeof(uint64_t) == sizeof(struct fmon_fs_losses));
    for (const auto &[counter, source] : counters) {
        Losses losses;
        struct fmon_status now = counters_of();
        now.fs.lost.*counter = 3;
        const auto found = losses.since_last(now);
        ASSERT_EQ(1u, found.size());
        EXPECT_STREQ(source, found[0].source);
        EXPECT_EQ(3u, found[0].count);
        EXPECT_NE(std::string::npos, found[0].text.find("3 ")) << found[0].text;
        EXPECT_TRUE(losses.since_last(now).empty());
    }
}

TEST(CliLosses, AFileSystemBelowAWatchThatCannotBeMarked)
{
    Losses losses;
    struct fmon_status now = counters_of();
    now.fs.left_out = 1;
    const auto found = losses.since_last(now);
    ASSERT_EQ(1u, found.size());
    EXPECT_STREQ("watches", found[0].source);
    EXPECT_EQ("", found[0].path);
    EXPECT_NE(std::string::npos, found[0].text.find("1 file system below")) << found[0].text;
}

TEST(CliLosses, APathIsToldWhereItIsKnown)
{
    Losses losses;
    struct fmon_status now = counters_of();
    now.lost.path = 1;
    now.lost.fanotify = 1;
    snprintf(now.lost_path, sizeof now.lost_path, "/a/b");
    const auto found = losses.since_last(now);
    ASSERT_EQ(2u, found.size());
    EXPECT_EQ("", found[0].path);
    EXPECT_EQ("/a/b", found[1].path);
    EXPECT_NE(std::string::npos, found[1].text.find("/a/b"));
}

}  // namespace
