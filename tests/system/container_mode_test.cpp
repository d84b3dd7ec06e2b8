/*
 * The monitor in a container that sees its host's files below /rootfs.
 *
 * The test is the container: it moves into a mount namespace of its own whose root is a new, empty file system, with
 * the machine's root bound to /rootfs and the machine's directories bound to their ordinary names, so that programs and
 * temporary trees are found under one path inside and outside. "On the host" is the namespace that it came from. The
 * machine itself is not changed, and the last process of the namespace takes everything along.
 *
 * What happens on the host is reported twice: by the directory's inotify watch, under its path below /rootfs and
 * without a container, and by fanotify, under the host's own path and with the container that the mount belongs to.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "harness.h"
#include "orx_fmon.h"

using namespace systest;
using testlib::can_fanotify;
using testlib::can_mount;
using testlib::TempTree;
namespace fs = std::filesystem;

namespace
{

constexpr int kSilenceMs = 500;

int host_namespace = -1;
bool in_container;

/* Mounts over a directory of the machine that this test has nothing in. */
std::string place_for_root()
{
    const std::string used[] = {fs::temp_directory_path().string() + "/", FMON_TEST_BIN "/",
                                FMON_TEST_CONTAINER_DOUBLES "/", FMON_TEST_AGENT};
    for (const std::string place : {"/mnt", "/media", "/srv", "/opt"})
        if (fs::is_directory(place) && std::none_of(std::begin(used), std::end(used), [&](const std::string &path) {
                return path.starts_with(place + "/");
            }))
            return place;
    return "";
}

bool bind_tree(const std::string &from, const std::string &to)
{
    return mkdir(to.c_str(), 0755) == 0 && mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

/* The machine's top-level directories and links under their names, but for the one that the new root covers. */
bool bind_directories(const std::string &root)
{
    for (const fs::directory_entry &entry : fs::directory_iterator("/")) {
        const std::string name = entry.path().string();
        if (entry.is_symlink())
            fs::copy_symlink(entry.path(), root + name);
        else if (entry.is_directory() && name != root && name != "/rootfs" && !bind_tree(name, root + name))
            return false;
    }
    return true;
}

/* The step that failed, empty when all is well. */
std::string enter_container()
{
    const std::string root = place_for_root();
    host_namespace = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    if (root.empty() || host_namespace < 0 || unshare(CLONE_NEWNS) != 0)
        return "a namespace";
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("container", root.c_str(), "tmpfs", 0, nullptr) != 0)
        return "a root";
    if (!bind_tree("/", root + "/rootfs"))
        return "/rootfs";
    if (!bind_directories(root))
        return "the machine's directories";
    return chroot(root.c_str()) == 0 && chdir("/") == 0 ? "" : "chroot";
}

/* The number of the mount that a path is on, as seen from the namespace of the caller. */
std::string mount_id(const std::string &path)
{
    struct statx facts = {};
    EXPECT_EQ(0, statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &facts)) << path;
    return std::to_string(facts.stx_mnt_id);
}

/* Does something in the host's namespace, in a process that lives as long as the object. */
class OnHost : public Child
{
public:
    explicit OnHost(const std::function<void()> &body)
        : Child([&] {
              ASSERT_EQ(0, unshare(CLONE_FS)); /* a sanitizer's thread shares it, which setns does not take */
              ASSERT_EQ(0, setns(host_namespace, CLONE_NEWNS)) << strerror(errno);
              body();
          })
    {
    }
};

/* "create,open /path container"; the container is "-" where the event has none. */
std::string text_of(const Json &event)
{
    std::string kinds;
    for (const std::string kind : event["events"])
        kinds += (kinds.empty() ? "" : ",") + kind;
    return kinds + " " + event["path"].text() + " " + event.value("container", "-");
}

