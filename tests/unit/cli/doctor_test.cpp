/* Tests of doctor.h: each check of `fmon doctor` on made-up facts. */

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "agent/message.h"
#include "cli/doctor/doctor.h"
#include "cli/doctor/doctor_options.h"
#include "unit/agent/agent_testing.h"
#include "unit/cli/doctor_testing.h"
#include "unit/cli/parse.h"

using namespace agent;
using namespace cli;
using cli_testing::expect;
using cli_testing::find;
using cli_testing::has;
using cli_testing::mount_of;

namespace
{

SetupFacts good_setup()
{
    SetupFacts facts;
    facts.config = "/opt/config/fmon.ini";
    facts.config_read = true;
    facts.settings = {{"max_events", "10000"}, {"rate_log", "0"}};
    return facts;
}

KernelFacts good_kernel()
{
    KernelFacts facts;
    facts.release = facts.handed = "6.1.0-37-amd64";
    facts.machine = "x86_64";
    facts.section = "6.1.0-37-x86_64";
    facts.s_mounts = "224";
    facts.mnt_id = "172";
    facts.described = Offsets{224, 172};
    return facts;
}

EventFacts good_events()
{
    EventFacts facts;
    facts.max_watches = 65536;
    facts.max_instances = 128;
    facts.max_events = facts.max_fanotify = 16384;
    facts.max_groups = 128;
    facts.max_marks = 8192;
    facts.root = true;
    return facts;
}

DoctorProbes good_probes()
{
    DoctorProbes facts;
    facts.probes.root = facts.probes.library_there = true;
    facts.probes.library_path = "/opt/lib/liborx_kp_thread.2.so";
    facts.probes.release = "6.1.0-37-amd64";
    facts.understood = true;
    facts.mounts = {21, 24};
    facts.processors = 2;
    facts.max_descriptors = 4096;
    return facts;
}

bool all_good(const Checks &checks)
{
    return !checks.empty() && std::all_of(checks.begin(), checks.end(), [](const Check &check) {
        return check.state == State::kOk && check.remedy.empty() && check.reachable && !check.text.empty();
    });
}

}  // namespace

TEST(CliDoctor, AGoodMachine)
{
    EXPECT_TRUE(all_good(judge_setup(good_setup())));
    EXPECT_TRUE(all_good(judge_kernel(good_kernel())));
    EXPECT_TRUE(all_good(judge_rights({~uint64_t{0}, true})));
    EXPECT_TRUE(all_good(judge_events(good_events())));
    EXPECT_TRUE(all_good(judge_probes(good_probes())));
}

TEST(CliDoctor, Installation)
{
    SetupFacts facts = good_setup();
    facts.monitor_error = "cannot load the monitor: none";
    facts.config_read = false;
    facts.container = true;
    facts.container_type = "docker";
    const Checks checks = judge_setup(facts);
    expect(find(checks, "monitor"), State::kNo, {"cannot load the monitor: none"});
    expect(find(checks, "fmon.ini"), State::kNo, {"/opt/config/fmon.ini cannot be read", "put it back"});
    expect(find(checks, "place"), State::kWarn, {"inside a container (docker)", "on the host itself"});
    for (const char *value : {"0", "-1", "", "x", "10 ", "99999999999999999999"}) {
        facts = good_setup();
        facts.settings.emplace_back("max_dentries", value);
        expect(find(judge_setup(facts), "fmon.ini"), State::kNo, {"max_dentries is '", "from 1 to 2097152"});
    }
}

TEST(CliDoctor, Kernel)
{
    KernelFacts facts = good_kernel();
    facts.release = "6.18.44-fc-v669";
    facts.section = "";
    expect(find(judge_kernel(facts), "release"), State::kNo, {"6.18.44-fc-v669 on x86_64", "MAJOR.MINOR.PATCH-BUILD"});
    EXPECT_EQ(kDone, doctor_status(judge_kernel(facts))) << "nobody could change that";
    facts.handed = "6.18.44-0-fc-v669";
    facts.section = "6.18.44-0-x86_64";
    expect(find(judge_kernel(facts), "release"), State::kOk,
           {"6.18.44-fc-v669 on x86_64, which the monitor is handed as 6.18.44-0-fc-v669"});
    facts.section = "";
    EXPECT_FALSE(has(judge_kernel(facts), "offsets"));
    facts.machine = "aarch64";
    expect(find(judge_kernel(facts), "release"), State::kNo, {"x86_64, i386 and i686 only"});
}

