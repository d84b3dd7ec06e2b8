/* Paths that end, come and come again, below a session whose monitor is made up; the files are real, the clock is not.
 */
#include "agent/watched_paths.h"

#include <set>
#include <thread>

#include "unit/agent/agent_testing.h"
#include "unit/agent/session_fakes.h"

using namespace agent;
using namespace session_fakes;
using agent_testing::Directory;

namespace
{

/* The watches that the monitor has, and whether it takes more. */
struct {
    std::set<std::string> watches;
    Lines taken_back;
    int code = 0;
    int instances = 0;
    fmon_mark_cb on_mark = nullptr;
    std::set<std::string> served;  /* by marks of file systems, where the watch is of a directory without a limit */
    struct fmon_fs_status fs = {}; /* what the status says of them */
    std::vector<uint32_t> flags;   /* of each watch that was asked for */
    uint64_t inotify_watches = 0;  /* in the status */
    uint32_t depth = 0;            /* of the last watch */
    Lines looked_at;               /* after a loss */
    std::set<std::string> newly;   /* those of them that were not marked */
} g_module;

/* What a watch of these flags meets; false: marks on directories. */
bool serve(const std::string &path, uint32_t flags, uint32_t depth)
{
    if ((flags & FMON_DIR) && depth == 0 && g_module.served.count(path)) {
        g_module.fs.watches++;
        return true;
    }
    g_module.fs.fallbacks++;
    g_module.fs.last_fallback.reason = (flags & FMON_DIR) && depth == 0 ? FMON_FALLBACK_MARK : FMON_FALLBACK_KIND;
    g_module.fs.last_fallback.error = EOPNOTSUPP;
    snprintf(g_module.fs.last_fallback.path, sizeof g_module.fs.last_fallback.path, "%s", path.c_str());
    return false;
}

int make_instance(const char *, fmon_client_cb) { return g_module.instances++; }

int add_watch(uint32_t, const char *path, uint32_t mask, uint32_t flags, uint32_t depth, uint32_t)
{
    g_module.flags.push_back(flags);
    g_module.depth = depth;
    const bool served = serve(path, flags, depth);
    if (!served && (flags & FMON_PID) && (mask & FMON_CREATE))
        return FMON_ENOTSUP;
    if (g_module.code == 0)
        g_module.watches.insert(path);
    return g_module.code;
}

int del_watch(uint32_t, const char *path)
{
    g_module.watches.erase(path);
    g_module.taken_back.push_back(path);
    return 0;
}

int resync(const char *path, uint32_t)
{
    g_module.looked_at.push_back(path);
    return static_cast<int>(g_module.newly.erase(path));
}

int on_mark(fmon_mark_cb cb)
{
    g_module.on_mark = cb;
    return 0;
}

int status(struct fmon_status *out)
{
    out->fs = g_module.fs;
    out->inotify_watches = g_module.inotify_watches;
    return 0;
}

int32_t g_no_container = 0;

}  // namespace

class PathsTest : public SessionTest
{
protected:
    PathsTest()
    {
        g_module = {};
        module.create_instance = make_instance;
        module.add_watch = add_watch;
        module.del_watch = del_watch;
        module.resync = resync;
        module.on_mark = on_mark;
        module.status = status;
        module.container_flag = &g_no_container;
        placement.start(module);
        request.quiet = true;
    }

    void watch_paths(const Lines &given)
    {
        request.paths = given;
        plan = make_plan(request, false);
        ASSERT_TRUE(plan.refusals.empty()) << plan.refusals[0];
        paths.emplace(request, module, placement, plan, report);
        ASSERT_TRUE(paths->place(intake));
        paths->report_start();
        session.emplace(request, monitor, events, report);
        session->start(*paths, now);
    }

    /* The same where it fails. */
    bool is_refused(const Lines &given)
    {
        request.paths = given;
        plan = make_plan(request, false);
        paths.emplace(request, module, placement, plan, report);
        return !paths->place(intake);
    }

    /* The monitor may not read that directory. */
    static void deny(const std::string &path)
    {
        struct fmon_refusal refusal = {-108, EACCES, FMON_LEFT_DENIED, FMON_STEP_INOTIFY, ""};
        snprintf(refusal.path, sizeof refusal.path, "%s", path.c_str());
        g_module.on_mark(path.c_str(), &refusal);
    }

    bool is_watched(const std::string &path) const { return g_module.watches.count(path) != 0; }