/* An installation of the test's own, with the container library's double in it. */
class ContainerMode : public ::testing::Test
{
protected:
    void SetUp() override
    {
        NEED(can_mount() && can_fanotify(), "a mount namespace and fanotify need root");
        if (!in_container) {
            const std::string failed = enter_container();
            ASSERT_EQ("", failed) << strerror(errno);
            in_container = true;
        }
        home.dir("bin");
        home.dir("double");
        home.dir("var/log/agent/fmon");
        for (const char *library : {"libfmon.so", "liborx_base.so", "libhulbase.so"})
            home.link(std::string("lib/") + library, std::string(FMON_TEST_LIB) + "/" + library);
        home.link("config", FMON_TEST_BIN "/../config");
        data = tree.dir("data");
        seen = "/rootfs" + data;
        OnHost host([&] { home.file("host-mount", mount_id(data)); });
        std::ifstream(home.path("host-mount")) >> host_mount;
    }

    void install(const std::string &variant)
    {
        home.link("lib/liborx_sensitive_dir.6.so",
                  FMON_TEST_CONTAINER_DOUBLES "/" + variant + "/lib/liborx_sensitive_dir.6.so");
    }
    void answer(const std::string &rows) { home.file("double/answers", rows); }
    std::string calls() const
    {
        std::ifstream in(home.path("double/calls"));
        return {std::istreambuf_iterator<char>(in), {}};
    }

    Launch launch(std::vector<std::string> argv) const
    {
        return {
            std::move(argv),
            false,
            {"FMON_HOME=" + home.root(), "FMON_AGENT_TYPE=container", "FMON_CONTAINER_DOUBLE=" + home.path("double")}};
    }
    Launch watch_command(const std::vector<std::string> &arguments) const
    {
        std::vector<std::string> argv = {FMON_TEST_BIN "/fmon", "watch", "--format", "json"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return launch(std::move(argv));
    }

    TempTree home, tree;
    std::string data;       /* a directory of the host's */
    std::string seen;       /* as the container sees it */
    std::string host_mount; /* the number of the mount that it is on, on the host */
};

/* `fmon watch` in the container. */
class ContainerWatch
{
public:
    explicit ContainerWatch(const Launch &launch) : process_(launch)
    {
        const auto first = next(kPatienceMs);
        EXPECT_TRUE(first && (*first)["type"] == "established") << (first ? first->dump() : process_.errors());
    }
    ~ContainerWatch() { EXPECT_EQ(0, process_.interrupt()) << process_.errors(); }