TEST(CliDoctor, Offsets)
{
    KernelFacts facts = good_kernel();
    facts.mnt_id = "180";
    expect(find(judge_kernel(facts), "offsets"), State::kWarn,
           {"[6.1.0-37-x86_64] says 224 and 180", "the kernel itself 224 and 172", "fmon offsets"});
    facts.mnt_id = "";
    expect(find(judge_kernel(facts), "offsets"), State::kWarn, {"is not complete", "fmon offsets"});
    facts.s_mounts = "";
    expect(find(judge_kernel(facts), "offsets"), State::kWarn, {"has no section [6.1.0-37-x86_64]", "fmon offsets"});
    facts.described.reset();
    facts.description_error = "it was built without BTF";
    expect(find(judge_kernel(facts), "offsets"), State::kWarn, {"without BTF"});
    facts = good_kernel();
    facts.described.reset();
    expect(find(judge_kernel(facts), "offsets"), State::kOk, {"nothing to compare with"});
}

TEST(CliDoctor, Capabilities)
{
    EXPECT_EQ(0x1ffffffffffu, parse_capabilities("Name:\tx\nCapPrm:\t1\nCapEff:\t000001ffffffffff\nCapBnd:\t0\n"));
    EXPECT_EQ(0u, parse_capabilities("Name:\tCapEff:\nCapEff:\t0000000000000000\n"));
    for (const char *text : {"", "CapEff:\t1", "\nCapEff:\tx", "\nCapEff:", "\nCapEff:\t"})
        EXPECT_FALSE(parse_capabilities(text)) << text;
    Checks checks = judge_rights({uint64_t{1} << 21, false});
    expect(find(checks, "CAP_SYS_ADMIN"), State::kOk, {"fanotify"});
    expect(find(checks, "CAP_DAC_READ_SEARCH"), State::kNo, {"is missing", "run as root"});
    expect(find(checks, "CAP_SYS_PTRACE"), State::kWarn, {"is missing", "run as root"});
    // Without fanotify no event names a process, whose program nobody then looks up.
    checks = judge_rights({uint64_t{1} << 2, false});
    expect(find(checks, "CAP_SYS_PTRACE"), State::kOk, {"of no use without CAP_SYS_ADMIN"});
    EXPECT_EQ("", find(checks, "CAP_SYS_PTRACE").remedy);
    EXPECT_EQ("", find(judge_rights({uint64_t{1} << 19 | uint64_t{1} << 21, true}), "CAP_SYS_PTRACE").remedy);
    checks = judge_rights({0, true});
    expect(find(checks, "CAP_SYS_ADMIN"), State::kNo, {"is missing", "let root keep CAP_SYS_ADMIN"});
    EXPECT_EQ(kNothing, doctor_status(checks));
    expect(find(judge_rights({std::nullopt, true}), "capabilities"), State::kWarn, {"mount /proc"});
}

TEST(CliDoctor, InotifyLimits)
{
    EventFacts facts = good_events();
    facts.users[1000].inotify_watches = 52428;
    facts.users[0].inotify_watches = 7;
    expect(find(judge_events(facts), "watches"), State::kOk, {"52,428 of 65,536 used by user 1000"});
    facts.users[1000].inotify_watches = 52429;  // four fifths
    expect(find(judge_events(facts), "watches"), State::kWarn, {"sysctl fs.inotify.max_user_watches=131072"});
    EXPECT_EQ(kDone, doctor_status(judge_events(facts)));
    facts.users[1000].inotify_watches = 65536;
    expect(find(judge_events(facts), "watches"), State::kNo, {"65,536 of 65,536"});
    EXPECT_EQ(kNothing, doctor_status(judge_events(facts)));
    facts.users[0].inotify_instances = 128;
    expect(find(judge_events(facts), "instances"), State::kNo,
           {"128 of 128 used by user 0", "max_user_instances=1024"});
    facts.max_watches = 0;
    expect(find(judge_events(facts), "watches"), State::kWarn, {"cannot be read"});
}

TEST(CliDoctor, Queues)
{
    EventFacts facts = good_events();
    facts.max_events = 100;
    const Checks checks = judge_events(facts);
    const auto is_queue = [](const Check &check) { return check.name == "queue" && check.section[0] == 'i'; };
    expect(*std::find_if(checks.begin(), checks.end(), is_queue), State::kWarn,
           {"100 events", "sysctl fs.inotify.max_queued_events=16384"});
}

