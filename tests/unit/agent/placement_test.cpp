/* Tests of placement.h: what is marked and refused, as the monitor reports it. */

#include "agent/placement.h"

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

/* A monitor that answers as the test says. */
struct fmon_status g_status;
int g_result;
fmon_mark_cb g_listener;

int fake_status(struct fmon_status *out)
{
    *out = g_status;
    return g_result;
}

int fake_on_mark(fmon_mark_cb cb)
{
    g_listener = cb;
    return 0;
}

/* A refusal as the monitor tells of it; `counted`: among those left out. */
void refuse(uint32_t reason, uint32_t step, int error, const std::string &path, uint64_t fmon_left_out::*counted)
{
    struct fmon_refusal refusal = {-108, error, reason, step, ""};
    memcpy(refusal.path, path.c_str(), path.size() + 1);
    g_status.last_refusal = refusal;
    g_status.refusals++;
    if (counted)
        (g_status.left_out.*counted)++;
    g_listener(refusal.path, &refusal);
}

class CliPlacement : public testing::Test
{
protected:
    CliPlacement()
    {
        g_status = {};
        g_result = 0;
        g_listener = nullptr;
        module.status = fake_status;
        module.on_mark = fake_on_mark;
        placement.start(module);
    }

    void deny(const std::string &path)
    {
        refuse(FMON_LEFT_DENIED, FMON_STEP_INOTIFY, EACCES, path, &fmon_left_out::denied);
        refuse(FMON_LEFT_DENIED, FMON_STEP_READ, EACCES, path, nullptr);
    }

    Module module = {};
    int woken = 0;
    Placement placement{[this] { woken++; }};
    std::vector<std::string> heard;
};

}  // namespace

TEST_F(CliPlacement, CountsEachReason)
{
    const struct {
        uint64_t fmon_left_out::*counter;
        uint64_t left_out;
        bool limit;
    } rows[] = {
        {&fmon_left_out::inotify_limit, 1, true}, {&fmon_left_out::fanotify_limit, 1, true},
        {&fmon_left_out::cache_full, 1, true},    {&fmon_left_out::denied, 1, false},
        {&fmon_left_out::descriptors, 1, true},   {&fmon_left_out::too_long, 1, false},
        {&fmon_left_out::gone, 0, false},         {&fmon_left_out::other, 1, false},
    };
    for (const auto &row : rows) {
        (g_status.left_out.*row.counter)++;
        const Findings found = placement.take();
        EXPECT_EQ(1u, found.counts.*row.counter);
        EXPECT_EQ(row.left_out, found.left_out());
        EXPECT_EQ(row.limit, found.limit_reached());
    }
}

TEST_F(CliPlacement, CountsUntilTheyAreTaken)
{
    deny("/a");
    deny("/b");
    EXPECT_EQ(1, woken);
    EXPECT_TRUE(placement.any());
    const Findings found = placement.take();
    EXPECT_EQ(2u, found.left_out());  // each was refused twice
    EXPECT_EQ("/a", found.first_denied);
    EXPECT_STREQ("/b", found.last.path);
    EXPECT_FALSE(found.limit_reached());
    EXPECT_FALSE(placement.any());
    const Findings none = placement.take();
    EXPECT_EQ(0u, none.left_out());
    EXPECT_EQ(0, none.last.code);  // that was told
    EXPECT_EQ("", none.first_denied);
    deny("/c");
    EXPECT_EQ(2, woken);
}

TEST_F(CliPlacement, WhatWentAwayIsNothingToLookAt)
{
    refuse(FMON_LEFT_GONE, FMON_STEP_READ, ENOENT, "/a", &fmon_left_out::gone);
    EXPECT_EQ(0, woken);
    EXPECT_FALSE(placement.any());
    EXPECT_EQ(0u, placement.take().left_out());
}

TEST_F(CliPlacement, NewWatchesAreCountedAndThoseOfOtherThreadsAreHeard)
{
    g_listener("/before", nullptr);
    placement.listen([this](const std::string &path) { heard.push_back(path); });
    g_listener("/mine", nullptr);
    std::thread([] { g_listener("/theirs", nullptr); }).join();
    EXPECT_EQ(std::vector<std::string>{"/theirs"}, heard);
    EXPECT_EQ(3u, placement.placed());
    EXPECT_FALSE(placement.any());
}

