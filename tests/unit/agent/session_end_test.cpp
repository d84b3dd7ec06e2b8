/* How a session ends, and with which status, with everything around it made up. Nothing here sleeps. */
#include "agent/session.h"

#include "unit/agent/session_fakes.h"

using namespace agent;
using namespace session_fakes;

TEST_F(SessionTest, ToldToEndItEndsInThatStep)
{
    begin();
    pass(1500);
    events.add({"/last"});
    EXPECT_EQ(0u, end_told(80));
    EXPECT_EQ(kDone, session->status());
    EXPECT_EQ((Lines{"/last", "report_dropped"}), report.take());
}

TEST_F(SessionTest, AReaderThatHasGoneEndsIt)
{
    begin();
    step();
    Inputs inputs;
    inputs.reader_gone = true;
    step(inputs);
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kDone, session->status());
}

TEST_F(SessionTest, AnOutputThatFailsEndsItWithItsStatus)
{
    report.count = 1;
    report.end_status = kError;
    begin();
    events.add({"/a"});
    step();
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kError, session->status());
}

TEST_F(SessionTest, NothingLeftToWatchEndsIt)
{
    begin();
    pass(1000);
    watched.gone = true;
    pass(4000);
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kGone, session->status());
}

TEST_F(SessionTest, TheEventThatLeavesNothingEndsItWithItsBatch)
{
    watched.last_path = "/2";
    begin();
    events.add({"/1", "/2", "/3"});
    step();
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kGone, session->status());
    EXPECT_EQ((Lines{"/1", "/2", "/3", "report_dropped"}), report.take());
}

TEST_F(SessionTest, AMonitorThatHasStoppedEndsIt)
{
    begin();
    monitor.has_status = false;
    monitor.status.monitor = {FMON_SOURCE_REFUSED, FMON_WHY_OTHER, 0, 0, "select failed"};
    pass(1000);
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kError, session->status());
    EXPECT_EQ(Lines{"the monitor has stopped: select failed"}, report.warnings);
}

TEST_F(SessionTest, TheFirstReasonToEndCounts)
{
    begin(1000);
    step();
    now += 1000;
    Inputs inputs;
    inputs.patience_ms = 80;
    step(inputs);
    EXPECT_EQ(kNothing, session->status());
}

TEST_F(SessionTest, WhatEndsForAnotherReasonIsNoWantOfEvents)
{
    begin(1000);
    watched.gone = true;
    pass(1000);
    EXPECT_EQ(kGone, session->status());
    EXPECT_EQ(Lines{}, report.warnings);
}

/* ---- a hold ---- */

TEST_F(SessionTest, WhatADumpHeldBackIsDelivered)
{
    report.count = 0;
    begin(1000);
    pass(900);
    monitor.holds = true;
    monitor.held = 3;
    pass(100);
    EXPECT_FALSE(session->over());
    EXPECT_EQ(Session::kReleaseMs, pause.ms);
    events.add({"/held"});
    pass(200);
    EXPECT_TRUE(session->over());
    EXPECT_EQ(3, monitor.releases);
    EXPECT_EQ((Lines{"/held", "report_dropped"}), report.take());
    EXPECT_EQ(kNothing, session->status());
    EXPECT_EQ(1u, report.warnings.size());  // that of the time
}

TEST_F(SessionTest, AHoldKeepsNobodyWhoIsToldToEndIn200Ms)
{
    begin();
    step();
    monitor.holds = true;
    monitor.held = 1000;
    EXPECT_LE(end_told(80), 100u);
    EXPECT_EQ(kDone, session->status());
    ASSERT_EQ(1u, report.warnings.size());
    EXPECT_EQ(0u, report.warnings[0].find("told to end: up to 99")) << report.warnings[0];
}

TEST_F(SessionTest, AHoldThatIsNotReleasedIsGivenUpAfterATurn)
{
    begin(1000);
    monitor.holds = true;
    monitor.held = 10;
    monitor.per_turn = 0;
    pass(1000 + Session::kTurnMs);
    EXPECT_TRUE(session->over());
    EXPECT_EQ(kNothing, session->status());
    EXPECT_EQ(1u, report.warnings.size());
}

TEST_F(SessionTest, NothingIsReleasedWhenNothingMoreIsShown)
{
    report.count = 1;
    begin();
    monitor.holds = true;
    monitor.held = 10;
    events.add({"/a"});
    step();
    EXPECT_TRUE(session->over());
    EXPECT_EQ(0, monitor.releases);
    EXPECT_FALSE(monitor.holds);
}