TEST(CliDoctor, Processes)
{
    expect(find(judge_processes({"", true}), "connector"), State::kOk, {"that have ended are known"});
    const Checks refused = judge_processes({"the kernel refuses", true});
    expect(find(refused, "connector"), State::kWarn, {"the kernel refuses", "on the host"});
    EXPECT_EQ(kDone, doctor_status(refused)) << "fmon works without";
    expect(find(judge_processes({"the kernel refuses", false}), "connector"), State::kWarn, {"run as root"});
}

TEST(CliDoctor, Fanotify)
{
    EventFacts facts = good_events();
    facts.group_error = EPERM;
    expect(find(judge_events(facts), "group"), State::kNo, {"refuses it", "containers", "CAP_SYS_ADMIN"});
    EXPECT_FALSE(has(judge_events(facts), "groups"));
    facts.root = false;
    expect(find(judge_events(facts), "group"), State::kNo, {"run as root"});
    facts.group_error = ENOSYS;
    expect(find(judge_events(facts), "group"), State::kNo, {"built without it"});
    EXPECT_EQ(kDone, doctor_status(judge_events(facts)));
    facts = good_events();
    facts.group_error = EMFILE;
    expect(find(judge_events(facts), "group"), State::kNo, {"fs.fanotify.max_user_groups=1024"});
    facts = good_events();
    facts.mark_error = EPERM;
    expect(find(judge_events(facts), "mounts"), State::kNo, {"refuses it"});
    facts = good_events();
    facts.users[3].fanotify_instances = 120;
    expect(find(judge_events(facts), "groups"), State::kWarn, {"120 of 128 used by user 3"});
    facts.max_groups = 0;  // before 5.13
    expect(find(judge_events(facts), "limits"), State::kOk, {"128 groups"});
}

TEST(CliDoctor, ProbeLibrary)
{
    DoctorProbes facts = good_probes();
    facts.probes.library_there = false;
    EXPECT_EQ(1u, judge_probes(facts).size());
    expect(find(judge_probes(facts), "library"), State::kNo, {"liborx_kp_thread.2.so is not there", "install it"});
    facts = good_probes();
    facts.probes.load_error = "file too short";
    expect(find(judge_probes(facts), "library"), State::kNo, {"cannot be loaded: file too short"});
    facts = good_probes();
    facts.probes.missing_entry = "_kp_evt_reg";
    expect(find(judge_probes(facts), "library"), State::kNo, {"lacks _kp_evt_reg"});
    facts = good_probes();
    facts.probes.container = true;
    facts.probes.library_there = false;
    expect(find(judge_probes(facts), "library"), State::kWarn, {"inside a container"});
    EXPECT_EQ(kDone, doctor_status(judge_probes(facts)));
}

TEST(CliDoctor, ProbesThatDoNotWork)
{
    DoctorProbes facts = good_probes();
    facts.probes.library_reason = "tracefs is not mounted: mount -t tracefs tracefs /sys/kernel/tracing";
    expect(find(judge_probes(facts), "kernel"), State::kNo, {"do not work: tracefs is not mounted: mount -t tracefs"});
    EXPECT_EQ(kNothing, doctor_status(judge_probes(facts)));
    facts.probes.root = false;
    expect(find(judge_probes(facts), "kernel"), State::kNo, {"run as root"});
    facts.probes.library_reason = "this kernel has no kernel probes (CONFIG_KPROBE_EVENTS)";
    EXPECT_EQ(kDone, doctor_status(judge_probes(facts))) << "nobody could change that";
    facts = good_probes();
    facts.understood = false;
    expect(find(judge_probes(facts), "kernel"), State::kOk, {"the monitor does not use them"});
}

// Kernel probes need some for each processor that there may be.
TEST(CliDoctor, Descriptors)
{
    DoctorProbes facts = good_probes();
    expect(find(judge_probes(facts), "descriptors"), State::kOk, {"about 108 for 2 processors"});
    facts.processors = 46;
    facts.max_descriptors = 1024;
    expect(find(judge_probes(facts), "descriptors"), State::kNo,
           {"about 1,076 for 46 processors", "a process may have 1,024", "ulimit -n 2048", "LimitNOFILE="});
    EXPECT_EQ(kNothing, doctor_status(judge_probes(facts)));
}

