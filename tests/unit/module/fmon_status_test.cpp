/* What _orx_fmon_status tells of the monitor as a whole, and of its probes. */
#include <fcntl.h>

#include "event.h"
#include "fmon_status.h"
#include "probe_fixture.h"
#include "shell_fixture.h"

namespace
{

struct fmon_status status_now(int result = 0)
{
    struct fmon_status status = {};
    status.size = sizeof status;
    EXPECT_EQ(result, _orx_fmon_status(&status));
    return status;
}

void expect_source(const struct fmon_source &source, uint32_t state, uint32_t reason, int32_t code = 0,
                   const std::string &why = "")
{
    EXPECT_EQ(state, source.state);
    EXPECT_EQ(reason, source.reason);
    EXPECT_EQ(code, source.code);
    EXPECT_EQ(why, source.why);
}

/* ---- the monitor as a whole ---- */

class MonitorStatus : public ShellTest
{
};

TEST_F(MonitorStatus, OnFromItsStart)
{
    start();
    expect_source(status_now().monitor, FMON_SOURCE_ON, FMON_WHY_NONE);
}

TEST_F(MonitorStatus, WithoutAThreadItCannotWork)
{
    testlib::set_thread_mode(testlib::ThreadMode::kFail);
    start();
    expect_source(status_now().monitor, FMON_SOURCE_REFUSED, FMON_WHY_OTHER, -1, "create file monitor thread failed");
}

TEST_F(MonitorStatus, ABackendThatDoesNotStart)
{
    backend.init_result = FMON_ENOTSUP;
    EXPECT_EQ(-1, orx_fmon_init(0, nullptr));
    expect_source(status_now(FMON_ENOTINIT).monitor, FMON_SOURCE_REFUSED, FMON_WHY_OTHER, FMON_ENOTSUP,
                  "method init failed");
}

TEST_F(MonitorStatus, AThreadThatEnds)
{
    start();
    {
        testlib::Fault last("select", 2, EBADF);
        EXPECT_EQ(0, fmon_thread(nullptr));
        EXPECT_TRUE(last.hit());
    }
    const struct fmon_status ended = status_now(FMON_ENOTINIT);
    expect_source(ended.monitor, FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, 0, "select failed");
    EXPECT_EQ(EBADF, ended.monitor.error);
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_on_mark(nullptr));
    struct fmon_status small = {};
    small.size = 7;
    EXPECT_EQ(FMON_EINVAL, _orx_fmon_status(&small));
    EXPECT_EQ(7u, small.size);
    start();
    expect_source(status_now().monitor, FMON_SOURCE_ON, FMON_WHY_NONE);
}

TEST_F(MonitorStatus, TheLatestFallbackOfTheSourceOfFileSystems)
{
    start();
    EXPECT_EQ(uint32_t{FMON_FALLBACK_NONE}, status_now().fs.last_fallback.reason);
    account_fallback(FMON_FALLBACK_FSID, 0, "/a");
    account_fallback(FMON_FALLBACK_MARK, ENODEV, "/tmp");
    const struct fmon_fs_status fs = status_now().fs;
    EXPECT_EQ(2u, fs.fallbacks);
    EXPECT_EQ(uint32_t{FMON_FALLBACK_MARK}, fs.last_fallback.reason);
    EXPECT_EQ(ENODEV, fs.last_fallback.error);
    EXPECT_STREQ("/tmp", fs.last_fallback.path);
    EXPECT_EQ(uint32_t{FMON_SOURCE_OFF}, fs.source.state);
}

/* ---- probes ---- */

void start(ProbeMachine &m) { ASSERT_EQ(0, m.start()) << testlib::log_text(); }

/* Starts over the library without that symbol and tells of the file probes. */
void expect_file_probes(const std::string &without, const std::function<void(ProbeMachine &)> &prepare, uint32_t state,
                        uint32_t reason, int32_t code = 0, const std::string &why = "")
{
    in_child([&] {
        ProbeMachine m(without);
        prepare(m);
        start(m);
        expect_source(status_now().file_probes, state, reason, code, why);
    });
}

