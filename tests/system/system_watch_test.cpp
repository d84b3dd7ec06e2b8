/*
 * `fmon watch --system` as a user starts it, in an installation of the test's own whose kernel-probe library is the
 * test double: what the test scripts is what "the kernel" reports.
 *
 * The machine's kernel release may be one that the monitor does not take for its probes, so the program is shown
 * another.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "harness.h"
#include "testlib/probe_double.h"
#include "testlib/records.h"

using namespace systest;
using testlib::file_probe_record;
using testlib::ProbeDouble;
using testlib::TempTree;
namespace fs = std::filesystem;

namespace
{

constexpr char kRelease[] = "6.1.0-25-amd64";
constexpr char kProbeLibrary[] = "liborx_kp_thread.2.so";
constexpr uint32_t kNoMount = 4000000;

/* A copy of the program with the staged libraries, and a double in place of the kernel-probe library. */
class Installation
{
public:
    /* `without`: a symbol that the double lacks, or "library" for no double at all. */
    explicit Installation(const std::string &without = "")
    {
        tree_.dir("bin");
        tree_.dir("lib");
        tree_.dir("config");
        tree_.dir("var/log/agent/fmon");
        fs::copy_file(FMON_TEST_BIN "/fmon", program());
        fs::copy_file(FMON_TEST_BIN "/../config/fmon.ini", config());
        for (const auto &entry : fs::directory_iterator(FMON_TEST_LIB))
            if (entry.path().filename() != kProbeLibrary)
                tree_.link("lib/" + entry.path().filename().string(), entry.path());
        if (without != "library")
            tree_.link(std::string("lib/") + kProbeLibrary,
                       testlib::probe_double_installation(without) + "/lib/" + kProbeLibrary);
    }
    std::string program() const { return tree_.path("bin/fmon"); }
    std::string config() const { return tree_.path("config/fmon.ini"); }
    /* Of a host that hands on that release. */
    Launch launch(const std::vector<std::string> &arguments, const std::string &release = kRelease) const
    {
        return launch_with(arguments, FMON_TEST_UNAME, "FMON_TEST_RELEASE=" + release);
    }
    /* Of fmon's own host, on a kernel of that release. */
    Launch launch_on(const std::string &kernel, const std::vector<std::string> &arguments) const
    {
        return launch_with(arguments, FMON_TEST_KERNEL_RELEASE, "FMON_TEST_KERNEL=" + kernel);
    }

private:
    Launch launch_with(const std::vector<std::string> &arguments, const std::string &preload,
                       const std::string &variable) const
    {
        std::vector<std::string> argv = {program()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        const char *sanitizer = getenv("ASAN_OPTIONS");
        return {argv,
                false,
                {"FMON_HOME=" + tree_.root(), "LD_PRELOAD=" + preload, variable,
                 "ASAN_OPTIONS=verify_asan_link_order=0" + (sanitizer ? ":" + std::string(sanitizer) : "")}};
    }

    TempTree tree_;
};

/* The same without the right to make fanotify groups, whoever runs the test. */
Launch without_fanotify(Launch launch)
{
    if (testlib::is_root()) {
        const std::vector<std::string> drop = {"/usr/bin/setpriv", "--bounding-set", "-sys_admin", "--inh-caps",
                                               "-sys_admin"};
        launch.argv.insert(launch.argv.begin(), drop.begin(), drop.end());
    }
    return launch;
}

/* A mount that the monitor knows: writable, of a device, from its root. */
struct KnownMount {
    uint32_t id = kNoMount;
    std::string point = "/";
};
std::vector<KnownMount> known_mounts()
{
    std::vector<KnownMount> all;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream in(line);
        std::string parent, device, root, options, word, type, source;
        KnownMount found;
        in >> found.id >> parent >> device >> root >> found.point >> options;
        while (in >> word && word != "-") {
        }
        in >> type >> source;
        struct stat st = {};
        if (root == "/" && options.starts_with("rw") && source.starts_with("/dev/") && stat(source.c_str(), &st) == 0 &&
            S_ISBLK(st.st_mode))
            all.push_back(found);
    }
    return all;
}

KnownMount known_mount()
{
    const auto all = known_mounts();
    return all.empty() ? KnownMount() : all.front();
}

bool is_on_known_mount(const std::string &path)
{
    struct statx facts = {};
    EXPECT_EQ(0, statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &facts)) << path;
    const auto all = known_mounts();
    return std::any_of(all.begin(), all.end(), [&](const KnownMount &m) { return m.id == facts.stx_mnt_id; });
}