    Directory directory;
    Module module = {};
    EventQueue queue{10, 1000};
    Intake intake{queue};
    Placement placement{[] {}};
    Plan plan;
    std::optional<WatchedPaths> paths;
};

TEST_F(PathsTest, TheLastThatEndsEndsTheSession)
{
    watch_paths({directory.dir("a"), directory.dir("b")});
    EXPECT_EQ(Lines{"established 2 0"}, report.take());
    EXPECT_TRUE(is_watched(directory.path("a")));
    events.add({directory.path("a")}, FMON_DELETE_SELF);
    pass(100);
    EXPECT_EQ((Lines{directory.path("a"), "ended " + directory.path("a") + " deleted"}), report.take());
    EXPECT_FALSE(is_watched(directory.path("a")));
    EXPECT_FALSE(session->over());
    events.add({directory.path("b")}, FMON_MOVE_SELF);
    pass(100);
    EXPECT_EQ((Lines{directory.path("b"), "ended " + directory.path("b") + " moved", "report_dropped"}), report.take());
    EXPECT_EQ(kGone, session->status());
}

TEST_F(PathsTest, APathThatGoesWithoutAnEventIsSeenAtTheSecondLook)
{
    watch_paths({directory.dir("a")});
    report.take();
    std::filesystem::remove(directory.path("a"));
    pass(1000);
    EXPECT_FALSE(session->over());
    pass(Pace::kIdleLookMs);
    EXPECT_EQ(kGone, session->status());
    EXPECT_EQ((Lines{"ended " + directory.path("a") + " deleted", "report_dropped"}), report.take());
}

TEST_F(PathsTest, AnEndIsToldOnce)
{
    watch_paths({directory.dir("a"), directory.dir("b")});
    std::filesystem::remove(directory.path("a"));
    events.add({directory.path("a"), directory.path("a")}, FMON_DELETE_SELF);
    pass(20'000);
    const Lines lines = report.take();
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "ended " + directory.path("a") + " deleted"));
    EXPECT_FALSE(session->over());
}

TEST_F(PathsTest, WhatIsWaitedForComesGoesAndComesAgain)
{
    request.wait = true;
    watch_paths({directory.path("a")});
    EXPECT_EQ(Lines{"established 0 1"}, report.take());
    pass(3000);
    EXPECT_EQ(Lines{}, report.take());
    for (int i = 0; i < 2; i++) {
        directory.dir("a");
        pass(1000);
        EXPECT_EQ(Lines{"appeared " + directory.path("a")}, report.take());
        EXPECT_TRUE(is_watched(directory.path("a")));
        std::filesystem::remove(directory.path("a"));
        events.add({directory.path("a")}, FMON_DELETE_SELF);
        pass(1000);
        EXPECT_EQ((Lines{directory.path("a"), "ended " + directory.path("a") + " deleted"}), report.take());
        EXPECT_FALSE(is_watched(directory.path("a")));
    }
    EXPECT_FALSE(session->over());
}