void nothing(ProbeMachine &) {}

int named_kernel(void *out, const char *machine, const char *release)
{
    struct utsname *name = static_cast<struct utsname *>(out);
    snprintf(name->machine, sizeof name->machine, "%s", machine);
    snprintf(name->release, sizeof name->release, "%s", release);
    return 0;
}

TEST(ProbeStatus, FileProbesThatAreOn) { expect_file_probes("", nothing, FMON_SOURCE_ON, FMON_WHY_NONE); }

TEST(ProbeStatus, NoLibrary)
{
    in_child([] {
        ProbeMachine m("nothing of the kind");
        testlib::replace_dlopen(no_library);
        start(m);
        for (const struct fmon_source &source : {status_now().file_probes, status_now().inotify_probe}) {
            expect_source(source, FMON_SOURCE_REFUSED, FMON_WHY_LIBRARY, -100);
            EXPECT_EQ(ENOENT, source.error);
        }
        testlib::replace_dlopen(nullptr);
    });
}

TEST(ProbeStatus, ALibraryWithoutAFunction)
{
    for (const char *symbol : {"_os_info_get", "_kp_ins_crt"}) {
        SCOPED_TRACE(symbol);
        expect_file_probes(symbol, nothing, FMON_SOURCE_REFUSED, FMON_WHY_SYMBOL, 0, symbol);
    }
    expect_file_probes("_kp_evt_reg", nothing, FMON_SOURCE_ON, FMON_WHY_NONE); /* kept: taken for done */
}

TEST(ProbeStatus, AKernelWithoutProbes)
{
    const auto fails = [](ProbeMachine &m) { m.probes.behave("fail _os_info_get"); };
    expect_file_probes("", fails, FMON_SOURCE_REFUSED, FMON_WHY_KERNEL);
    expect_file_probes(
        "",
        [](ProbeMachine &m) {
            m.probes.behave("null os_info");
            m.probes.set_unavailable("no tracefs is mounted");
        },
        FMON_SOURCE_REFUSED, FMON_WHY_KERNEL, 0, "no tracefs is mounted");
}

TEST(ProbeStatus, LongWordsOfTheLibraryAreCut)
{
    expect_file_probes(
        "",
        [](ProbeMachine &m) {
            m.probes.behave("fail _os_info_get");
            m.probes.set_unavailable(std::string(250, 'w'));
        },
        FMON_SOURCE_REFUSED, FMON_WHY_KERNEL, 0, std::string(239, 'w'));
}

TEST(ProbeStatus, AMachineWithoutTables)
{
    expect_file_probes(
        "",
        [](ProbeMachine &) {
            testlib::replace_uname([](void *out) { return named_kernel(out, "ppc64", "6.1.0-1-powerpc64"); });
        },
        FMON_SOURCE_REFUSED, FMON_WHY_MACHINE, -1, "ppc64");
}

TEST(ProbeStatus, AReleaseOfAnotherForm)
{
    expect_file_probes(
        "",
        [](ProbeMachine &) { testlib::replace_uname([](void *out) { return named_kernel(out, "x86_64", "6.1.0"); }); },
        FMON_SOURCE_REFUSED, FMON_WHY_RELEASE, -1, "6.1.0");
}

TEST(ProbeStatus, AKernelThatHasNoName)
{
    expect_file_probes(
        "", [](ProbeMachine &) { testlib::replace_uname([](void *) { return -1; }); }, FMON_SOURCE_REFUSED,
        FMON_WHY_OTHER, -1, "get hw plat error");
}

TEST(ProbeStatus, NoConfiguration)
{
    expect_file_probes(
        "", [](ProbeMachine &) { testlib::clear_ini(); }, FMON_SOURCE_REFUSED, FMON_WHY_CONFIG, -1,
        "load offset config error");
}