TEST_F(CliPlacement, DenialsAreHeardOnceEach)
{
    placement.listen_to_denials([this](const std::string &path) { heard.push_back(path); });
    deny("/a");
    refuse(FMON_LEFT_INOTIFY_LIMIT, FMON_STEP_INOTIFY, ENOSPC, "/b", &fmon_left_out::inotify_limit);
    refuse(FMON_LEFT_DENIED, FMON_STEP_OPEN, EACCES, "/c", &fmon_left_out::denied);
    std::thread([this] { deny("/d"); }).join();
    EXPECT_EQ((std::vector<std::string>{"/a", "/d"}), heard);
}

TEST_F(CliPlacement, AMonitorThatHadToEnd)
{
    g_result = FMON_ENOTINIT;
    EXPECT_FALSE(placement.take().ended);  // nothing is known of one that was never started
    g_status.monitor = {FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, 0, EBADF, "select failed"};
    const Findings found = placement.take();
    EXPECT_TRUE(found.ended);
    EXPECT_EQ("select failed: Bad file descriptor", trouble_text(found.monitor));
    EXPECT_EQ(0u, found.left_out());
}

TEST_F(CliPlacement, AMonitorWithoutItsThreadAnswersAndHasEnded)
{
    g_status.monitor = {FMON_SOURCE_REFUSED, FMON_WHY_OTHER, -1, 0, "create file monitor thread failed"};
    const Findings found = placement.take();
    EXPECT_TRUE(found.ended);
    EXPECT_EQ("create file monitor thread failed", trouble_text(found.monitor));
}

TEST_F(CliPlacement, HearsNoMoreAfterItsEnd)
{
    const fmon_mark_cb listener = g_listener;
    placement.stop();
    EXPECT_EQ(nullptr, g_listener);
    listener("/a", nullptr);  // as one that was under way
    EXPECT_EQ(0u, placement.placed());
    EXPECT_FALSE(placement.take().ended);
}

/* ---- several sessions of one process ---- */

TEST_F(CliPlacement, WhereOthersShareTheMonitorOnlyItsOwnPathsConcernIt)
{
    Placement other([] {});
    other.limit_to({"/b", "/c"});
    other.start(module);
    other.reach("/d");
    refuse(FMON_LEFT_DENIED, FMON_STEP_READ, EACCES, "/a/x", &fmon_left_out::denied);
    EXPECT_FALSE(other.any());
    refuse(FMON_LEFT_DENIED, FMON_STEP_INOTIFY, EACCES, "/b/x", &fmon_left_out::denied);
    refuse(FMON_LEFT_DENIED, FMON_STEP_READ, EACCES, "/b/x", nullptr);
    refuse(FMON_LEFT_INOTIFY_LIMIT, FMON_STEP_INOTIFY, ENOSPC, "/d", &fmon_left_out::inotify_limit);
    g_listener("/a/new", nullptr);
    g_listener("/c/new", nullptr);
    EXPECT_EQ(1u, other.placed());
    const Findings found = other.take();
    EXPECT_EQ(1u, found.counts.denied);
    EXPECT_EQ(1u, found.counts.inotify_limit);
    EXPECT_STREQ("/d", found.last.path);
    EXPECT_EQ("/b/x", found.first_denied);
    EXPECT_EQ(0u, other.take().left_out());
}

TEST_F(CliPlacement, WhatASessionPlacesIsNoNewsToOthers)
{
    Placement other([] {});
    other.start(module);
    other.listen([this](const std::string &path) { heard.push_back(path); });
    std::thread([this] {
        placement.listen([](const std::string &) {});
        g_listener("/placed", nullptr);
        const MarksAreNews news;
        g_listener("/made", nullptr);
    }).join();
    EXPECT_EQ(std::vector<std::string>{"/made"}, heard);
}

TEST_F(CliPlacement, TheMonitorIsListenedToUntilTheLastHasGone)
{
    {
        Placement other([] {});
        other.start(module);
    }
    EXPECT_NE(nullptr, g_listener);
    placement.stop();
    EXPECT_EQ(nullptr, g_listener);
}
