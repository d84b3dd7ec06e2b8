/* Tests of why there are no probes, from what the module reports. */

#include <sys/utsname.h>

#include <cstring>

#include "agent/probe_cause.h"
#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

/* The status of probes that were refused for that reason. */
struct fmon_source refused(uint32_t reason, const std::string &why = "")
{
    struct fmon_source probes = {FMON_SOURCE_REFUSED, reason, -1, 0, ""};
    memcpy(probes.why, why.c_str(), why.size() + 1);
    return probes;
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
std::string refusal(const struct fmon_source &probes, const ProbeFacts &facts = machine(), uint32_t kinds = FMON_CREATE)
{
    const std::string text = explain_no_system(probes, facts, kinds);
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    EXPECT_EQ(0u, text.rfind("--system needs the kernel-probe library: ", 0)) << text;
    EXPECT_NE(text.find("; without it, fmon watch -r "), std::string::npos) << text;
    return text;
}

void expect_has(const std::string &text, std::initializer_list<const char *> parts)
{
    for (const char *part : parts)
        EXPECT_NE(text.find(part), std::string::npos) << part << " in: " << text;
}

}  // namespace

TEST(CliSystemCauses, LibraryMissing)
{
    ProbeFacts facts = machine();
    facts.library_there = false;
    expect_has(refusal(refused(FMON_WHY_LIBRARY), facts), {"/opt/lib/liborx_kp_thread.2.so is not there: install"});
}

TEST(CliSystemCauses, LibraryThatCannotBeLoaded)
{
    ProbeFacts facts = machine();
    facts.load_error = "/opt/lib/liborx_kp_thread.2.so: file too short";
    expect_has(refusal(refused(FMON_WHY_LIBRARY), facts), {"cannot be loaded: /opt/lib/", "file too short"});
    expect_has(refusal(refused(FMON_WHY_LIBRARY)), {"liborx_kp_thread.2.so cannot be loaded; --verbose"});
}

TEST(CliSystemCauses, LibraryThatLacksAFunction)
{
    expect_has(refusal(refused(FMON_WHY_SYMBOL, "_kp_ins_crt")), {"lacks _kp_ins_crt: it belongs to another version"});
    // The monitor takes a registration without that function for a good one, and says nothing.
    ProbeFacts facts = machine();
    facts.missing_entry = "_kp_evt_reg";
    expect_has(refusal({}, facts), {"lacks _kp_evt_reg"});
}

TEST(CliSystemCauses, KernelWithoutProbes)
{
    expect_has(refusal(refused(FMON_WHY_KERNEL)), {"does not work on this kernel, 6.1.0-25-amd64; --verbose shows"});
    ProbeFacts user = machine();
    user.root = false;
    expect_has(refusal(refused(FMON_WHY_KERNEL), user),
               {"only root may place probes", "modified and closed", " (root)"});
}

TEST(CliSystemCauses, TheLibrarysOwnWords)
{
    expect_has(refusal(refused(FMON_WHY_KERNEL, "no tracefs")),
               {"does not work on this kernel, 6.1.0-25-amd64 (no tracefs); --verbose shows"});
}

TEST(CliSystemCauses, ReleaseThatIsNotUnderstood)
{
    expect_has(refusal(refused(FMON_WHY_RELEASE, "6.18.44-fc-v669")),
               {"'6.18.44-fc-v669' is not understood", "MAJOR.MINOR.PATCH-BUILD", "6.1.0-25-amd64"});
    expect_has(refusal(refused(FMON_WHY_RELEASE, "a]b")), {"'a]b'"});
    expect_has(refusal(refused(FMON_WHY_RELEASE)), {"'6.1.0-25-amd64' is not understood"});
}

TEST(CliSystemCauses, MachineThatIsNotSupported)
{
    expect_has(refusal(refused(FMON_WHY_MACHINE, "aarch64")),
               {"machines of type aarch64 are not supported", "x86_64, i386 and i686"});
    expect_has(refusal(refused(FMON_WHY_MACHINE)), {"machines of type x86_64 are not supported"});
}

TEST(CliSystemCauses, Container)
{
    ProbeFacts facts = machine();
    facts.container = true;
    facts.library_there = false;
    // Installing the library would not help there, so the container counts although the library is missing, too.
    const std::string text = refusal(refused(FMON_WHY_LIBRARY), facts);
    expect_has(text, {"inside a container", "on the host itself", "fmon watch -r shows"});
    EXPECT_EQ(text.find("install"), std::string::npos) << text;
    EXPECT_EQ(uint32_t{FMON_WHY_CONTAINER}, settle_cause(refused(FMON_WHY_CONTAINER), machine()));
}