Strings many_mounts()
{
    Strings mounts;
    for (int i = 0; i < 60; i++)
        mounts.push_back(std::to_string(1000 + i) + " /m" + std::to_string(i));
    return mounts;
}

TEST(ProbeStatus, TooManyMounts)
{
    expect_file_probes(
        "", [](ProbeMachine &m) { m.set_mounts(many_mounts()); }, FMON_SOURCE_REFUSED, FMON_WHY_MOUNTS, -1,
        "maybe noy support global event");
}

TEST(ProbeStatus, MountsThatBecomeTooMany)
{
    in_child([] {
        ProbeMachine m;
        start(m);
        m.set_mounts(many_mounts());
        EXPECT_EQ(0, fmon_linux_update_global(0));
        expect_source(status_now().file_probes, FMON_SOURCE_ON, FMON_WHY_MOUNTS, -1);
    });
}

TEST(ProbeStatus, NoInstance)
{
    in_child([] {
        ProbeMachine m;
        m.probes.behave("fail _kp_ins_crt");
        start(m);
        expect_source(status_now().file_probes, FMON_SOURCE_REFUSED, FMON_WHY_INSTANCE);
        expect_source(status_now().inotify_probe, FMON_SOURCE_REFUSED, FMON_WHY_INSTANCE);
    });
}

TEST(ProbeStatus, AProbeThatIsRefused)
{
    const auto fails = [](ProbeMachine &m) { m.probes.behave("fail _kp_evt_reg Ku"); };
    expect_file_probes("", fails, FMON_SOURCE_REFUSED, FMON_WHY_PROBE, -9, "register delete file cmd failed!");
    const auto old = [](ProbeMachine &m) { m.probes.set_os_info({2, 6, 32, 2, 2, 4242}); };
    expect_file_probes("", old, FMON_SOURCE_REFUSED, FMON_WHY_PROBE, -1, "register create file cmd failed!");
}

TEST(ProbeStatus, InAContainerTheyAreOff)
{
    in_child([] {
        ProbeMachine m;
        g_container_flag = 1;
        start(m);
        expect_source(status_now().file_probes, FMON_SOURCE_OFF, FMON_WHY_CONTAINER);
        g_container_flag = 0;
    });
}

TEST(ProbeStatus, TheInotifyProbe)
{
    in_child([] {
        ProbeMachine m;
        start(m);
        expect_source(status_now().inotify_probe, FMON_SOURCE_OFF, FMON_WHY_NONE);
        EXPECT_EQ(0, get_inotify_event());
        expect_source(status_now().inotify_probe, FMON_SOURCE_ON, FMON_WHY_NONE);
        m.stop();
        EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_on_mark(nullptr));
        m.probes.behave("fail _kp_evt_reg Ki");
        start(m);
        EXPECT_EQ(-9, get_inotify_event());
        expect_source(status_now().inotify_probe, FMON_SOURCE_REFUSED, FMON_WHY_PROBE, -9,
                      "register inotify event failed!");
        expect_source(status_now().file_probes, FMON_SOURCE_ON, FMON_WHY_NONE);
    });
}

TEST(ProbeStatus, ALibraryThatComesLater)
{
    in_child([] {
        ProbeMachine m("_os_info_get");
        start(m);
        expect_source(status_now().file_probes, FMON_SOURCE_REFUSED, FMON_WHY_SYMBOL, 0, "_os_info_get");
        m.stop();
        testlib::set_program_dir(testlib::probe_double_installation("") + "/bin");
        start(m);
        expect_source(status_now().file_probes, FMON_SOURCE_REFUSED, FMON_WHY_OTHER);
        expect_source(status_now().inotify_probe, FMON_SOURCE_REFUSED, FMON_WHY_OTHER, -1);
    });
}

}  // namespace
