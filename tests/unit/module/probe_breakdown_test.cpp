/* A kernel-probe library that breaks down while it is used, and the monitor's thread over one. */
#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>

#include "event.h"
#include "probe_fixture.h"
#include "testlib/count.h"

using testlib::logged;

namespace
{

PROBE_CASE(ProbeBreakdown, AFailingParseCountsNothing)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.probes.behave("fail kp_event_parse");
    m.happens("Kc", "new");
    for (int i = 0; i < 300; i++)
        EXPECT_EQ(std::vector<int>{4}, m.turn());
    EXPECT_EQ(Strings{}, m.events());
    EXPECT_EQ(Strings{}, m.probes.calls("cache_clean"));
    m.probes.behave("");
    m.turn();
    EXPECT_EQ(Strings{"/d/new:create 7"}, m.events()); /* as soon as it recovers */
}

/* Ready all the time and never emptied: the rate control keeps it from taking the processor. */
PROBE_CASE(ProbeBreakdown, AFailingParseIsThrottled)
{
    m.start_all();
    ASSERT_EQ(0, fmon_rate_ctrl(10, 200, 0));
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.probes.behave("fail kp_event_parse");
    m.happens("Kc", "new");
    int reads = 0;
    for (int i = 0; i < 100; i++) /* a second */
        reads += static_cast<int>(m.turn().size());
    EXPECT_LE(reads, 20);
    EXPECT_GE(reads, 5);
}

PROBE_CASE(ProbeBreakdown, OneInstanceDoesNotTakeTheOtherAlong)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.probes.behave("fail kp_event_parse clt_inotify");
    m.delivers(m.tree.dir("w"), IN_CREATE, "lost");
    m.happens("Kc", "new");
    EXPECT_EQ((std::vector<int>{0, 4}), m.turn());
    EXPECT_EQ(Strings{"/d/new:create 7"}, m.events());
}

PROBE_CASE(ProbeBreakdown, RemovedNamesDoNotMatter)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.happens("Kc", "new");
    std::filesystem::remove_all(m.probes.directory());
    EXPECT_EQ(std::vector<int>{4}, m.turn());
    EXPECT_EQ(Strings{"/d/new:create 7"}, m.events());
    EXPECT_EQ(0, fmon_del_global_watch(0, FMON_CREATE));
    EXPECT_EQ(std::vector<int>{}, m.turn());
}

/* ---- the monitor's own thread ---- */

testlib::Count seen;
int32_t count_event(struct event *)
{
    seen.raise();
    return 0;
}

/* The fanotify of paper is always ready: the real one is left out altogether. */
void start_thread(ProbeMachine &m)
{
    m.fanotify.has_init = false;
    testlib::set_thread_mode(testlib::ThreadMode::kStart);
    ASSERT_EQ(0, orx_fmon_init(0, nullptr));
    ASSERT_TRUE(m.probes.await_calls("evt_reg Ki", 1));
    ASSERT_EQ(0, _orx_fmon_create_instance("first", count_event));
    ASSERT_EQ(0, _orx_fmon_global_watch(0, FMON_CREATE, 1));
}

PROBE_CASE(ProbeThread, RecordsWakeIt)
{
    start_thread(m);
    for (int i = 1; i <= 3; i++) {
        m.happens("Kc", "f" + std::to_string(i));
        EXPECT_TRUE(seen.becomes(i)) << seen.now();
    }
    testlib::Fault broken("select", 1, EBADF, 1000, testlib::ThreadScope::kAll);
    testlib::join_threads();
    EXPECT_EQ(0u, fmon.inited);
    EXPECT_EQ(nullptr, clt_file.instance.load());
    EXPECT_EQ(0, clt_inotify_active());
}

/* A descriptor that the library closed under it ends the thread in order, and the next start makes all anew. */
PROBE_CASE(ProbeThread, AClosedDescriptorEndsItInOrder)
{
    start_thread(m);
    const int victim = fmlnx.fds[4];
    m.happens("Kc", "first");
    EXPECT_TRUE(seen.becomes(1)) << seen.now();
    close(victim);
    m.happens("Kc", "wake", 7, 1);
    testlib::join_threads();
    EXPECT_TRUE(logged(1, "select failed: Bad file descriptor\n"));
    EXPECT_TRUE(logged(3, "orx_fmon close"));
    EXPECT_EQ(FMON_STOPPED, fmon_shell.run_state);

    m.probes.forget_calls();
    ASSERT_EQ(0, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(m.probes.await_calls("evt_reg Ki", 1));
    EXPECT_EQ(0, _orx_fmon_global_watch(0, FMON_CREATE, 1));
    seen.reset();
    m.happens("Kc", "again");
    EXPECT_TRUE(seen.becomes(1)) << seen.now();
    testlib::Fault broken("select", 1, EBADF, 1000, testlib::ThreadScope::kAll);
    testlib::join_threads();
}

}  // namespace
