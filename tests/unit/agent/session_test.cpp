/* A session's timers, losses and batches, with everything around it made up. Nothing here sleeps. */
#include "agent/session.h"

#include <cstring>

#include "unit/agent/session_fakes.h"

using namespace agent;
using namespace session_fakes;

/* ---- timers ---- */

TEST_F(SessionTest, AnIdleMachineIsLookedAtRarely)
{
    begin();
    pass(1000);
    EXPECT_EQ(1, watched.count("look"));
    pass(12'000);
    EXPECT_EQ(4, watched.count("look"));
    EXPECT_EQ(Pause::For::kEverything, pause.what);
    EXPECT_EQ(Pace::kIdleLookMs, pause.ms);
}

TEST_F(SessionTest, WhatIsExpectedIsLookedForEachSecond)
{
    watched.expecting = true;
    begin();
    pass(10'000);
    EXPECT_EQ(10, watched.count("look"));
}

TEST_F(SessionTest, EachEventIsFollowedByALookWithinASecond)
{
    begin();
    pass(5000);
    const long looks = watched.count("look");
    now += 100;
    events.add({"/a"});
    step();
    EXPECT_EQ(looks, watched.count("look"));
    pass(1000);
    EXPECT_EQ(looks + 1, watched.count("look"));
}

TEST_F(SessionTest, ASleepEndsWithTheNextThingThatIsDue)
{
    begin(300);
    step();
    EXPECT_EQ(300u, pause.ms);
    now += 200;
    events.add({"/a"});
    step();
    step();
    EXPECT_EQ(300u, pause.ms);
}

TEST_F(SessionTest, NoSleepBeginsWhileAnEventComes)
{
    begin();
    events.comes_while_going_to_sleep = true;
    step();
    EXPECT_EQ(0u, pause.ms);
    EXPECT_EQ(Pause::For::kTime, pause.what);
}

TEST_F(SessionTest, MountsThatChangeAreLookedAtAtOnce)
{
    begin();
    pass(6000);
    Inputs inputs;
    inputs.mounts_changed = true;
    step(inputs);
    EXPECT_EQ("mounts_changed", watched.calls.back());
    EXPECT_EQ(Pace::kBusyLookMs, pause.ms);
}

/* ---- gathering ---- */

TEST_F(SessionTest, TheFirstEventAfterASilenceDoesNotWait)
{
    begin();
    step();
    now += 500;
    events.add({"/a"});
    step();
    EXPECT_EQ(Lines{"/a"}, report.take());
    EXPECT_EQ(0u, pause.ms);
}

TEST_F(SessionTest, InAStreamEventsGather)
{
    begin();
    step();
    now += Pace::kStreamMs;
    events.add({"/a"});
    step();
    EXPECT_EQ(Pace::kGatherMs, pause.ms);
    EXPECT_EQ(Pause::For::kNewDirectories, pause.what);
}

TEST_F(SessionTest, AReportThatAwaitsNoSingleEventHasThemGather)
{
    report.patience_ms = 100;
    begin();
    step();
    now += 500;
    events.add({"/a"});
    step();
    EXPECT_EQ(Lines{"/a"}, report.take());
    EXPECT_EQ(100u, pause.ms);
    EXPECT_EQ(Pause::For::kNewDirectories, pause.what);
}

TEST_F(SessionTest, ANewDirectoryIsMarkedWhileEventsGather)
{
    begin();
    events.add({"/a"});
    step();
    Inputs inputs;
    inputs.new_directories = true;
    step(inputs);
    EXPECT_EQ("complete_trees", watched.calls.back());
}

/* ---- --timeout ---- */

TEST_F(SessionTest, ATimeWithoutEventsEndsIt)
{
    begin(2500);
    pass(2499);
    EXPECT_FALSE(session->over());
    pass(1);
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kNothing, session->status());
    EXPECT_EQ(Lines{"nothing happened within the time that -t gives"}, report.warnings);
}

TEST_F(SessionTest, EachShownEventBeginsTheTimeAnew)
{
    report.hidden_events = {"/hidden"};
    begin(2000);
    pass(1500);
    events.add({"/a"});
    pass(1500);
    EXPECT_FALSE(session->over());
    events.add({"/hidden"});
    pass(500);
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kNothing, session->status());
}

