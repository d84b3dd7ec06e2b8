/* The container library on real containers, and on control groups that are made by hand. */
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "harness.h"
#include "real_container.h"

using namespace systest;
using testlib::TempTree;
namespace fs = std::filesystem;

namespace
{

using Tellings = std::set<std::pair<std::string, std::string>>; /* path, "ID PID" */

std::string telling(const Json &event)
{
    return event.value("container", "-") + " " + std::to_string(event["pid"].number());
}

/* What the next events say. */
Tellings tellings(Process &watch, size_t count)
{
    Tellings seen;
    while (seen.size() < count) {
        const auto line = watch.line();
        if (!line)
            break;
        const Json event = Json::parse(*line);
        if (event["type"] == "event")
            seen.emplace(event["path"], telling(event));
    }
    return seen;
}

Tellings tellings(Watch &watch, size_t count)
{
    Tellings seen;
    while (seen.size() < count) {
        const auto event = watch.next();
        if (!event)
            break;
        seen.emplace((*event)["path"], telling(*event));
    }
    return seen;
}

TEST(Containers, EventsNameTheirContainerAndProcess)
{
    NEED(can_contain() && testlib::can_fanotify(), "containers need root and runc");
    TempTree tree;
    const Container one(tree), two(tree);
    Process watch({{FMON_TEST_BIN "/fmon", "watch", "--mount", "--format", "json", "-e", "close_write",
                    one.seen("/data"), two.seen("/data")},
                   false,
                   {"FMON_AGENT_TYPE=container"}});
    const auto first = watch.line();
    ASSERT_TRUE(first && Json::parse(*first)["type"] == "established") << watch.errors();
    one.write("a");
    two.write("b");
    EXPECT_EQ((Tellings{{"/data/a", one.owner()}, {"/data/b", two.owner()}}), tellings(watch, 2)) << watch.errors();
    EXPECT_EQ(0, watch.interrupt());
}

TEST(Containers, ReusedMountIdsBelongToWhoHasThemNow)
{
    NEED(can_contain(), "containers need root and runc");
    const Library library;
    TempTree tree;
    std::set<std::string> used;
    std::string last;
    bool reused = false;
    for (int round = 0; round < 3; round++) {
        const Container container(tree);
        for (const std::string &mount : mounts_of(container.pid())) {
            EXPECT_EQ(library.until_owner(mount, container.owner()), container.owner()) << mount;
            reused = !used.insert(mount).second || reused;
        }
        EXPECT_EQ(library.init_pid(container.id()), container.pid());
        last = mounts_of(container.pid()).front();
    }
    EXPECT_TRUE(reused) << "no number came twice: nothing was shown";
    const int64_t end = now_ms() + kPatienceMs;
    while (library.owner(last) != "host" && now_ms() < end)
        pause_ms(20);
    EXPECT_EQ("host", library.owner(last)) << "after the last one's end";
}

/* In a namespace of its own, where /proc is what `cover` makes of it. */
class Elsewhere : public Child
{
public:
    explicit Elsewhere(const std::function<void()> &cover)
        : Child([&] {
              EXPECT_EQ(0, unshare(CLONE_NEWNS));
              EXPECT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
              const std::string mount = mounts_of(getpid()).front();
              const Library library;
              cover();
              for (const std::string &asked : {mount, std::string("2147483647")}) {
                  const int64_t begin = now_ms();
                  EXPECT_EQ("host", library.owner(asked));
                  EXPECT_LT(now_ms() - begin, 1000);
              }
          })
    {
    }
};

TEST(Containers, WithoutProcEverythingIsTheHosts)
{
    NEED(testlib::can_mount(), "a mount namespace needs root");
    Elsewhere([] { EXPECT_EQ(0, mount("none", "/proc", "tmpfs", 0, nullptr)); });
}

TEST(Containers, WithHiddenProcessesEverythingIsTheHosts)
{
    NEED(testlib::can_mount(), "a mount namespace needs root");
    Elsewhere([] {
        EXPECT_EQ(0, mount("proc", "/proc", "proc", 0, "hidepid=2")) << strerror(errno);
        EXPECT_EQ(0, setgroups(0, nullptr) + setgid(65534) + setuid(65534)); /* root's group sees everything */
        EXPECT_NE(0, access("/proc/1", F_OK)) << "nothing is hidden";
    });
}

/* What it costs is a benchmark's; here nothing gets lost, and nobody waits for long on a machine that has other work.
 */
TEST(Containers, EventsArriveWhileProcessesComeAndGo)
{
    NEED(can_contain() && testlib::can_fanotify(), "containers need root and runc");
    const Library library;
    TempTree tree;
    const Container container(tree);
    Process watch(
        {{FMON_TEST_BIN "/fmon", "watch", "--mount", "--format", "json", "-e", "close_write", container.seen("/data")},
         false,
         {"FMON_AGENT_TYPE=container"}});
    ASSERT_TRUE(watch.line()) << watch.errors();
    Tellings expected;
    int64_t longest = 0;
    constexpr int kRuns = -1; /* what wait() says of a process that still runs */
    Process churn({{FMON_TEST_CHURN}});
    int churned;
    for (int i = 0; (churned = churn.wait(0)) == kRuns; i++) {
        if (i % 10 == 0) {
            container.write(std::to_string(i));
            expected.emplace("/data/" + std::to_string(i), container.owner());
        }
        const int64_t begin = now_ms();
        EXPECT_EQ("host", library.owner(std::to_string(1'000'000'000 + i)));
        longest = std::max(longest, now_ms() - begin);
        pause_ms(5);
    }
    EXPECT_EQ(0, churned);
    EXPECT_GT(expected.size(), 10u);
    EXPECT_LT(longest, 1000);
    EXPECT_EQ(expected, tellings(watch, expected.size())) << watch.errors();
    EXPECT_EQ(0, watch.interrupt());
    RecordProperty("longest_ms", static_cast<int>(longest));
}

/* Groups below a hierarchy's root, removed at the end. */
class Group
{
public:
    Group(const std::string &root, const std::string &path) : root_(root), path_(root + path)
    {
        fs::create_directories(path_);
    }
    ~Group()
    {
        for (fs::path path = path_; path != root_ && rmdir(path.c_str()) == 0;)
            path = path.parent_path();
    }
    Group(const Group &) = delete;
    Group &operator=(const Group &) = delete;
    void enter() const { std::ofstream(path_ + "/cgroup.procs") << getpid() << std::flush; }

private:
    const std::string root_, path_;
};

/* Hierarchies of this machine, of both versions. */
std::vector<std::string> hierarchies()
{
    std::vector<std::string> roots;
    for (const char *root : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified", "/sys/fs/cgroup/systemd"})
        if (access((std::string(root) + "/cgroup.procs").c_str(), W_OK) == 0)
            roots.push_back(root);
    return roots;
}

/* A process in a group of that path, in a mount namespace of its own where `apart`, that has made a file. */
class Inhabitant
{
public:
    Inhabitant(const std::string &root, const std::string &path, bool apart, const std::string &file)
        : group_(root, path), child_([&] {
              group_.enter();
              EXPECT_EQ(0, unshare(apart ? CLONE_NEWNS : 0));
              make_file(file);
          })
    {
    }
    int pid() const { return child_.pid(); }

private:
    Group group_;
    Child child_;
};

TEST(Containers, EveryNamingSchemeIsTold)
{
    NEED(testlib::can_mount() && testlib::can_fanotify() && !hierarchies().empty(), "control groups need root");
    const Library library;
    TempTree tree;
    Watch watch(tree.root(), {"-e", "close_write"});
    watch.established();
    Tellings expected;
    std::vector<std::pair<std::string, std::unique_ptr<Inhabitant>>> all;
    for (const std::string &root : hierarchies())
        for (std::string path : {"/docker/%", "/fmon.slice/docker-%.scope", "/fmon.slice/cri-containerd-%.scope",
                                 "/kubepods/podx/%", "/fmon.slice/crio-%.scope", "/fmon.slice/libpod-%.scope/container",
                                 "/libpod_parent/libpod-%", "/default/%", "/fmon.slice:cri-containerd:%"}) {
            const std::string id = fresh_id(), file = tree.path(id);
            path.replace(path.find('%'), 1, id);
            all.emplace_back(root + path, std::make_unique<Inhabitant>(root, path, true, file));
            expected.emplace(file, id + " " + std::to_string(all.back().second->pid()));
        }
    EXPECT_EQ(expected, tellings(watch, expected.size()));
    for (const auto &[path, inhabitant] : all) {
        const std::string mount = mounts_of(inhabitant->pid()).front(), owner = library.until_owner(mount, "");
        EXPECT_EQ(1u, expected.count({tree.path(owner.substr(0, 64)), owner})) << path << " is " << owner;
        EXPECT_EQ(owner.substr(std::min<size_t>(owner.size(), 65)), std::to_string(inhabitant->pid())) << path;
    }
    EXPECT_EQ(0, watch.stop());
}

/* The host's mount of a container's files. Whoever uses it is told with his container; what happens through the copies
 * of it that mount namespaces have is theirs, as the kernel has it. */
TEST(Containers, TheHostsMountOfAnOverlayTellsWhoUsedIt)
{
    NEED(testlib::can_mount() && testlib::can_fanotify() && !hierarchies().empty(), "control groups need root");
    TempTree tree;
    const std::string lower = tree.dir("lower"), upper = tree.dir("upper"), work = tree.dir("work");
    const std::string merged = tree.dir("merged");
    const std::string options = "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + work;
    ASSERT_EQ(0, mount(upper.c_str(), merged.c_str(), "overlay", 0, options.c_str())) << strerror(errno);
    {
        Watch watch(merged, {"--mount", "-e", "close_write"});
        watch.established();
        const std::string root = hierarchies().front(), id = fresh_id(), path = "/fmon.slice/docker-" + id + ".scope";
        const Inhabitant elsewhere(root, path + "/elsewhere", true, merged + "/apart");
        const Inhabitant here(root, path + "/here", false, merged + "/inside");
        EXPECT_EQ((Tellings{{merged + "/inside", id + " " + std::to_string(here.pid())}}), tellings(watch, 1));
        EXPECT_TRUE(fs::exists(upper + "/apart"));
        EXPECT_EQ(0, watch.stop());
    }
    umount2(merged.c_str(), MNT_DETACH);
}

}  // namespace
