/* From a record in the kernel-probe library's descriptor to a client's queue, over a real shared object. */
#include <sys/inotify.h>

#include "event.h"
#include "linux/mount.h"
#include "probe_fixture.h"

using testlib::log_count;
using testlib::log_count_containing;
using testlib::logged;

namespace
{

const Strings kAllOff = {"event_enable 48 Km", "event_enable 48 Krf", "event_enable 48 Krt", "event_enable 48 Ku",
                         "event_enable 48 Kc"};

/* ---- start ---- */

PROBE_CASE(ProbeStart, AsksInOrder)
{
    ASSERT_EQ(0, m.start()) << testlib::log_text();
    ASSERT_EQ(0, get_inotify_event());
    Strings asked;
    for (const std::string &call : m.probes.calls())
        asked.push_back(call.substr(0, call.find(' ', call.find(' ') + 1)));
    EXPECT_EQ((Strings{"os_info_get", "ins_crt clt_inotify", "ins_crt clt_file", "os_info_get", "evt_reg Kc",
                       "os_info_get", "evt_reg Ku", "os_info_get", "evt_reg Km", "os_info_get", "evt_reg Krf",
                       "os_info_get", "evt_reg Krt", "os_info_get", "evt_reg Kl", "os_info_get", "evt_reg Ki"}),
              asked);
}

PROBE_CASE(ProbeStart, LaysTheDescriptorsOut)
{
    const std::vector<int> before = testlib::open_fd_list();
    ASSERT_EQ(0, m.start());
    EXPECT_EQ(6, fmlnx.fd_num); /* two of each instance, two of fanotify between them */
    EXPECT_EQ(2, fmlnx.inotify_num);
    EXPECT_EQ(1u, fmlnx.kp_global);
    for (int i = 0; i < fmlnx.fd_num; i++) {
        EXPECT_GT(fmlnx.fds[i], 0) << i;
        EXPECT_EQ(0, std::count(before.begin(), before.end(), fmlnx.fds[i])) << i;
        for (int j = 0; j < i; j++)
            EXPECT_NE(fmlnx.fds[i], fmlnx.fds[j]);
    }
    EXPECT_EQ(std::vector<int>{}, m.turn());
}

/* Texts that the library copies while the registration lasts: what it noted is what it was given. */
PROBE_CASE(ProbeStart, RegistersWholeTexts)
{
    m.set_mounts({"23 /", "25 /data"});
    m.probes.set_os_info({4, 8, 17, 2, 2, 4242});
    ASSERT_EQ(0, m.start());
    const Strings create = m.probes.calls("evt_reg Kc "), close_write = m.probes.calls("evt_reg Km ");
    ASSERT_EQ(1u, create.size());
    EXPECT_TRUE(create[0].starts_with("evt_reg Kc vfs_create 0 p \"mnt=+172(+192(+104(%si))):u32 l0=+56(+24(+24("))
        << create[0];
    EXPECT_TRUE(create[0].ends_with(" a7=+56(+40(%si))\" \"(mnt==23||mnt==25||mnt==0)\"")) << create[0];
    ASSERT_EQ(1u, close_write.size());
    EXPECT_TRUE(
        close_write[0].ends_with(" m=%dx:u32 f=+0(+48(%si)):u16\" "
                                 "\"(mnt==23||mnt==25||mnt==0)&&m==8&&f>=32768&&f<=36863\""))
        << close_write[0];
}

PROBE_CASE(ProbeStart, RegistersTheInotifyProbeForTheLibrarysKernel)
{
    m.probes.set_os_info({4, 19, 0, 2, 2, 777});
    ASSERT_EQ(0, m.start());
    ASSERT_EQ(0, get_inotify_event());
    const Strings call = m.probes.calls("evt_reg Ki ");
    ASSERT_EQ(1u, call.size());
    EXPECT_TRUE(call[0].starts_with("evt_reg Ki fsnotify_add_event 1 p \"i=+64(+16(%si)):u64 w=+32(%si):u32 "))
        << call[0];
    EXPECT_TRUE(call[0].ends_with(" \"common_pid!=" + std::to_string(getpid()) + "&&common_pid!=777&&w!=0\""))
        << call[0];
}

/* ---- system-wide events ---- */

PROBE_CASE(ProbeEvents, RecordReachesTheInstance)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    EXPECT_EQ(Strings{"event_enable 49 Kc"}, m.probes.calls());
    m.happens("Kc", "new", 31);
    EXPECT_EQ(std::vector<int>{4}, m.turn());
    EXPECT_EQ(Strings{"/d/new:create 31"}, m.events());
    EXPECT_EQ(Strings{}, m.events(1));
    EXPECT_EQ(std::vector<int>{}, m.turn());
}