TEST(CliSystemCauses, TooManyMounts)
{
    expect_has(refusal(refused(FMON_WHY_MOUNTS)), {"too many mounts of devices (30)", "27 with ids of two digits"});
}

TEST(CliSystemCauses, ConfigFileMissing)
{
    expect_has(refusal(refused(FMON_WHY_CONFIG)), {"/opt/config/fmon.ini cannot be read"});
}

TEST(CliSystemCauses, InstanceRefused)
{
    expect_has(refusal(refused(FMON_WHY_INSTANCE)), {"could not set up its probes; --verbose"});
    ProbeFacts user = machine();
    user.root = false;
    expect_has(refusal(refused(FMON_WHY_INSTANCE), user), {"could not set up its probes: only root"});
}

TEST(CliSystemCauses, EveryProbeThatCanBeRefused)
{
    for (const char *line : {"register create file cmd failed!", "register delete file cmd failed!",
                             "register close_write file cmd failed!", "register rename from file cmd failed!",
                             "register rename to file cmd failed!"})
        expect_has(refusal(refused(FMON_WHY_PROBE, line)), {"a probe was refused (", line});
    ProbeFacts old = machine();
    old.release = "2.6.32-754.el6.x86_64";
    expect_has(refusal(refused(FMON_WHY_PROBE, "register create file cmd failed!"), old),
               {"2.6.32-754", "too old", "3.0"});
}

TEST(CliSystemCauses, NoCauseThatCanBeTold)
{
    expect_has(refusal({}), {"it did not start; --verbose"});
    expect_has(refusal(refused(FMON_WHY_OTHER, "get hw plat error")), {"it did not start; --verbose"});
    expect_has(refusal(refused(FMON_WHY_SYSTEM)), {"it did not start; --verbose"});
}

TEST(CliSystemCauses, WhatTheMachineShowsWins)
{
    ProbeFacts facts = machine();
    EXPECT_EQ(uint32_t{FMON_WHY_RELEASE}, settle_cause(refused(FMON_WHY_RELEASE), facts));
    facts.missing_entry = "_kp_evt_reg";
    EXPECT_EQ(uint32_t{FMON_WHY_SYMBOL}, settle_cause(refused(FMON_WHY_RELEASE), facts));
    facts.container = true;
    EXPECT_EQ(uint32_t{FMON_WHY_CONTAINER}, settle_cause(refused(FMON_WHY_RELEASE), facts));
}

namespace
{

int status_of_probes(struct fmon_status *out)
{
    out->file_probes = refused(FMON_WHY_RELEASE, "5.4.0");
    return 0;
}

int no_status(struct fmon_status *out)
{
    out->file_probes = refused(FMON_WHY_RELEASE, "5.4.0");
    return FMON_ENOTINIT;
}

}  // namespace

TEST(CliSystemCauses, TheCauseIsThatOfTheStatus)
{
    Module module = {};
    module.status = status_of_probes;
    expect_has(refusal(file_probes(module)), {"'5.4.0' is not understood"});
}

TEST(CliSystemCauses, AMonitorThatDoesNotRunGivesNoCause)
{
    Module module = {};
    module.status = no_status;
    expect_has(refusal(file_probes(module)), {"it did not start; --verbose"});
}

TEST(CliSystemCauses, WhatWorksWithout)
{
    expect_has(refusal({}, machine(), FMON_CLOSE_WRITE), {"fmon watch -r --mount -e close_write / shows the same"});
    expect_has(refusal({}, machine(), FMON_CLOSE_WRITE | FMON_CREATE),
               {"fmon watch -r --mount / shows what is modified and closed"});
}

TEST(CliSystemCauses, FactsOfThisMachine)
{
    const agent_testing::Directory directory;
    const std::string lib = directory.dir("lib");
    directory.dir("bin");
    setenv("FMON_HOME", directory.root().c_str(), 1);
    const ProbeFacts none = gather_probe_facts(true);
    EXPECT_TRUE(none.container);
    EXPECT_EQ(none.library_path, lib + "/liborx_kp_thread.2.so");
    EXPECT_EQ(none.config, directory.path("config/fmon.ini"));
    EXPECT_FALSE(none.library_there);
    struct utsname name;
    ASSERT_EQ(0, uname(&name));
    EXPECT_EQ(none.release, name.release);
    EXPECT_EQ(none.machine, name.machine);

    directory.file("lib/liborx_kp_thread.2.so", "no library");
    const ProbeFacts bad = gather_probe_facts(false);
    unsetenv("FMON_HOME");
    EXPECT_TRUE(bad.library_there);
    EXPECT_NE("", bad.load_error);
    EXPECT_EQ(uint32_t{FMON_WHY_LIBRARY}, settle_cause(refused(FMON_WHY_LIBRARY), bad));
}