TEST(CliDoctor, RoomOfTheFilter)
{
    EXPECT_EQ(0u, filter_length({}));
    EXPECT_EQ(filter_length({21}), strlen("(mnt==21||mnt==0)"));
    EXPECT_EQ(filter_length({21, 240}), strlen("(mnt==21||mnt==240||mnt==0)"));
    DoctorProbes facts = good_probes();
    facts.mounts.assign(27, 30);
    expect(find(judge_probes(facts), "mounts"), State::kOk, {"27 mounts of devices: 251 of the filter's 255"});
    facts.mounts.assign(28, 30);
    expect(find(judge_probes(facts), "mounts"), State::kNo, {"28 mounts", "unmount some"});
}

TEST(CliDoctor, MarkedTracefsOfAnOldKernel)
{
    DoctorProbes facts = good_probes();
    facts.may_crash = true;
    const Checks checks = judge_probes(facts);
    expect(find(checks, "tracefs"), State::kWarn, {"marks tracefs", "before 6.7", "--probes off"});
    expect(find(checks, "kernel"), State::kWarn, {"were not tried"});
    EXPECT_EQ(kDone, doctor_status(checks));
}

TEST(CliDoctor, FileSystems)
{
    const Checks checks = judge_mounts({
        mount_of("1 0 8:1 / / rw - ext4 /dev/sda1 rw"),
        mount_of("2 1 0:3 / /proc rw - proc proc rw"),
        mount_of("3 1 0:4 / /home rw - nfs4 server:/home rw"),
        mount_of("4 1 0:5 / /a rw - overlay overlay rw"),
        mount_of("5 1 0:6 / /b rw - overlay overlay rw"),
        mount_of("6 1 0:7 / /c rw - overlay overlay rw"),
        mount_of("7 1 0:8 / /d\\040e rw - overlay overlay rw"),
        mount_of("8 1 0:9 / /f rw - fuse.sshfs x@y: rw"),
        mount_of("9 1 0:10 / /g rw - fuseblk /dev/sdb1 rw"),
        mount_of("10 1 0:11 / /h rw - cifs //s/h rw"),
    });
    ASSERT_EQ(5u, checks.size());
    expect(find(checks, "nfs4"), State::kWarn, {"/home: what other machines change"});
    expect(find(checks, "overlay"), State::kWarn, {"/a, /b, /c and 1 more: ", "layers"});
    expect(find(checks, "fuse.sshfs"), State::kWarn, {"/f: "});
    expect(find(checks, "cifs"), State::kWarn, {"/h: "});
    expect(find(checks, "proc"), State::kOk, {"/proc: what the kernel changes"});
    expect(find(judge_mounts({}), "mounts"), State::kWarn, {"mountinfo cannot be read"});
}

TEST(CliDoctorReport, Text)
{
    const Checks checks = {{"a", "b", State::kOk, "fine", "", true},
                           {"long", "name", State::kNo, "bad\n\033[31m", "mend it", true},
                           {"c", "d", State::kWarn, "so", "", true}};
    EXPECT_EQ(
        "ok    a b        fine\n"
        "no    long name  bad\\n\\033[31m: mend it\n"
        "warn  c d        so\n",
        doctor_text(checks, false));
    const std::string coloured = doctor_text(checks, true);
    EXPECT_EQ("\033[32mok\033[0m    ", coloured.substr(0, 15));
    EXPECT_EQ(6, std::count(coloured.begin(), coloured.end(), '\033'));
    EXPECT_EQ("", doctor_text({}, true));
}

TEST(CliDoctorReport, Json)
{
    std::istringstream lines(
        doctor_json({{"a", "b", State::kOk, "fi\"ne\xff", "", true}, {"c", "d", State::kNo, "bad", "mend it", false}},
                    agent_testing::kTime));
    std::string line;
    std::vector<std::string> states, texts;
    while (std::getline(lines, line)) {
        rapidjson::Document object;
        ASSERT_FALSE(object.Parse(line.c_str()).HasParseError()) << line;
        EXPECT_STREQ("check", object["type"].GetString());
        EXPECT_STREQ("2024-02-29T12:34:56.789012345Z", object["time"].GetString());
        states.emplace_back(object["state"].GetString());
        texts.emplace_back(object["text"].GetString());
        EXPECT_EQ(object.HasMember("remedy"), states.back() == "no");
        EXPECT_EQ(object["reachable"].GetBool(), states.back() == "ok");
    }
    EXPECT_EQ((std::vector<std::string>{"ok", "no"}), states);
    EXPECT_EQ("fi\"ne\xef\xbf\xbd", texts[0]);
}