PROBE_CASE(ProbeEvents, EachProbeHasItsKind)
{
    m.start_all();
    m.fanotify.mark_error = EPERM; /* so close_write comes from its probe */
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_ALL_EVENTS));
    EXPECT_EQ((Strings{"event_enable 49 Km", "event_enable 49 Krf", "event_enable 49 Krt", "event_enable 49 Ku",
                       "event_enable 49 Kc"}),
              m.probes.calls());
    for (const char *event : {"Kc", "Ku", "Km", "Krf", "Krt", "Kl"})
        m.happens(event, event);
    m.turn();
    EXPECT_EQ((Strings{"/d/Kc:create 7", "/d/Km:close_write 7", "/d/Krf:moved_from 7", "/d/Krt:moved_to 7",
                       "/d/Ku:delete 7"}), /* nothing switches the probe of links on */
              m.events());
}

/* Where every mount could be marked, fanotify reports close_write; the probe stays off, the instance still wants it. */
PROBE_CASE(ProbeEvents, CloseWriteIsLeftToTheMountsWhereTheyCanBeMarked)
{
    m.start_all();
    m.set_mounts({"23 /", "25 /tmp"});
    get_mountinfo(&fmlnx.mounts);
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CLOSE_WRITE | FMON_CREATE));
    EXPECT_EQ(Strings{"event_enable 49 Kc"}, m.probes.calls());
    EXPECT_EQ(FMON_CLOSE_WRITE | FMON_CREATE, fmon.instances[0].global_mask);
    EXPECT_TRUE(logged(3, "we watch the mount point:/"));
    EXPECT_TRUE(logged(3, "we watch the mount point:/tmp"));
    EXPECT_TRUE(logged(3, "fmon use fanotify to watch globale close_write event"));
    EXPECT_EQ(2u, m.fanotify.marks.size());
}

PROBE_CASE(ProbeEvents, OneMountThatCannotBeMarkedTurnsTheProbeOn)
{
    m.start_all();
    m.set_mounts({"23 /", "25 /tmp"});
    get_mountinfo(&fmlnx.mounts);
    m.fanotify.mark_error = ENODEV;
    m.fanotify.fail_mark_at = 2;
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CLOSE_WRITE));
    EXPECT_EQ(Strings{"event_enable 49 Km"}, m.probes.calls());
    EXPECT_EQ(1, log_count(2, "maybe some mount point is not correct!"));
}

PROBE_CASE(ProbeEvents, NothingIsOnBeforeItIsAskedFor)
{
    m.start_all();
    for (const char *event : {"Kc", "Ku", "Km", "Krf", "Krt", "Kl"})
        m.happens(event, event);
    EXPECT_EQ(std::vector<int>{4}, m.turn());
    EXPECT_EQ(std::vector<int>{}, m.turn());
    EXPECT_EQ(0, log_count_containing("filename:"));
}

PROBE_CASE(ProbeEvents, WhatAnotherInstanceWantsStaysOn)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE | FMON_DELETE));
    ASSERT_EQ(0, fmon_add_global_watch(1, FMON_CREATE));
    m.probes.forget_calls();
    ASSERT_EQ(0, fmon_del_global_watch(0, FMON_CREATE | FMON_DELETE));
    EXPECT_EQ((Strings{"event_enable 48 Km", "event_enable 48 Krf", "event_enable 48 Krt", "event_enable 48 Ku"}),
              m.probes.calls());
    m.happens("Kc", "new");
    m.happens("Ku", "old");
    m.turn();
    EXPECT_EQ(Strings{}, m.events(0));
    EXPECT_EQ(Strings{"/d/new:create 7"}, m.events(1));
    m.probes.forget_calls();
    ASSERT_EQ(0, fmon_del_global_watch(1, FMON_CREATE));
    EXPECT_EQ(kAllOff, m.probes.calls());
}

/* A destroyed instance's wish stays in its slot and goes on being asked of the library. */
PROBE_CASE(ProbeEvents, AKilledInstanceLeavesItsProbesOn)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.probes.forget_calls();
    ASSERT_EQ(0, fmon_destroy_instance(0));
    EXPECT_EQ((Strings{"event_enable 48 Km", "event_enable 48 Krf", "event_enable 48 Krt", "event_enable 48 Ku"}),
              m.probes.calls());
    m.happens("Kc", "new");
    m.turn();
    EXPECT_EQ(1, log_count_containing("filename:new"));
}

