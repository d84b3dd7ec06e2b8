#include <sys/utsname.h>

#include "agent/log_watch.h"
#include "agent/probe_cause.h"
#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

struct Line {
    int level;
    const char *text;
    const char *file = "linux/clt_file.c";
};

ProbeTrouble logged(const std::vector<Line> &lines)
{
    LogWatch log([] {});
    for (const Line &line : lines)
        log.line(line.level, line.text, line.file);
    log.take();  // which must not forget it
    return log.probe_trouble();
}

ProbeFacts machine()
{
    ProbeFacts facts;
    facts.root = true;
    facts.library_path = "/opt/lib/liborx_kp_thread.2.so";
    facts.library_there = true;
    facts.config = "/opt/config/fmon.ini";
    facts.release = "6.1.0-25-amd64";
    facts.machine = "x86_64";
    facts.mounts = 30;
    return facts;
}

/* The whole line that a refused --system gives. */
std::string refusal(const std::vector<Line> &lines, const ProbeFacts &facts = machine(), uint32_t kinds = FMON_CREATE)
{
    const std::string text = explain_no_system(logged(lines), facts, kinds);
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    EXPECT_EQ(text.rfind("--system needs the kernel-probe library: ", 0), 0u) << text;
    EXPECT_NE(text.find("; without it, fmon watch -r "), std::string::npos) << text;
    return text;
}

void expect_has(const std::string &text, std::initializer_list<const char *> parts)
{
    for (const char *part : parts)
        EXPECT_NE(text.find(part), std::string::npos) << part << " in: " << text;
}

const Line kNotLoaded = {1, "load kprobe thread module failed, errno: 2", "kp_thread_utils"};
const Line kNoKernel = {2, "maybe not support kprobe!", "linux/fmon_linux.c"};
const Line kOsInfo = {2, "main get_os_info error"};
const Line kFilter = {2, "maybe noy support global event"};
const Line kEnd = {1, "init kpnotify failed", "linux/fmon_linux.c"};

}  // namespace

TEST(CliSystemCauses, library_missing)
{
    ProbeFacts facts = machine();
    facts.library_there = false;
    expect_has(refusal({kNotLoaded, kNoKernel, kEnd}, facts), {"/opt/lib/liborx_kp_thread.2.so is not there: install"});
}

TEST(CliSystemCauses, library_that_cannot_be_loaded)
{
    ProbeFacts facts = machine();
    facts.load_error = "/opt/lib/liborx_kp_thread.2.so: file too short";
    expect_has(refusal({kNotLoaded, kNoKernel, kEnd}, facts), {"cannot be loaded: /opt/lib/", "file too short"});
    expect_has(refusal({kNotLoaded}), {"liborx_kp_thread.2.so cannot be loaded; --verbose"});
}

TEST(CliSystemCauses, library_that_lacks_a_function)
{
    const Line lacks = {1, "load kp_thread symbol: _kp_ins_crt failed, errnp:2", "kp_thread_utils"};
    expect_has(refusal({lacks, kEnd}), {"lacks _kp_ins_crt: it belongs to another version"});
    // The monitor takes a registration without that function for a good one, and says nothing.
    ProbeFacts facts = machine();
    facts.missing_entry = "_kp_evt_reg";
    expect_has(refusal({}, facts), {"lacks _kp_evt_reg"});
}

TEST(CliSystemCauses, kernel_without_probes)
{
    expect_has(refusal({kNoKernel, kEnd}), {"does not work on this kernel, 6.1.0-25-amd64; --verbose shows"});
    expect_has(refusal({{2, "get os_info failed!"}, kEnd}), {"does not work on this kernel"});
    ProbeFacts user = machine();
    user.root = false;
    expect_has(refusal({kNoKernel, kEnd}, user), {"only root may place probes", "modified and closed", " (root)"});
}

TEST(CliSystemCauses, release_that_is_not_understood)
{
    const Line release = {1, "kernel version get failed, uname.release:[6.18.44-fc-v669]"};
    const std::string text = refusal({release, kOsInfo, kEnd});
    expect_has(text, {"'6.18.44-fc-v669' is not understood", "MAJOR.MINOR.PATCH-BUILD", "6.1.0-25-amd64"});
    expect_has(refusal({{1, "kernel version get failed, uname.release:[a]b]"}}), {"'a]b'"});
}

TEST(CliSystemCauses, machine_that_is_not_supported)
{
    expect_has(refusal({{1, "not support [aarch64] platform"}, kOsInfo, kEnd}),
               {"machines of type aarch64 are not supported", "x86_64, i386 and i686"});
}

TEST(CliSystemCauses, container)
{
    ProbeFacts facts = machine();
    facts.container = true;
    facts.library_there = false;
    // Installing the library would not help there, so the container counts although the library is missing, too.
    const std::string text = refusal({kNotLoaded, kNoKernel}, facts);
    expect_has(text, {"inside a container", "on the host itself", "fmon watch -r shows"});
    EXPECT_EQ(text.find("install"), std::string::npos) << text;
    EXPECT_EQ(read_probe_line("current env is container!", "container_tool_utils"), ProbeCause::kContainer);
}

TEST(CliSystemCauses, too_many_mounts)
{
    expect_has(refusal({{2, "can't get common filter"}, kFilter, kEnd}),
               {"too many mounts of devices (30)", "27 with ids of two digits"});
    expect_has(refusal({kFilter, kEnd}), {"too many mounts"});
}