TEST(CliDoctorWatches, WhatEachMissed)
{
    const Checks checks = judge_watches({{7, "fmon watch /a", {}, ""},
                                         {8, "fmon watch /b", {"one", "two"}, ""},
                                         {9, "fmon watch /c", {}, "process 9 does not answer"}});
    ASSERT_EQ(3u, checks.size());
    expect(find(checks, "process 7"), State::kOk, {"fmon watch /a: nothing was missed"});
    expect(find(checks, "process 8"), State::kWarn, {"fmon watch /b: one; two"});
    expect(find(checks, "process 9"), State::kWarn, {"fmon watch /c: process 9 does not answer"});
}

TEST(CliDoctorReport, Status)
{
    const auto status = [](State state, bool reachable) {
        return doctor_status({{"a", "b", state, "", "", reachable}});
    };
    EXPECT_EQ(0, doctor_status({}));
    EXPECT_EQ(0, status(State::kOk, true));
    EXPECT_EQ(0, status(State::kWarn, true));
    EXPECT_EQ(1, status(State::kNo, true));
    EXPECT_EQ(0, status(State::kNo, false));
}

TEST(CliDoctorReport, Arguments)
{
    const auto parse = [](std::vector<std::string> arguments, DoctorOptions &options) {
        const auto parsed = cli_testing::parse(kDoctor, std::move(arguments), options);
        EXPECT_EQ(parsed.ok, parsed.error.empty());
        options = parsed.options;
        return parsed.error;
    };
    DoctorOptions options;
    EXPECT_EQ("", parse({}, options));
    EXPECT_FALSE(options.json || options.help);
    EXPECT_EQ("", parse({"--format", "json"}, options));
    EXPECT_TRUE(options.json);
    EXPECT_EQ("", parse({"-f", "text"}, options));
    EXPECT_FALSE(options.json);
    EXPECT_EQ("--format takes text or json, not 'csv'", parse({"-f", "csv"}, options));
    EXPECT_EQ("--format needs a value", parse({"-f"}, options));
    EXPECT_EQ("doctor takes no argument, such as 'now'", parse({"now"}, options));
    EXPECT_EQ("unknown option '--x': see fmon doctor --help", parse({"--x"}, options));
    EXPECT_EQ("", parse({"--help", "x"}, options));
    EXPECT_TRUE(options.help);
}

TEST(CliDoctorContainers, SayWhatIsFound)
{
    ContainerFacts facts;
    facts.surveyed = facts.root = true;
    facts.census.containers = 3;
    facts.census.mounts = 1200;
    facts.census.micros = 4200;
    expect(find(judge_containers(facts), "library"), State::kOk, {"can be loaded"});
    expect(find(judge_containers(facts), "identity"), State::kOk, {"3 containers", "1,200 mounts", "4 ms"});
    facts.census.cut = 1;
    expect(find(judge_containers(facts), "identity"), State::kWarn, {"1 namespace with more mounts"});
}

TEST(CliDoctorContainers, SayWhyTheyAreNotSeen)
{
    ContainerFacts facts;
    facts.library_error = "no such file";
    expect(find(judge_containers(facts), "library"), State::kWarn, {"no such file", "install"});
    EXPECT_FALSE(has(judge_containers(facts), "identity"));
    facts = {};
    facts.surveyed = true;
    facts.census_error = ENOENT;
    expect(find(judge_containers(facts), "identity"), State::kNo, {"/proc cannot be read", "mount"});
    facts.census_error = 0;
    facts.census.hidden = 7;
    expect(find(judge_containers(facts), "identity"), State::kWarn, {"may not be seen", "run as root"});
    facts.root = facts.first_hidden = true;
    expect(find(judge_containers(facts), "identity"), State::kWarn, {"most processes", "CAP_SYS_PTRACE", "hidepid"});
    facts.may_trace = true;
    EXPECT_EQ(find(judge_containers(facts), "identity").remedy.find("CAP_SYS_PTRACE"), std::string::npos);
    expect(find(judge_containers(facts), "identity"), State::kWarn, {"most processes", "user namespaces"});
    facts.census.hidden = 0;
    facts.first_hidden = false;
    facts.container = true;
    facts.host_processes = false;
    expect(find(judge_containers(facts), "identity"), State::kWarn, {"own processes", "--pid=host"});
}