/* `fmon watch --system` with scripted records. */
class SystemWatch
{
public:
    explicit SystemWatch(const Launch &launch) : process(launch)
    {
        auto first = next();
        EXPECT_TRUE(first && (*first)["type"] == "established") << (first ? first->dump() : process.errors());
        EXPECT_EQ(first ? (*first)["paths"] : Json(), Json::array({}));
    }

    std::optional<Json> next(int ms = kPatienceMs)
    {
        auto line = process.line(ms);
        if (!line)
            return std::nullopt;
        const std::optional<Json> object = Json::parse_if(*line);
        EXPECT_TRUE(object) << *line;
        return object.value_or(Json());
    }
    /* "path:kinds pid" of the next event; whose it is does not matter. */
    std::string event(int ms = kPatienceMs)
    {
        auto object = next(ms);
        if (!object)
            return "nothing; " + process.errors();
        std::string kinds;
        for (const std::string kind : (*object)["events"])
            kinds += (kinds.empty() ? "" : ",") + kind;
        return (*object)["path"].text() + ":" + kinds + " " + (*object)["pid"].dump();
    }

    Process process;
};

class System : public ::testing::Test
{
protected:
    Launch launch(const std::string &kinds) { return installation.launch(command(kinds)); }
    static std::vector<std::string> command(const std::string &kinds)
    {
        return {"watch", "--system", "-e", kinds, "--format", "json"};
    }
    /* Where marks of file systems could serve, nothing would be refused. */
    static std::vector<std::string> probes_only(const std::string &kinds)
    {
        std::vector<std::string> words = command(kinds);
        words.insert(words.end(), {"--source", "marks"});
        return words;
    }
    void happens(const std::string &event, const std::string &name, uint32_t pid)
    {
        probes.put(event, pid, file_probe_record(mount.id, {"/", "some", "directory"}, name));
    }
    /* As the monitor shows it. */
    std::string path(const std::string &name) const
    {
        return (mount.point == "/" ? "" : mount.point) + "/some/directory/" + name;
    }

    ProbeDouble probes;
    Installation installation;
    KnownMount mount = known_mount();
};

TEST_F(System, ShowsPathsAndProcesses)
{
    SystemWatch watch(launch("create,delete,moved_from,moved_to"));
    happens("Kc", "made", 101);
    EXPECT_EQ(watch.event(), path("made") + ":create 101");
    happens("Ku", "gone", 102);
    EXPECT_EQ(watch.event(), path("gone") + ":delete 102");
    happens("Krf", "old", 103);
    EXPECT_EQ(watch.event(), path("old") + ":moved_from 103");
    happens("Krt", "new", 103);
    EXPECT_EQ(watch.event(), path("new") + ":moved_to 103");
    EXPECT_EQ(0, watch.process.interrupt()) << watch.process.errors();
    EXPECT_EQ("", watch.process.errors());
}

TEST_F(System, NamesAProcessThatLives)
{
    SystemWatch watch(launch("create"));
    happens("Kc", "made", static_cast<uint32_t>(getpid()));
    auto event = watch.next();
    ASSERT_TRUE(event);
    EXPECT_EQ((*event)["process"].value("exe", ""), fs::read_symlink("/proc/self/exe").string()) << *event;
    EXPECT_EQ((*event)["process"].value("ppid", 0), getppid());
    EXPECT_EQ(0, watch.process.interrupt());
}

TEST_F(System, ReleasesOfEveryShapeAreHandedOnAsTheMonitorTakesThem)
{
    for (const std::string kernel :
         {"6.12.107+deb13-cloud-amd64", "6.11.5-arch1-1", "6.6.58", "5.15.167.4-microsoft-standard"}) {
        SCOPED_TRACE(kernel);
        Process doctor(installation.launch_on(kernel, {"doctor"}));
        std::string said;
        while (auto line = doctor.line())
            said += line->find(" release ") == std::string::npos ? "" : *line;
        EXPECT_NE(said.find(kernel + " on "), std::string::npos) << said;
        EXPECT_NE(said.find(", which the monitor is handed as " + kernel.substr(0, 4)), std::string::npos) << said;
        SystemWatch watch(installation.launch_on(kernel, command("create")));
        happens("Kc", "made", 101);
        EXPECT_EQ(watch.event(), path("made") + ":create 101");
        EXPECT_EQ(0, watch.process.interrupt());
    }
}

TEST_F(System, SwitchesOnWhatIsAskedForOnly)
{
    SystemWatch watch(launch("delete,create"));
    EXPECT_EQ((std::vector<std::string>{"event_enable 49 Ku", "event_enable 49 Kc"}), probes.calls("event_enable"));
    for (const char *event : {"Km", "Krf", "Krt", "Kl"}) /* of links nothing is ever shown */
        happens(event, "unseen", 101);
    happens("Kc", "seen", 101);
    EXPECT_EQ(watch.event(), path("seen") + ":create 101");
    EXPECT_EQ(0, watch.process.interrupt());
}