TEST(CliSystemCauses, config_file_missing)
{
    expect_has(refusal({{2, "clt_net conf file load failed!"}, {2, "load offset config error"}, kEnd}),
               {"/opt/config/fmon.ini cannot be read"});
}

TEST(CliSystemCauses, instance_refused)
{
    const Line instance = {2, "create kprobe instance failed!"};
    expect_has(refusal({instance, instance, kEnd}), {"could not set up its probes; --verbose"});
    ProbeFacts user = machine();
    user.root = false;
    expect_has(refusal({instance, kEnd}, user), {"could not set up its probes: only root"});
}

TEST(CliSystemCauses, every_probe_that_can_be_refused)
{
    for (const char *line : {"register create file cmd failed!", "register delete file cmd failed!",
                             "register close_write file cmd failed!", "register rename from file cmd failed!",
                             "register rename to file cmd failed!"})
        expect_has(refusal({{2, line}, kEnd}), {"a probe was refused (", line});
    ProbeFacts old = machine();
    old.release = "2.6.32-754.el6.x86_64";
    expect_has(refusal({{2, "register create file cmd failed!"}, kEnd}, old), {"2.6.32-754", "too old", "3.0"});
}

TEST(CliSystemCauses, no_cause_in_the_log)
{
    expect_has(refusal({}), {"it did not start; --verbose"});
    expect_has(refusal({kEnd}), {"it did not start; --verbose"});
    expect_has(refusal({kOsInfo, kEnd}), {"it did not start; --verbose"});
}

TEST(CliSystemCauses, the_first_cause_wins)
{
    const Line release = {1, "kernel version get failed, uname.release:[5.4.0]"};
    expect_has(refusal({release, kOsInfo, kNotLoaded, kFilter}), {"'5.4.0' is not understood"});
    expect_has(refusal({kNotLoaded, release}), {"cannot be loaded"});
}

TEST(CliSystemCauses, what_the_inotify_source_says_is_no_cause)
{
    const char *const inotify = "linux/clt_inotify.c";
    const Line release = {1, "kernel version get failed, uname.release:[5.4.0]"};
    expect_has(refusal({{2, "create kprobe instance failed!", inotify}, {2, "get os_info failed!", inotify}, release}),
               {"'5.4.0' is not understood"});
    EXPECT_EQ(logged({{2, "register inotify event failed!", inotify}}).cause, ProbeCause::kNone);
}

TEST(CliSystemCauses, names_in_other_lines_are_no_cause)
{
    EXPECT_EQ(logged({{1, "open dir /maybe not support kprobe! failed: x", "linux/fmon_linux.c"}}).cause,
              ProbeCause::kNone);
    EXPECT_EQ(logged({{4, "maybe not support kprobe!"}}).cause, ProbeCause::kNone);
    EXPECT_EQ(read_probe_line("", ""), ProbeCause::kNone);
}

TEST(CliSystemCauses, what_works_without)
{
    expect_has(refusal({}, machine(), FMON_CLOSE_WRITE), {"fmon watch -r --mount -e close_write / shows the same"});
    expect_has(refusal({}, machine(), FMON_CLOSE_WRITE | FMON_CREATE),
               {"fmon watch -r --mount / shows what is modified and closed"});
}

TEST(CliSystemCauses, facts_of_this_machine)
{
    const agent_testing::Folder folder;
    const std::string lib = folder.dir("lib");
    folder.dir("bin");
    setenv("FMON_HOME", folder.root().c_str(), 1);
    const ProbeFacts none = gather_probe_facts(true);
    EXPECT_TRUE(none.container);
    EXPECT_EQ(none.library_path, lib + "/liborx_kp_thread.2.so");
    EXPECT_EQ(none.config, folder.path("config/fmon.ini"));
    EXPECT_FALSE(none.library_there);
    struct utsname name;
    ASSERT_EQ(uname(&name), 0);
    EXPECT_EQ(none.release, name.release);
    EXPECT_EQ(none.machine, name.machine);

    folder.file("lib/liborx_kp_thread.2.so", "no library");
    const ProbeFacts bad = gather_probe_facts(false);
    unsetenv("FMON_HOME");
    EXPECT_TRUE(bad.library_there);
    EXPECT_NE(bad.load_error, "");
    EXPECT_EQ(settle_cause(logged({kNotLoaded}), bad), ProbeCause::kLibrary);
}

/* Every line of the table is found by its beginning, whatever comes behind it. */
TEST(CliSystemCauses, every_line_has_a_cause_of_its_own_words)
{
    const std::pair<const char *, ProbeCause> rows[] = {
        {"load kprobe thread module failed, errno: 11", ProbeCause::kLibrary},
        {"load kp_thread symbol: _os_info_get failed, errnp:0", ProbeCause::kIncomplete},
        {"maybe not support kprobe!", ProbeCause::kKernel},
        {"not support [ppc] platform", ProbeCause::kMachine},
        {"kernel version get failed, uname.release:[]", ProbeCause::kRelease},
        {"load offset config error", ProbeCause::kConfig},
        {"can't get common filter", ProbeCause::kMounts},
        {"create kprobe instance failed!", ProbeCause::kInstance},
        {"get hw plat error", ProbeCause::kOther},
        {"init kpnotify failed", ProbeCause::kOther},
        {"can't get mountonfo!", ProbeCause::kNone},
        {"fmon conf file prase error, no version!", ProbeCause::kNone},
    };
    for (const auto &[text, cause] : rows)
        EXPECT_EQ(read_probe_line(text, "linux/clt_file.c"), cause) << text;
}