    std::optional<Json> next(int ms)
    {
        const auto line = process_.line(ms);
        return line ? std::optional<Json>(Json::parse(*line)) : std::nullopt;
    }
    /* Reads until all of `want` have been reported; the events in their order. */
    std::vector<Json> until(const std::set<std::string> &want)
    {
        std::vector<Json> events;
        for (std::set<std::string> missing = want; !missing.empty();) {
            const auto event = next(kPatienceMs);
            if (!event) {
                ADD_FAILURE() << testing::PrintToString(missing) << " not reported, but "
                              << testing::PrintToString(events) << process_.errors();
                break;
            }
            events.push_back(*event);
            missing.erase(text_of(*event));
        }
        return events;
    }
    /* The same, and nothing else is reported. */
    void expect(const std::set<std::string> &want)
    {
        std::set<std::string> have;
        for (const Json &event : until(want))
            have.insert(text_of(event));
        while (const auto event = next(kSilenceMs))
            have.insert(text_of(*event));
        EXPECT_EQ(want, have);
    }
    Process &process() { return process_; }

private:
    Process process_;
};

/* The agent's line on such an event; empty when there is none. */
std::string delivery_of(Process &agent, const std::string &path, uint32_t kind)
{
    for (auto line = agent.line(); line; line = agent.line()) {
        const auto delivery = parse_delivery(*line);
        if (delivery && delivery->path == path && delivery->mask & kind)
            return *line;
    }
    return "";
}

/* ---- trees below /rootfs ---- */

TEST_F(ContainerMode, TheHostsTreeIsWatchedBelowRootfs)
{
    install("whole");
    ContainerWatch watch(watch_command({"-r", "-e", "create,close_write", seen}));
    OnHost writer([&] { make_file(data + "/f"); });
    const auto events = watch.until({"create " + seen + "/f -", "close_write " + data + "/f host"});
    EXPECT_EQ(2U, events.size()) << testing::PrintToString(events);
    for (const Json &event : events)
        EXPECT_EQ(event["pid"], event.contains("container") ? writer.pid() : 0) << event;
    EXPECT_EQ(calls(), "mount " + host_mount + "\n");
}

TEST_F(ContainerMode, NewDirectoriesAreFollowed)
{
    install("whole");
    ContainerWatch watch(watch_command({"-r", "-e", "create,delete,moved_to", seen}));
    OnHost([&] { make_dir(data + "/new"); });
    watch.expect({"create " + seen + "/new -"});
    OnHost([&] {
        make_file(data + "/new/f");
        move(data + "/new", data + "/moved");
    });
    watch.expect({"create " + seen + "/new/f -", "moved_to " + seen + "/moved -"});
    OnHost([&] { remove_file(data + "/moved/f"); });
    watch.expect({"delete " + seen + "/moved/f -"});
}

/* The directory's own path and the event's, which is the host's, have nothing in common: only what inotify tells
 * reaches a watch that is not recursive. Kept. */
TEST_F(ContainerMode, APlainDirectoryHearsOfNamesOnly)
{
    install("whole");
    ContainerWatch watch(watch_command({"-e", "create,close_write", seen}));
    OnHost([&] { make_file(data + "/f"); });
    watch.expect({"create " + seen + "/f -"});
}

TEST_F(ContainerMode, APathIsWaitedFor)
{
    install("whole");
    ContainerWatch watch(watch_command({"-r", "--wait", "-e", "create", seen + "/later"}));
    OnHost([&] { make_dir(data + "/later"); });
    const std::optional<Json> appeared = watch.next(kPatienceMs);
    ASSERT_TRUE(appeared) << watch.process().errors();
    EXPECT_EQ("appeared", (*appeared)["type"]);
    EXPECT_EQ((*appeared)["path"], seen + "/later");
    std::optional<Json> event;
    for (int round = 0; round < 50 && !event; round++) {
        OnHost([&] { make_file(data + "/later/f" + std::to_string(round)); });
        event = watch.next(200);
    }
    ASSERT_TRUE(event) << watch.process().errors();
    EXPECT_TRUE((*event)["path"].text().starts_with(seen + "/later/f")) << *event;
}

/* ---- and elsewhere ---- */

TEST_F(ContainerMode, OtherPathsAreAcceptedAndSilent)
{
    install("whole");
    const std::string other = tree.dir("other");
    ContainerWatch watch(watch_command({"-r", "-e", "create,close_write", other, seen}));
    make_file(other + "/inside");
    OnHost([&] {
        make_file(other + "/outside");
        make_file(data + "/f");
    });
    watch.expect({"create " + seen + "/f -", "close_write " + data + "/f host"});
    EXPECT_NE(watch.process().errors().find(other), std::string::npos) << "its silence is not said";
}

/* Seven bytes decide, not a whole component. */
TEST_F(ContainerMode, TheNameBelowTheRootOnlyBeginsWithRootfs)
{
    install("whole");
    make_dir("/rootfs-like");
    {
        ContainerWatch watch(watch_command({"-e", "create", "/rootfs-like"}));
        make_file("/rootfs-like/f");
        watch.expect({"create /rootfs-like/f -"});
    } /* before what it watches goes */
    fs::remove_all("/rootfs-like");
}

/* ---- containers beside this one ---- */

/* What happens in another container belongs to a watch on its process's root, not to the one below /rootfs. */
TEST_F(ContainerMode, AnotherContainersFilesAreNotTheHosts)
{
    install("whole");
    answer("mount " + host_mount + " 1 web\n");
    ContainerWatch watch(watch_command({"-r", "-e", "create,close_write", seen}));
    OnHost([&] { make_file(data + "/f"); });
    watch.expect({"create " + seen + "/f -"});
    EXPECT_EQ(calls(), "mount " + host_mount + "\n");
}

TEST_F(ContainerMode, AWatchOnAnotherContainersRootIsToldItsName)
{
    install("whole");
    OnHost first_process([] {});
    const std::string pid = std::to_string(first_process.pid());
    answer("mount " + host_mount + " " + pid + " web shop\n");
    Process agent(launch({FMON_TEST_AGENT, "-c", home.path("lib"), "/proc/" + pid + "/root" + data}));
    for (auto line = agent.line(); line && *line != "ready";)
        line = agent.line();
    {
        OnHost writer([&] { make_file(data + "/f"); });
        const auto told = delivery_of(agent, data + "/f", FMON_CLOSE_WRITE);
        EXPECT_TRUE(told.ends_with(" web shop")) << told << agent.errors();
        EXPECT_EQ(parse_delivery(told).value_or(Delivery()).pid, static_cast<unsigned>(writer.pid()));
    }
    agent.close_input();
    EXPECT_EQ(0, agent.wait());
}

/* The command takes such a path as it is, too: its link would lead to the container's own directory of that name. */
TEST_F(ContainerMode, TheCommandWatchesAnotherContainersRoot)
{
    install("whole");
    OnHost first_process([] {});
    const std::string pid = std::to_string(first_process.pid());
    answer("mount " + host_mount + " " + pid + " web shop\n");
    ContainerWatch watch(watch_command({"-r", "-e", "create,close_write", "/proc/" + pid + "/root" + data}));
    OnHost writer([&] { make_file(data + "/f"); });
    watch.expect({"close_write " + data + "/f web shop"});
    EXPECT_EQ(watch.process().errors().find("stays silent"), std::string::npos) << watch.process().errors();
}

/* A watch on the whole of "/" hears of every container. */
TEST_F(ContainerMode, AMountWatchTellsTheContainer)
{
    install("whole");
    const std::string name = "a \"quoted\" name\twith \xc3\xa4";
    answer("mount " + mount_id("/") + " " + std::to_string(getpid()) + " " + name + "\n");
    ContainerWatch watch(watch_command({"--mount", "-e", "close_write", "/"}));
    OnHost([&] { make_file(data + "/elsewhere"); });
    make_file("/f");
    watch.expect({"close_write /f " + name});
    remove_file("/f");
}

TEST_F(ContainerMode, AMountThatIsNobodysIsTheHosts)
{
    install("whole");
    answer("mount " + mount_id("/") + "0 1 web\n");
    ContainerWatch watch(watch_command({"--mount", "-e", "close_write", "/"}));
    make_file("/f");
    watch.expect({"close_write /f host"});
    remove_file("/f");
}

/* ---- with the real library, and without any ---- */

TEST_F(ContainerMode, TheRealLibraryKnowsTheHostsMounts)
{
    home.link("lib/liborx_sensitive_dir.6.so", FMON_TEST_LIB "/liborx_sensitive_dir.6.so");
    ContainerWatch watch(watch_command({"-r", "-e", "create,close_write", seen}));
    OnHost([&] { make_file(data + "/f"); });
    watch.expect({"create " + seen + "/f -", "close_write " + data + "/f host"});
}

TEST_F(ContainerMode, WithoutTheLibraryEverythingIsTheHosts)
{
    ContainerWatch watch(watch_command({"-r", "-e", "create,close_write", seen}));
    OnHost([&] { make_file(data + "/f"); });
    watch.expect({"create " + seen + "/f -", "close_write " + data + "/f host"});
}

TEST_F(ContainerMode, WithoutItsMountEntryEverythingIsTheHosts)
{
    install("without_orx_get_container_mount");
    answer("mount " + host_mount + " 1 web\n");
    ContainerWatch watch(watch_command({"-r", "-e", "create,close_write", seen}));
    OnHost([&] { make_file(data + "/f"); });
    watch.expect({"create " + seen + "/f -", "close_write " + data + "/f host"});
    EXPECT_EQ("", calls());
}

/* Told that it is on a host, the same installation watches where it is and names no container. */
TEST_F(ContainerMode, OnAHostNoContainerIsNamed)
{
    install("whole");
    answer("mount " + mount_id(data) + " 1 web\n");
    Launch command = watch_command({"-r", "-e", "create,close_write", data});
    command.env.push_back("FMON_AGENT_TYPE=host");
    ContainerWatch watch(command);
    make_file(data + "/f");
    watch.expect({"create " + data + "/f -", "close_write " + data + "/f -"});
    EXPECT_EQ("", calls());
}

}  // namespace