TEST_F(System, AnUnknownMountIsShownFromTheRoot)
{
    mount = {};
    SystemWatch watch(launch("create"));
    happens("Kc", "made", 101);
    EXPECT_EQ("/some/directory/made:create 101", watch.event());
    EXPECT_EQ(0, watch.process.interrupt());
}

TEST_F(System, NamesOfEveryKindArriveWhole)
{
    SystemWatch watch(launch("create"));
    for (const char *name : {"a\nb", "\033[31m", "\"quoted\"", "per%n cent", "*"}) {
        happens("Kc", name, 101);
        EXPECT_EQ(watch.event(), path(name) + ":create 101");
    }
    happens("Kc", "\xff\xfe", 101);
    auto event = watch.next();
    ASSERT_TRUE(event);
    EXPECT_TRUE(event->contains("path_bytes")) << *event;
    happens("Kc", std::string(80, 'l'), 101); /* more than is fetched: the rest is a pattern */
    EXPECT_EQ(watch.event(), path(std::string(62, 'l')) + "*:create 101");
    EXPECT_EQ(0, watch.process.interrupt());
}

TEST_F(System, RecordsWithoutAPathAreLeftOut)
{
    SystemWatch watch(launch("create"));
    const std::vector<std::string> deep = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"};
    probes.put("Kc", 101, file_probe_record(mount.id, deep, "too-deep"));
    probes.put("Kc", 101, file_probe_record(mount.id, {"/", std::string(40, 'd')}, "long-folder"));
    probes.put("Kc", 101, "short");
    probes.put("Kc", 101, "");
    happens("Kc", "good", 101);
    EXPECT_EQ(watch.event(), path("good") + ":create 101");
    EXPECT_EQ(0, watch.process.interrupt());
}

/* More than a FIFO holds and than one pass takes. */
TEST_F(System, ABurstArrivesWhole)
{
    constexpr int kMany = 2000;
    SystemWatch watch(launch("create"));
    Child writer([this] {
        for (int i = 0; i < kMany; i++)
            happens("Kc", "f" + std::to_string(i), 101);
    });
    for (int i = 0; i < kMany; i++)
        ASSERT_EQ(watch.event(), path("f" + std::to_string(i)) + ":create 101");
    EXPECT_EQ(0, watch.process.interrupt());
}

/* ---- close_write: from the marks on all mounts where these can be had, else from its probe ---- */

TEST_F(System, CloseWriteComesFromTheMountsAsRoot)
{
    NEED(testlib::can_fanotify(), "fanotify needs root");
    TempTree tree;
    if (!is_on_known_mount(tree.root()))
        GTEST_SKIP() << tree.root() << " is not on a device that is mounted as a whole";
    SystemWatch watch(launch("create,close_write"));
    EXPECT_FALSE(probes.called("event_enable 49 Km")) << "some mount could not be marked: " << watch.process.errors();
    happens("Km", "unseen", 101);
    happens("Kc", "made", 101);
    make_file(tree.path("written"));
    const std::string made = path("made") + ":create 101";
    const std::string written = tree.path("written") + ":close_write " + std::to_string(getpid());
    std::set<std::string> seen; /* the whole machine's, so others' as well */
    for (int64_t end = now_ms() + kPatienceMs; now_ms() < end && !(seen.count(made) && seen.count(written));)
        seen.insert(watch.event());
    EXPECT_TRUE(seen.count(made) && seen.count(written)) << watch.process.errors();
    EXPECT_FALSE(seen.count(path("unseen") + ":close_write 101"));
    EXPECT_EQ(0, watch.process.interrupt());
}

TEST_F(System, CloseWriteComesFromItsProbeWithoutFanotify)
{
    NEED(!testlib::is_root() || access("/usr/bin/setpriv", X_OK) == 0, "no setpriv");
    SystemWatch watch(without_fanotify(launch("close_write")));
    EXPECT_TRUE(probes.called("event_enable 49 Km"));
    happens("Km", "written", 101);
    EXPECT_EQ(watch.event(), path("written") + ":close_write 101");
    EXPECT_EQ(0, watch.process.interrupt());
}

TEST_F(System, OtherKindsNeedNoFanotify)
{
    NEED(!testlib::is_root() || access("/usr/bin/setpriv", X_OK) == 0, "no setpriv");
    SystemWatch watch(without_fanotify(launch("create")));
    happens("Kc", "made", 101);
    EXPECT_EQ(watch.event(), path("made") + ":create 101");
    EXPECT_EQ(0, watch.process.interrupt());
}