TEST_F(SessionTest, TheTimeCountsFromTheEndOfShowing)
{
    begin(1000);
    step();
    events.add({"/slow"});
    step();
    now += 5000;  // as a command of --exec may take
    step();
    EXPECT_FALSE(session->over());
    pass(1000);
    EXPECT_EQ(kNothing, session->status());
}

/* ---- losses ---- */

TEST_F(SessionTest, WhatACounterGrewByIsToldOnce)
{
    begin();
    pass(1000);
    EXPECT_EQ(Lines{}, report.take());
    monitor.status.lost.inotify = 2;
    monitor.status.lost.probes_ring = 5;
    pass(12'000);
    EXPECT_EQ((Lines{"loss inotify 2", "loss probes 5"}), report.take());
    EXPECT_EQ(2u, report.warnings.size());
    monitor.status.lost.inotify = 3;
    pass(12'000);
    EXPECT_EQ(Lines{"loss inotify 1"}, report.take());
    EXPECT_GE(monitor.looks, 7);
}

TEST_F(SessionTest, OverflowsOfTheQueueOfProcessesAreTold)
{
    begin();
    monitor.lost_processes = 2;
    pass(12'000);
    EXPECT_EQ(Lines{"loss processes 2"}, report.take());
    monitor.lost_processes = 3;
    pass(12'000);
    EXPECT_EQ(Lines{"loss processes 1"}, report.take());
    EXPECT_EQ(2u, report.warnings.size());
}

TEST_F(SessionTest, ALossNamesWhatItIsAbout)
{
    begin();
    monitor.status.lost.path = 1;
    std::strcpy(monitor.status.lost_path, "/deep");
    pass(1000);
    EXPECT_EQ(Lines{"loss path 1 /deep"}, report.take());
}

TEST_F(SessionTest, ALossJustBeforeTheEndIsTold)
{
    begin();
    step();
    monitor.status.lost.fanotify = 1;
    end_told(80);
    EXPECT_EQ((Lines{"report_dropped", "loss fanotify 1"}), report.take());
}

TEST_F(SessionTest, WithoutAStatusNothingIsLost)
{
    begin();
    monitor.has_status = false;
    monitor.status.lost.inotify = 2;
    pass(5000);
    EXPECT_EQ(Lines{}, report.take());
    monitor.has_status = true;
    pass(5000);
    EXPECT_EQ(Lines{"loss inotify 2"}, report.take());
}

TEST_F(SessionTest, DirectoriesThatCannotBeWatchedAreToldTogetherWithinASecond)
{
    begin();
    pass(5000);
    const size_t calls = watched.calls.size();
    monitor.findings.emplace().counts.inotify_limit = 7;
    step();
    EXPECT_EQ(Pace::kBusyLookMs, pause.ms);
    EXPECT_EQ(calls, watched.calls.size());
    pass(1000);
    EXPECT_EQ(1, watched.count("left out 7"));
    ASSERT_EQ(1u, report.warnings.size());
    EXPECT_NE(report.warnings[0].find("7 directories"), std::string::npos) << report.warnings[0];
}

TEST_F(SessionTest, ADirectoryThatMayNotBeReadIsNamed)
{
    begin();
    watched.latest_left_out = "/secret";
    monitor.findings.emplace().counts.denied = 1;
    pass(1000);
    ASSERT_EQ(1u, report.warnings.size());
    EXPECT_NE(report.warnings[0].find("/secret"), std::string::npos) << report.warnings[0];
}

/* ---- batches ---- */

TEST_F(SessionTest, EventsKeepTheirOrderOverBatches)
{
    begin();
    events.add({"/1", "/2"});
    events.add({"/3"});
    events.add({"/4", "/5"});
    pass(100);
    EXPECT_EQ((Lines{"/1", "/2", "/3", "/4", "/5"}), report.take());
}

TEST_F(SessionTest, TreesComeBeforeEventsAndEndsAfterThem)
{
    begin();
    events.add({"/1", "/2"});
    step();
    EXPECT_EQ((Lines{"before 2", "shown /1", "shown /2", "after"}), watched.calls);
}

TEST_F(SessionTest, AFullQueueCutsABatchAndLosesNothing)
{
    EventQueue queue(3, 1000);
    const auto push = [&](const char *path) { return queue.push({0, FMON_CREATE, 0, 0, path, "", nullptr}, nullptr); };
    Session bounded(request, monitor, queue, report);
    bounded.start(watched, now);
    for (const char *path : {"/1", "/2", "/3"})
        EXPECT_TRUE(push(path));
    EXPECT_FALSE(push("/4"));
    EXPECT_EQ(Pause::For::kNewDirectories, bounded.step(now, {}).what);
    EXPECT_EQ("before 3", watched.calls[0]);
    EXPECT_TRUE(push("/4"));
    bounded.step(now, {});
    EXPECT_EQ((Lines{"/1", "/2", "/3", "/4"}), report.take());
    EXPECT_EQ(Pause::For::kEverything, bounded.step(now, {}).what);
}

TEST_F(SessionTest, ACountOfEventsCutsTheBatch)
{
    report.count = 3;
    begin();
    events.add({"/1", "/2"});
    events.add({"/3", "/4", "/5"});
    events.add({"/6"});
    pass(100);
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kDone, session->status());
    EXPECT_EQ((Lines{"/1", "/2", "/3", "report_dropped"}), report.take());
    EXPECT_EQ(1, watched.count("shown /3"));
    EXPECT_EQ(0, watched.count("shown /4"));
}

TEST_F(SessionTest, WhatIsInHandIsKnown)
{
    struct Looker : FakeWatched {
        const Session *session = nullptr;
        uint64_t in_hand = 0;
        void shown(const Event &) override { in_hand = session->in_hand(); }
    } looker;
    Session own(request, monitor, events, report);
    looker.session = &own;
    own.start(looker, now);
    events.add({"/1", "/2", "/3"});
    own.step(now, {});
    EXPECT_EQ(3u, looker.in_hand);
    EXPECT_EQ(0u, own.in_hand());
}

/* ---- after a loss ---- */

TEST_F(SessionTest, ALossIsFollowedByAWalkAndItsRecord)
{
    begin();
    watched.slices_of_a_walk = 3;
    monitor.status.lost.inotify = 1;
    pass(1000);
    pass(100);
    EXPECT_EQ(1, watched.count("start_walk"));
    EXPECT_EQ(3, watched.count("walk"));
    EXPECT_EQ("report_resynced", watched.calls.back());
    pass(60'000);
    EXPECT_EQ(1, watched.count("start_walk"));
}

TEST_F(SessionTest, EventsAreShownDuringAWalk)
{
    begin();
    watched.slices_of_a_walk = 1000;
    monitor.status.lost.inotify = 1;
    pass(1000);
    report.take();
    events.add({"/a"});
    pass(10);
    EXPECT_EQ(Lines{"/a"}, report.take());
    EXPECT_EQ(0, watched.count("report_resynced"));
}

TEST_F(SessionTest, ALossDuringAWalkIsToldAndMendedByAnother)
{
    begin();
    watched.slices_of_a_walk = 5;
    monitor.status.lost.inotify = 1;
    pass(1001);
    monitor.status.lost.inotify = 2;
    pass(500);
    EXPECT_EQ((Lines{"loss inotify 1", "loss inotify 1"}), report.take());
    EXPECT_EQ(1, watched.count("start_walk"));
    EXPECT_EQ(0, watched.count("report_resynced"));
    pass(2000);
    EXPECT_EQ(2, watched.count("start_walk"));
    EXPECT_EQ(1, watched.count("report_resynced"));
}

TEST_F(SessionTest, LossesThatGoOnHaveWalksRarely)
{
    begin();
    for (int i = 0; i < 120; i++) {
        monitor.status.lost.inotify++;
        pass(1000);
    }
    EXPECT_LE(watched.count("start_walk"), 9);
    EXPECT_GE(watched.count("start_walk"), 7);
}

TEST_F(SessionTest, LossesThatBlindNobodyAreFollowedByNoWalk)
{
    begin();
    monitor.status.lost.path = 1;
    pass(10'000);
    EXPECT_EQ(0, watched.count("start_walk"));
}

TEST_F(SessionTest, WantOfRoomIsTriedEachSecondAndWalkedWhenThereIsSome)
{
    begin();
    watched.without_room = watched.expecting = true;
    pass(5000);
    EXPECT_GE(watched.count("has_room"), 3);
    EXPECT_LE(watched.count("has_room"), 5);
    EXPECT_EQ(0, watched.count("start_walk"));
    watched.room = true;
    pass(2000);
    EXPECT_EQ(1, watched.count("report_resynced"));
    const long trials = watched.count("has_room");
    watched.expecting = false;
    pass(20'000);
    EXPECT_EQ(trials, watched.count("has_room"));
}
