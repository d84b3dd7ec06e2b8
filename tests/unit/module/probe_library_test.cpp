/* Kernel-probe libraries that lack a symbol, refuse, answer nonsense or break down: what is said and what still works.
 */
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>

#include "event.h"
#include "linux/inotify.h"
#include "probe_fixture.h"

using testlib::log_count;
using testlib::log_count_containing;
using testlib::logged;

namespace
{

/* A case over the library without `symbol`. */
template <typename Body>
void without(const char *symbol, Body body)
{
    SCOPED_TRACE(symbol);
    in_child([&] {
        ProbeMachine m(symbol);
        body(m);
    });
}

/* The kernel's own inotify descriptor is read. */
void expect_directories_are_watched(ProbeMachine &m)
{
    const std::string dir = m.tree.dir("w");
    ASSERT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    m.tree.dir("w/sub");
    EXPECT_EQ(std::vector<int>{0}, m.turn());
    EXPECT_EQ(Strings{dir + "/sub:create 0"}, m.events());
}

void expect_system_events(ProbeMachine &m)
{
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.happens("Kc", "new");
    m.turn();
    EXPECT_EQ(Strings{"/d/new:create 7"}, m.events());
}

void expect_no_system_events()
{
    EXPECT_EQ(0u, fmlnx.kp_global);
    EXPECT_EQ(nullptr, clt_file.instance.load());
    EXPECT_EQ(-1, fmon_add_global_watch(0, FMON_CREATE));
    EXPECT_EQ(-1, fmon_del_global_watch(0, FMON_CREATE));
    EXPECT_EQ(-1, fmon_update_global_watch(0));
    EXPECT_EQ(3, log_count(2, "not support global event"));
    EXPECT_EQ(0u, fmon.global_instance_mask);
}

void expect_missing_line(int level, const std::string &symbol)
{
    EXPECT_LE(1, log_count_containing("load kp_thread symbol: " + symbol + " failed, ")) << testlib::log_text();
    for (const testlib::LogLine &line : testlib::log_lines()) {
        if (line.text.starts_with("load kp_thread symbol:")) {
            EXPECT_EQ(level, line.level) << line.text;
        }
    }
    EXPECT_EQ(level == 4, log_count_containing("undefined symbol: ") > 0); /* the dynamic linker's own words */
}

struct fmon_loss_counts losses_now()
{
    struct fmon_status status = {};
    status.size = sizeof status;
    EXPECT_EQ(0, _orx_fmon_status(&status));
    return status.lost;
}

/* ---- what a library loses ---- */

TEST(ProbeLibrary, ItsLossesAreTheModules)
{
    without("", [](ProbeMachine &m) {
        m.start_with_instance();
        EXPECT_EQ(0u, losses_now().probes_ring);
        m.probes.set_losses("100 1 2 3 4 5");
        const struct fmon_loss_counts lost = losses_now();
        EXPECT_EQ(1u, lost.probes_ring);
        EXPECT_EQ(2u, lost.probes_queue);
        EXPECT_EQ(3u, lost.probes_cleaned);
        EXPECT_EQ(4u, lost.probes_unreadable);
        EXPECT_EQ(5u, lost.probes_missed);
        m.probes.behave("fail kp_losses_total");
        EXPECT_EQ(0u, losses_now().probes_ring);
    });
}

TEST(ProbeLibrary, OneThatDoesNotCountStays)
{
    without("kp_losses_total", [](ProbeMachine &m) {
        m.start_with_instance();
        m.probes.set_losses("100 1 2 3 4 5");
        EXPECT_EQ(0u, losses_now().probes_ring);
        EXPECT_EQ(0, log_count_containing("kp_losses_total")) << "nobody has to have that";
        EXPECT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
        m.happens("Kc", "new");
        m.turn();
        EXPECT_EQ(1u, m.events().size());
        EXPECT_TRUE(m.probes.calls("stale").empty());
    });
}

TEST(ProbeLibrary, NoneIsOpenedToBeAskedForItsLosses)
{
    in_child([] {
        struct fmon_loss_counts lost = {};
        kpnotify_losses(&lost);
        EXPECT_EQ(0u, lost.probes_ring);
        EXPECT_EQ(0, log_count_containing("load kprobe thread module"));
    });
}

/* ---- a library without one of its symbols ---- */

TEST(ProbeLibrary, WithoutInstancesPlainInotifyIsUsed)
{
    without("_kp_ins_crt", [](ProbeMachine &m) {
        m.start_with_instance();
        expect_missing_line(1, "_kp_ins_crt");
        EXPECT_EQ(4, log_count(2, "create kprobe instance failed!"));
        EXPECT_TRUE(logged(2, "now we don't use kprobe!"));
        EXPECT_TRUE(logged(1, "init kpnotify failed"));
        EXPECT_EQ(-1, get_inotify_event());
        expect_directories_are_watched(m);
        expect_no_system_events();
    });
}

TEST(ProbeLibrary, WithoutOsInfoThereAreNoSystemEvents)
{
    without("_os_info_get", [](ProbeMachine &m) {
        m.start_with_instance();
        expect_missing_line(1, "_os_info_get");
        EXPECT_TRUE(logged(2, "maybe not support kprobe!"));
        EXPECT_TRUE(logged(2, "get os_info failed!"));
        EXPECT_TRUE(logged(2, "register create file cmd failed!"));
        EXPECT_EQ(fmon_linux_read_event2, fmon_method.read_event);
        get_inotify_event();
        EXPECT_TRUE(logged(2, "calculate kprobe cmd failed !"));
        expect_directories_are_watched(m);
        expect_no_system_events();
        EXPECT_TRUE(m.probes.calls("stale").empty()) << "an instance of a library that was closed";
    });
}

/* The reader without probes is for the life of the process, so a library that comes later is left alone. */
TEST(ProbeLibrary, ALibraryThatComesLaterIsNotReadByTheSimpleReader)
{
    without("_os_info_get", [](ProbeMachine &m) {
        m.start_with_instance();
        m.stop();
        testlib::set_program_dir(testlib::probe_double_installation("") + "/bin");
        testlib::log_clear();
        m.start_with_instance();
        EXPECT_EQ(0, log_count_containing("maybe not support kprobe!"));
        EXPECT_EQ(fmon_linux_read_event2, fmon_method.read_event);
        expect_directories_are_watched(m);
        expect_no_system_events();
        EXPECT_EQ(1, log_count(1, "init kpnotify failed"));
        for (int i = 3; i < fmlnx.fd_num; i++)
            EXPECT_LE(fmlnx.fds[i], 0) << "nothing to wait for that is never read";
    });
}

/* Kept: every registration is taken for done. */
TEST(ProbeLibrary, WithoutRegistrationNothingIsReported)
{
    without("_kp_evt_reg", [](ProbeMachine &m) {
        m.start_with_instance();
        expect_missing_line(1, "_kp_evt_reg");
        EXPECT_EQ(6, log_count_containing("_kp_evt_reg failed"));
        EXPECT_EQ(0, get_inotify_event());
        EXPECT_EQ(1u, fmlnx.kp_global);
        EXPECT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
        m.happens("Kc", "new");
        EXPECT_EQ(std::vector<int>{4}, m.turn());
        EXPECT_EQ(Strings{}, m.events());
    });
}

TEST(ProbeLibrary, WithoutParsingRecordsStayWhereTheyAre)
{
    without("kp_event_parse", [](ProbeMachine &m) {
        m.start_with_instance();
        EXPECT_EQ(0, get_inotify_event());
        EXPECT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
        m.happens("Kc", "new");
        EXPECT_EQ(std::vector<int>{4}, m.turn());
        EXPECT_EQ(std::vector<int>{4}, m.turn());
        expect_missing_line(1, "_kp_event_parse"); /* kept: the symbol has no underscore */
        EXPECT_EQ(2, log_count_containing("_kp_event_parse failed"));
        EXPECT_EQ(Strings{}, m.events());
    });
}

TEST(ProbeLibrary, WithoutTheSwitchProbesStayAsTheyAre)
{
    without("_kp_event_enable", [](ProbeMachine &m) {
        m.start_with_instance();
        EXPECT_EQ(0, get_inotify_event());
        EXPECT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
        _clt_file_enable(0);
        expect_missing_line(4, "_kp_event_enable");
        EXPECT_EQ(2, log_count_containing("_kp_event_enable failed"));
        const std::string dir = m.tree.dir("w");
        EXPECT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
        m.delivers(dir, IN_CREATE, "f");
        m.happens("Kc", "new");
        m.turn();
        EXPECT_EQ(Strings{dir + "/f:create 9"}, m.events());
    });
}

TEST(ProbeLibrary, WithoutFiltersTheFirstOneStays)
{
    without("_kp_event_filter", [](ProbeMachine &m) {
        m.start_with_instance();
        EXPECT_EQ(0, fmon_update_global_watch(0));
        expect_missing_line(4, "_kp_event_filter");
        expect_system_events(m);
    });
}

TEST(ProbeLibrary, WithoutCleaningTooManyEventsComeLater)
{
    without("_cache_clean", [](ProbeMachine &m) {
        m.start_with_instance();
        EXPECT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
        m.happen(64, "Kc", 0);
        m.happen(70, "Kc", 1);
        m.turn();
        expect_missing_line(4, "_cache_clean");
        m.turn();
        EXPECT_EQ(134u, m.events().size());
    });
}

TEST(ProbeLibrary, OneThatIsNotThere)
{
    without("nothing of the kind",
            [](ProbeMachine &m) { /* a directory that does not exist */
                                  m.start_with_instance();
                                  EXPECT_TRUE(logged(2, "maybe not support kprobe!"));
                                  /* the number is what errno was: the dynamic linker keeps one of its own */
                                  EXPECT_LE(1, log_count_containing("load kprobe thread module failed, errno: "));
                                  expect_directories_are_watched(m);
                                  expect_no_system_events();
            });
}

TEST(ProbeLibrary, OneThatIsNoLibrary)
{
    in_child([] {
        ProbeMachine m;
        m.tree.dir("bin");
        m.tree.file("lib/liborx_kp_thread.2.so", "not an object file");
        testlib::set_program_dir(m.tree.path("bin"));
        m.start_with_instance();
        EXPECT_LE(1, log_count_containing("load kprobe thread module failed, errno: "));
        expect_directories_are_watched(m);
        expect_no_system_events();
    });
}

/* ---- a library that refuses ---- */

PROBE_CASE(ProbeRefusal, OfOsInfo)
{
    m.probes.behave("fail _os_info_get");
    m.start_with_instance();
    EXPECT_TRUE(logged(2, "maybe not support kprobe!"));
    EXPECT_EQ(-1, get_inotify_event());
    EXPECT_TRUE(logged(2, "calculate kprobe cmd failed !"));
    EXPECT_TRUE(m.probes.calls("evt_reg").empty());
    expect_directories_are_watched(m);
    expect_no_system_events();
}

PROBE_CASE(ProbeRefusal, OsInfoThatIsNone)
{
    m.probes.behave("null os_info");
    m.start_with_instance();
    EXPECT_TRUE(logged(2, "maybe not support kprobe!"));
    EXPECT_TRUE(logged(2, "register create file cmd failed!"));
    expect_no_system_events();
}

PROBE_CASE(ProbeRefusal, OfBothInstances)
{
    m.probes.behave("fail _kp_ins_crt");
    m.start_with_instance();
    EXPECT_EQ(4, log_count(2, "create kprobe instance failed!"));
    expect_directories_are_watched(m);
    expect_no_system_events();
}

PROBE_CASE(ProbeRefusal, OfTheInotifyInstanceLeavesSystemEvents)
{
    m.probes.behave("fail _kp_ins_crt clt_inotify");
    m.start_with_instance();
    EXPECT_EQ(-1, get_inotify_event());
    expect_directories_are_watched(m);
    expect_system_events(m);
}

PROBE_CASE(ProbeRefusal, OfTheFileInstanceLeavesDirectories)
{
    m.probes.behave("fail _kp_ins_crt clt_file");
    m.start_with_instance();
    EXPECT_EQ(0, get_inotify_event());
    expect_no_system_events();
    const std::string dir = m.tree.dir("w");
    ASSERT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    m.delivers(dir, IN_CREATE, "f");
    m.turn();
    EXPECT_EQ(Strings{dir + "/f:create 9"}, m.events());
}

/* Each ends the collector with its line; the line of links is that of close_write, which is kept. */
TEST(ProbeRefusal, OfAFileProbe)
{
    const std::vector<std::pair<std::string, std::string>> lines = {
        {"Kc", "register create file cmd failed!"},      {"Ku", "register delete file cmd failed!"},
        {"Km", "register close_write file cmd failed!"}, {"Krf", "register rename from file cmd failed!"},
        {"Krt", "register rename to file cmd failed!"},  {"Kl", "register close_write file cmd failed!"},
    };
    for (const auto &[event, line] : lines) {
        SCOPED_TRACE(event);
        in_child([&event = event, &line = line] {
            ProbeMachine m;
            m.probes.behave("fail _kp_evt_reg " + event);
            m.start_with_instance();
            EXPECT_EQ(1, log_count(2, line));
            EXPECT_EQ(1, log_count_containing("register "));
            EXPECT_TRUE(logged(1, "init kpnotify failed"));
            expect_no_system_events();
        });
    }
}

PROBE_CASE(ProbeRefusal, OfTheInotifyProbe)
{
    m.probes.behave("fail _kp_evt_reg Ki");
    m.start_with_instance();
    EXPECT_EQ(-9, get_inotify_event());
    EXPECT_TRUE(logged(2, "register inotify event failed!"));
    expect_system_events(m);
}

PROBE_CASE(ProbeRefusal, OfAKernelOfOldTimes)
{
    m.probes.set_os_info({2, 6, 32, 2, 2, 4242});
    m.start_with_instance();
    EXPECT_TRUE(logged(3, "kprobe not support multi-instance!"));
    EXPECT_TRUE(logged(2, "register create file cmd failed!"));
    EXPECT_EQ(0, get_inotify_event());
    EXPECT_EQ(1u, m.probes.calls("evt_reg Ki fsnotify_add_notify_event ").size());
    expect_no_system_events();
}

PROBE_CASE(ProbeRefusal, OfSwitchFilterAndCleaningIsNotReported)
{
    m.probes.behave("fail _kp_event_enable\nfail _kp_event_filter\nfail _cache_clean");
    m.start_with_instance();
    testlib::log_clear();
    EXPECT_EQ(0, fmon_add_global_watch(0, FMON_CREATE | FMON_DELETE));
    EXPECT_EQ(0, fmon_update_global_watch(0));
    EXPECT_EQ(0, fmon_del_global_watch(0, FMON_CREATE));
    clean_global_event();
    for (const testlib::LogLine &line : testlib::log_lines())
        EXPECT_GE(line.level, 3) << line.text;
}

}  // namespace