/* ---- a watched directory beside the probes: the kernel's deliveries come through the library ---- */

TEST_F(System, AWatchedDirectorysEventsNameTheirProcess)
{
    TempTree tree;
    Process watch(installation.launch({"watch", "-e", "create", "--format", "json", tree.root()}));
    auto first = watch.line();
    ASSERT_TRUE(first) << watch.errors();
    EXPECT_EQ("established", Json::parse(*first)["type"]);
    struct stat st = {};
    ASSERT_EQ(0, lstat(tree.root().c_str(), &st));
    probes.put("Ki", 101, testlib::inotify_probe_record(st.st_ino, 1, 0x100, "made"));
    auto line = watch.line();
    ASSERT_TRUE(line) << watch.errors();
    const Json event = Json::parse(*line);
    EXPECT_EQ(event["path"], tree.path("made"));
    EXPECT_EQ(101, event["pid"]);
    EXPECT_EQ(0, watch.interrupt());
}

/* ---- the monitor's state ---- */

TEST_F(System, AScriptedEventIsSeenInTheDump)
{
    SystemWatch watch(launch("create"));
    std::string text;
    for (int seconds = 1; seconds <= 16 && text.find("held") == std::string::npos; seconds *= 2) {
        Process dump(installation.launch(
            {"dump", "-t", "events", "--hold", std::to_string(seconds), std::to_string(watch.process.pid())}));
        pause_ms(seconds * 400);
        happens("Kc", "held" + std::to_string(seconds), 101);
        while (auto line = dump.line(2 * kPatienceMs))
            text += *line + "\n";
        EXPECT_EQ(0, dump.wait()) << dump.errors();
        EXPECT_EQ(watch.event(), path("held" + std::to_string(seconds)) + ":create 101");
    }
    EXPECT_NE(text.find(path("held")), std::string::npos) << text;
    EXPECT_NE(text.find("create pid 101, ref 1, pending 0"), std::string::npos) << text;
    EXPECT_EQ(0, watch.process.interrupt());
}

/* ---- what cannot be had is said in one line ---- */

void expect_refused(const Launch &launch, const std::string &reason)
{
    SCOPED_TRACE(reason);
    Process process(launch);
    EXPECT_EQ(std::nullopt, process.line());
    EXPECT_EQ(2, process.wait());
    const std::string errors = process.errors();
    EXPECT_NE(errors.find(reason), std::string::npos) << errors;
    EXPECT_EQ(1, std::count(errors.begin(), errors.end(), '\n')) << errors;
}

TEST_F(System, WithoutTheLibrary)
{
    expect_refused(Installation("library").launch(probes_only("create")), std::string(kProbeLibrary) + " is not there");
}

TEST_F(System, WithALibraryThatLacksSomething)
{
    for (const char *symbol : {"_kp_ins_crt", "_os_info_get", "_kp_evt_reg", "kp_event_parse", "_kp_event_enable",
                               "_kp_event_filter", "_cache_clean"})
        expect_refused(Installation(symbol).launch(probes_only("create")), symbol);
}

TEST_F(System, OnAKernelWithAnotherFormOfRelease)
{
    expect_refused(installation.launch(probes_only("create"), "5.4.0"), "'5.4.0' is not understood");
}

/* The command has values of its own; the structure offsets are then the default ones. */
TEST_F(System, WithoutTheConfigurationItStillWorks)
{
    fs::remove(installation.config());
    SystemWatch watch(launch("create"));
    EXPECT_EQ(sizeof(void *) == 8, probes.calls("evt_reg Kc security_inode_create 0 p \"mnt=+172(+192(").size());
    happens("Kc", "made", 101);
    EXPECT_EQ(watch.event(), path("made") + ":create 101");
    EXPECT_EQ(0, watch.process.interrupt());
}

TEST_F(System, WhenTheLibraryRefuses)
{
    for (const char *words : {"fail _kp_ins_crt clt_file", "fail _kp_evt_reg Kc", "fail _kp_evt_reg Kl",
                              "fail _os_info_get", "null os_info"}) {
        probes.behave(words);
        expect_refused(installation.launch(probes_only("create")), "--system needs the kernel-probe library: ");
    }
}

TEST_F(System, ALibraryThatStopsAnsweringEndsNothing)
{
    SystemWatch watch(launch("create"));
    probes.behave("fail kp_event_parse");
    happens("Kc", "late", 101);
    EXPECT_EQ(std::nullopt, watch.next(1000));
    probes.behave("");
    EXPECT_EQ(watch.event(), path("late") + ":create 101");
    EXPECT_EQ(0, watch.process.interrupt());
}

}  // namespace
