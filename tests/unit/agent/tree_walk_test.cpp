/* Tests of tree_walk.h: each directory is looked at once, its own before those in it. */
#include "agent/tree_walk.h"

#include <algorithm>
#include <map>

#include "unit/agent/agent_testing.h"

using namespace agent;
using agent_testing::Directory;

namespace
{

using Lines = std::vector<std::string>;

/* What the monitor answers, and what it was asked. */
struct {
    std::map<std::string, uint32_t> refused; /* path to reason */
    std::map<std::string, int> codes;        /* else 0 */
    Lines asked;
    uint64_t left_out = 0;
    fmon_mark_cb on_mark = nullptr;
} g_module;

int resync(const char *path, uint32_t what)
{
    g_module.asked.push_back(std::string(path) + (what & FMON_RESYNC_MARK ? "" : " only forget"));
    const auto reason = g_module.refused.find(path);
    if (reason == g_module.refused.end() || !(what & FMON_RESYNC_MARK))
        return g_module.codes.count(path) ? g_module.codes[path] : 0;
    struct fmon_refusal refusal = {};
    refusal.code = -108;
    refusal.reason = reason->second;
    snprintf(refusal.path, sizeof refusal.path, "%s", path);
    g_module.left_out++;
    g_module.on_mark(path, &refusal);
    return refusal.code;
}

int on_mark(fmon_mark_cb cb)
{
    g_module.on_mark = cb;
    return 0;
}

int status(struct fmon_status *out)
{
    out->left_out.inotify_limit = g_module.left_out;
    return 0;
}

class WalkTest : public testing::Test
{
protected:
    WalkTest()
    {
        g_module = {};
        module.resync = resync;
        module.on_mark = on_mark;
        module.status = status;
        placement.start(module);
        placement.listen([](const std::string &) {});
    }
    Lines walked(uint32_t max_depth = 0)
    {
        walk.start({directory.root()}, max_depth);
        while (walk.step()) {
        }
        for (std::string &path : g_module.asked)
            path.erase(0, directory.root().size());
        std::sort(g_module.asked.begin(), g_module.asked.end());
        return std::exchange(g_module.asked, {});
    }
    void refuse(const std::string &below, uint32_t reason = FMON_LEFT_INOTIFY_LIMIT)
    {
        g_module.refused[directory.path(below)] = reason;
    }

    Directory directory;
    Module module = {};
    Placement placement{[] {}};
    TreeWalk walk{module, placement};
};

TEST_F(WalkTest, EachDirectoryIsLookedAtOnceTopDown)
{
    directory.dir("a/b/c");
    directory.dir("d");
    directory.file("f");
    std::filesystem::create_symlink(directory.path("a"), directory.path("d/link"));
    walk.start({directory.root()}, 0);
    EXPECT_FALSE(walk.step());
    const Lines asked = g_module.asked;
    EXPECT_LT(std::find(asked.begin(), asked.end(), directory.path("a/b")),
              std::find(asked.begin(), asked.end(), directory.path("a/b/c")));
    g_module.asked.clear();
    EXPECT_EQ((Lines{"", "/a", "/a/b", "/a/b/c", "/d"}), walked());
}

TEST_F(WalkTest, NewOnesAreCountedUntilTheyAreTaken)
{
    g_module.codes = {{directory.dir("a"), 1}, {directory.dir("a/b"), 1}, {directory.dir("c"), 0}};
    walked();
    walked();
    EXPECT_EQ(4u, walk.take_new());
    EXPECT_EQ(0u, walk.take_new());
}

TEST_F(WalkTest, NothingBelowWhatIsNotWatchedIsLookedAt)
{
    directory.dir("a/b");
    g_module.codes[directory.path("a")] = FMON_ENOENT;
    EXPECT_EQ((Lines{"", "/a"}), walked());
}

TEST_F(WalkTest, KeepsTheLimitOfDepth)
{
    directory.dir("a/b/c/d");
    EXPECT_EQ((Lines{"", "/a", "/a/b"}), walked(2));
}

TEST_F(WalkTest, GoesOnInSlices)
{
    for (size_t i = 0; i < TreeWalk::kSlice; i++)
        directory.dir(std::to_string(i));
    walk.start({directory.root()}, 0);
    EXPECT_TRUE(walk.step());
    EXPECT_EQ(+TreeWalk::kSlice, g_module.asked.size());
    EXPECT_FALSE(walk.step());
    EXPECT_EQ(TreeWalk::kSlice + 1, g_module.asked.size());
}

TEST_F(WalkTest, AWantOfRoomThatIsNewIsCountedForEachDirectory)
{
    for (const char *dir : {"a", "b", "c"}) {
        directory.dir(dir);
        refuse(dir);
    }
    EXPECT_EQ((Lines{"", "/a", "/b", "/c"}), walked());
    EXPECT_FALSE(placement.without_room().empty());
    EXPECT_EQ(3u, placement.take().left_out());
}

TEST_F(WalkTest, AWantOfRoomThatIsKnownIsMetOnceAndNotTold)
{
    for (const char *dir : {"a", "b", "c"}) {
        directory.dir(dir);
        refuse(dir);
    }
    walked();
    placement.take();
    const Lines asked = walked();
    EXPECT_EQ(2, std::count_if(asked.begin(), asked.end(), [](const std::string &l) { return l.ends_with("forget"); }));
    EXPECT_EQ(0u, placement.take().left_out());
    g_module.refused.clear();
    EXPECT_EQ((Lines{"", "/a", "/b", "/c"}), walked());
    EXPECT_TRUE(placement.without_room().empty());
}

TEST_F(WalkTest, ATrialAsksForTheLatestThatFoundNoRoom)
{
    EXPECT_TRUE(walk.has_room());
    directory.dir("a");
    refuse("a");
    walked();
    EXPECT_EQ(1u, placement.take().left_out());
    EXPECT_FALSE(walk.has_room());
    EXPECT_EQ(Lines{directory.path("a")}, g_module.asked);
    EXPECT_EQ(0u, placement.take().left_out()) << "was told";
    g_module.refused.clear();
    EXPECT_TRUE(walk.has_room());
}

TEST_F(WalkTest, OtherRefusalsAreNoWantOfRoom)
{
    directory.dir("a");
    refuse("a", FMON_LEFT_DENIED);
    EXPECT_EQ((Lines{"", "/a"}), walked());
    EXPECT_TRUE(placement.without_room().empty());
    EXPECT_EQ(1u, placement.take().left_out());
}

}  // namespace