PROBE_CASE(ProbeEvents, UpdatingInstallsTheFilterOfThePresentMounts)
{
    m.start_all();
    m.set_mounts({"23 /", "40 /data"});
    ASSERT_EQ(0, fmon_update_global_watch(0));
    EXPECT_EQ(Strings{"event_filter Kc \"(mnt==23||mnt==40||mnt==0)\""}, m.probes.calls());
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.probes.put("Kc", 7, testlib::file_probe_record(40, {"/", "x"}, "f"));
    m.turn();
    EXPECT_EQ(Strings{"/data/x/f:create 7"}, m.events());
}

PROBE_CASE(ProbeEvents, AnUnknownMountIsTheRoot)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.probes.put("Kc", 7, testlib::file_probe_record(99, {"/", "x"}, "f"));
    m.turn();
    EXPECT_EQ(Strings{"/x/f:create 7"}, m.events());
    EXPECT_EQ(1, log_count(2, "we don't find the mount dir!"));
}

/* ---- the limit of a pass ---- */

PROBE_CASE(ProbePass, ADescriptorThatIsNotEmptiedIsReadyAgain)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.happen(100);
    EXPECT_EQ(std::vector<int>{4}, m.turn());
    EXPECT_EQ(64u, m.events().size());
    EXPECT_EQ(std::vector<int>{4}, m.turn());
    EXPECT_EQ(36u, m.events().size());
    EXPECT_EQ(std::vector<int>{}, m.turn());
    EXPECT_EQ(Strings{}, m.probes.calls("cache_clean"));
}

PROBE_CASE(ProbePass, AHundredEventsAreNotTooMany)
{
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.happen(64, "Kc", 0);
    m.happen(36, "Kc", 1);
    EXPECT_EQ((std::vector<int>{4, 5}), m.turn());
    EXPECT_EQ(100u, m.events().size());
    EXPECT_EQ(0, log_count_containing("events is too much"));
}

PROBE_CASE(ProbePass, TheHundredAndFirstDropsWhatWaits)
{
    m.probes.set_os_info({6, 1, 0, 2, 3, 4242});
    m.start_all();
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.happen(70, "Kc", 0);
    m.happen(37, "Kc", 1);
    m.happen(5, "Kc", 2);
    EXPECT_EQ((std::vector<int>{5, 6, 7}), m.turn());
    EXPECT_EQ(101u, m.events().size());
    EXPECT_EQ(1, log_count(4, "events is too much ,we clean the global event"));
    EXPECT_EQ(Strings{"cache_clean clt_file"}, m.probes.calls("cache_clean"));
    EXPECT_EQ((Strings{"event_parse clt_file 0", "event_parse clt_file 1"}), m.probes.calls("event_parse"));
    EXPECT_EQ(std::vector<int>{}, m.turn()); /* thrown away */
    m.happen(1, "Kc", 2);
    m.turn();
    EXPECT_EQ(1u, m.events().size());
}

/* Directories' events count as well, but are not what is thrown away. */
PROBE_CASE(ProbePass, InotifyEventsUseThePassUpToo)
{
    m.start_all();
    const std::string dir = m.tree.dir("w");
    ASSERT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    ASSERT_EQ(0, fmon_add_global_watch(1, FMON_CREATE));
    for (int i = 0; i < 102; i++) {
        struct stat st = {};
        lstat(dir.c_str(), &st);
        m.probes.put("Ki", 9,
                     testlib::inotify_probe_record(st.st_ino, testlib::wd_of(dir), IN_CREATE, std::to_string(i)),
                     i % 2);
    }
    m.happen(3);
    EXPECT_EQ((std::vector<int>{0, 1, 4}), m.turn());
    EXPECT_EQ(102u, m.events().size());
    EXPECT_EQ(0, log_count_containing("filename:"));
    EXPECT_EQ(Strings{"cache_clean clt_file"}, m.probes.calls("cache_clean"));
    EXPECT_EQ(std::vector<int>{}, m.turn());
}

/* ---- stopping ---- */

PROBE_CASE(ProbeStop, ClosesWhatItWasGivenAndStartsAgain)
{
    m.start_all();
    m.stop();
    const int stopped = testlib::open_fds(); /* the library's own stay open */
    for (int round = 0; round < 3; round++) {
        m.start_all();
        ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
        m.happens("Kc", "new");
        m.turn();
        EXPECT_EQ(Strings{"/d/new:create 7"}, m.events());
        m.happens("Kc", "unread");
        m.stop();
        EXPECT_EQ(stopped, testlib::open_fds()) << round;
    }
}

}  // namespace