TEST_F(PathsTest, WhatIsWaitedForIsTriedAgainEachSecondAndRefusedOnce)
{
    request.wait = true;
    watch_paths({directory.path("a")});
    g_module.code = FMON_ENOMEM;
    directory.dir("a");
    pass(10'000);
    EXPECT_EQ(1u, report.warnings.size());
    g_module.code = 0;
    report.take();
    pass(1000);
    EXPECT_EQ(Lines{"appeared " + directory.path("a")}, report.take());
}

TEST_F(PathsTest, WhatAPatternMatchesAppears)
{
    directory.dir("x1");
    watch_paths({directory.path("x*")});
    EXPECT_EQ(Lines{"established 1 0"}, report.take());
    EXPECT_TRUE(is_watched(directory.path("x1")));
    directory.dir("x2");
    pass(1000);
    EXPECT_EQ(Lines{"appeared " + directory.path("x2")}, report.take());
    std::filesystem::remove(directory.path("x1"));
    pass(3000);
    EXPECT_EQ(Lines{"ended " + directory.path("x1") + " deleted"}, report.take());
    EXPECT_FALSE(session->over());
}

TEST_F(PathsTest, DirectoriesLeftOutAreNamedOnceAndCounted)
{
    watch_paths({directory.dir("a")});
    report.take();
    monitor.findings.emplace().counts.denied = 3;
    pass(1000);
    EXPECT_EQ(Lines{"loss watches 3"}, report.take());
    ASSERT_EQ(1u, report.warnings.size());
    EXPECT_NE(report.warnings[0].find("3 directories"), std::string::npos) << report.warnings[0];
}

TEST_F(PathsTest, NewDirectoriesAreCompletedBeforeTheirEventsAreShown)
{
    request.recursive = true;
    watch_paths({directory.dir("a")});
    ASSERT_GE(paths->new_directories_fd(), 0);
    directory.dir("a/new/below");
    std::thread([&] { g_module.on_mark(directory.path("a/new").c_str(), nullptr); }).join();
    report.take();
    events.add({directory.path("a/new")});
    step();
    EXPECT_EQ((Lines{directory.path("a/new"), "found " + directory.path("a/new/below")}), report.take());
    EXPECT_EQ(Lines{directory.path("a/new")}, g_module.taken_back);  // its watch was for the walk only
}

/* ---- which source serves ---- */

TEST_F(PathsTest, ATreeThatAMarkOfItsFileSystemServesHasNoDirectories)
{
    request.recursive = true;
    g_module.served = {directory.dir("a")};
    g_module.inotify_watches = 1;  // for its own end
    watch_paths({directory.path("a")});
    EXPECT_EQ("filesystem", report.start.source);
    EXPECT_EQ(0u, report.start.directories);
    EXPECT_TRUE(plan.roots[0].served);
    EXPECT_TRUE(report.warnings.empty());
}

TEST_F(PathsTest, WhatHasMarksBesideWhatAMarkOfItsFileSystemServes)
{
    request.recursive = true;
    g_module.served = {directory.dir("a")};
    g_module.inotify_watches = 8;
    watch_paths({directory.path("a"), directory.dir("b"), directory.file("f")});
    EXPECT_EQ("both", report.start.source);
    EXPECT_EQ(6u, report.start.directories);
    if (geteuid() == 0) {
        ASSERT_EQ(1u, report.warnings.size());
        EXPECT_EQ(0u, report.warnings[0].find(directory.path("b") + " has marks on each directory: "));
        EXPECT_NE(std::string::npos, report.warnings[0].find("no file handles that could be opened"));
    }
}

TEST_F(PathsTest, MarksThatWereAskedForAreNotExplained)
{
    request.recursive = true;
    request.source = Source::kMarks;
    request.max_depth = 2;
    watch_paths({directory.dir("a")});
    EXPECT_EQ("marks", report.start.source);
    EXPECT_TRUE(report.warnings.empty());
}

TEST_F(PathsTest, SourceFilesystemRefusesWhatHasMarks)
{
    request.source = Source::kFilesystem;
    g_module.served = {directory.dir("a")};
    EXPECT_TRUE(is_refused({directory.path("a"), directory.dir("b")}));
    EXPECT_EQ(Lines{directory.path("b")}, g_module.taken_back);
    EXPECT_TRUE(is_refused({directory.file("f")}));
}

TEST_F(PathsTest, SourceFilesystemRefusesWhatAppearsAndHasMarks)
{
    request.source = Source::kFilesystem;
    request.wait = true;
    watch_paths({directory.path("a")});
    directory.dir("a");
    pass(3000);
    ASSERT_EQ(1u, report.warnings.size());
    EXPECT_NE(std::string::npos, report.warnings[0].find("is there, but cannot be watched with --source filesystem"));
    g_module.served = {directory.path("a")};
    pass(1000);
    EXPECT_TRUE(is_watched(directory.path("a")));
    EXPECT_TRUE(plan.roots[0].served);
}

TEST_F(PathsTest, PidIsOneWatchWhereAMarkOfTheFileSystemServesElseTwo)
{
    request.pid = true;
    g_module.served = {directory.dir("a")};
    watch_paths({directory.path("a")});
    EXPECT_EQ((std::vector<uint32_t>{FMON_DIR | FMON_PID}), g_module.flags);
    g_module.flags.clear();
    watch_paths({directory.dir("b")});
    EXPECT_EQ((std::vector<uint32_t>{FMON_DIR | FMON_PID, FMON_DIR | FMON_PID, FMON_DIR}), g_module.flags);
    EXPECT_TRUE(is_watched(directory.path("b")));
}

TEST_F(PathsTest, PidWithKindsThatNobodyCanName)
{
    request.pid = true;
    request.events = FMON_CREATE;
    EXPECT_TRUE(is_refused({directory.dir("b")}));
}

// Another file system inside a tree is walked only where directories have marks of their own.
TEST_F(PathsTest, AWalkOfANewDirectoryAsksForMarks)
{
    request.recursive = true;
    watch_paths({directory.dir("a")});
    directory.dir("a/new/below");
    std::thread([&] { g_module.on_mark(directory.path("a/new").c_str(), nullptr); }).join();
    paths->complete_trees();
    EXPECT_EQ(Lines{directory.path("a/new")}, g_module.taken_back);
    EXPECT_EQ(65534u, g_module.depth);
}

TEST_F(PathsTest, ADirectoryThatIsNamedBeforeItIsCountedIsToldOnce)
{
    request.recursive = true;
    watch_paths({directory.dir("a")});
    report.take();
    const std::string closed = directory.path("a/closed");
    deny(closed);
    EXPECT_EQ(1u, paths->report_left_out(0).reported);
    EXPECT_EQ(Lines{"loss watches 1 " + closed}, report.take());
    EXPECT_EQ(0u, paths->report_left_out(1).reported);
    EXPECT_EQ(1u, paths->report_left_out(1).reported);
    EXPECT_EQ(Lines{"loss watches 1"}, report.take());
}

TEST_F(PathsTest, ADirectoryThatIsRefusedWhileTheStartIsReportedIsSaidOnce)
{
    request.recursive = true;
    request.paths = {directory.dir("a")};
    plan = make_plan(request, false);
    paths.emplace(request, module, placement, plan, report);
    ASSERT_TRUE(paths->place(intake));
    deny(directory.path("a/closed"));
    paths->report_start();
    EXPECT_EQ((Lines{"established 1 0", "loss watches 1 " + directory.path("a/closed")}), report.take());
    ASSERT_FALSE(report.warnings.empty());
    EXPECT_EQ(
        0u, report.warnings[0].find("1 directory is not watched: no permission to read " + directory.path("a/closed")))
        << report.warnings[0];
    EXPECT_EQ(0u, paths->report_left_out(1).reported);
}

TEST_F(PathsTest, AfterALossEachDirectoryIsLookedAtAgain)
{
    request.recursive = true;
    directory.dir("a/new");
    watch_paths({directory.path("a"), directory.dir("b")});
    report.take();
    g_module.newly = {directory.path("a/new")};
    monitor.status.lost.inotify = 1;
    pass(1100);
    EXPECT_EQ((Lines{"loss inotify 1", "resynced 2 1"}), report.take());
    std::sort(g_module.looked_at.begin(), g_module.looked_at.end());
    EXPECT_EQ((Lines{directory.path("a"), directory.path("a/new"), directory.path("b")}), g_module.looked_at);
}

TEST_F(PathsTest, WhatIsNotMarkedOneByOneIsWholeAfterALossWithoutAWalk)
{
    directory.dir("a/below");
    watch_paths({directory.path("a")});
    report.take();
    monitor.status.lost.inotify = 1;
    pass(1100);
    EXPECT_EQ((Lines{"loss inotify 1", "resynced 1 0"}), report.take());
    EXPECT_EQ(Lines{}, g_module.looked_at);
}

TEST_F(PathsTest, WhatIsFoundIsToldWhereCreationsAreShown)
{
    request.recursive = true;
    for (const uint32_t kinds : {uint32_t{FMON_DELETE}, uint32_t{FMON_CREATE}}) {
        request.events = kinds;
        const std::string root = directory.dir("k" + std::to_string(kinds)), fresh = root + "/new";
        watch_paths({root});
        std::filesystem::create_directories(fresh);
        std::thread([&] { g_module.on_mark(fresh.c_str(), nullptr); }).join();
        directory.file("k" + std::to_string(kinds) + "/new/f");
        report.take();
        events.add({fresh});
        step();
        EXPECT_EQ((kinds == FMON_CREATE ? Lines{fresh, "found " + fresh + "/f"} : Lines{fresh}), report.take());
        paths.reset();
        placement.stop();
        placement.start(module);
    }
}

TEST_F(PathsTest, WhatIsFoundIsNotToldWhereThatIsNotWanted)
{
    request.recursive = request.no_found = true;
    watch_paths({directory.dir("a")});
    directory.dir("a/new/below");
    std::thread([&] { g_module.on_mark(directory.path("a/new").c_str(), nullptr); }).join();
    report.take();
    events.add({directory.path("a/new")});
    step();
    events.add({directory.path("a/new/below")});
    step();
    EXPECT_EQ((Lines{directory.path("a/new"), directory.path("a/new/below")}), report.take());
}
