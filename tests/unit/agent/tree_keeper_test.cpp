/* Tests of tree_keeper.h: what a growing tree still lacks is found and watched. */

#include "agent/tree_keeper.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <map>

#include "agent/paths.h"
#include "agent/roots.h"
#include "common/beneath.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using agent_testing::Directory;

namespace
{

struct Call {
    std::string path;
    uint32_t flags, depth;
};
std::vector<Call> g_added;
std::vector<std::string> g_deleted;

int fake_create(const char *, fmon_client_cb) { return 3; }

int fake_add(uint32_t id, const char *path, uint32_t, uint32_t flags, uint32_t depth, uint32_t)
{
    EXPECT_EQ(3u, id);
    g_added.push_back({path, flags, depth});
    return 0;
}

std::vector<std::string> g_spared;
unsigned g_instances_gone = 0;

int fake_spare(uint32_t id, const char *path)
{
    EXPECT_EQ(3u, id);
    g_spared.push_back(path);
    return path == std::string("/full") ? FMON_ENOMEM : 0;
}

int fake_gone(uint32_t)
{
    g_instances_gone++;
    return 0;
}

int fake_del(uint32_t id, const char *path)
{
    EXPECT_EQ(3u, id);
    g_deleted.push_back(path);
    return 0;
}

class Keeper : public testing::Test
{
protected:
    Keeper()
    {
        g_added.clear();
        g_deleted.clear();
        g_spared.clear();
        g_instances_gone = 0;
        module.spare = fake_spare;
        module.del_instance = fake_gone;
        module.create_instance = fake_create;
        module.add_watch = fake_add;
        module.del_watch = fake_del;
    }
    std::vector<std::string> completed(std::vector<std::string> made, uint32_t max_depth = 0)
    {
        TreeKeeper keeper(module, {directory.root()}, max_depth);
        EXPECT_EQ(3, keeper.start());
        for (const std::string &path : made)
            keeper.made(path);
        keeper.run();
        std::vector<std::string> paths;
        for (const Call &call : g_added)
            paths.push_back(call.path);
        EXPECT_EQ(paths, g_deleted);  // nothing stays behind
        return paths;
    }

    Module module = {};
    Directory directory;
};

}  // namespace

TEST_F(Keeper, CompletesADirectoryWithDirectories)
{
    directory.dir("a/b/c");
    EXPECT_EQ(completed({directory.path("a")}), (std::vector<std::string>{directory.path("a")}));
    EXPECT_EQ(uint32_t{FMON_DIR | FMON_RECURSIVE | FMON_SYNC | FMON_NO_LINKS}, g_added[0].flags);
}

TEST_F(Keeper, FollowsNoLink)
{
    directory.dir("elsewhere/b/c");
    std::filesystem::create_symlink(directory.path("elsewhere"), directory.path("a"));
    EXPECT_TRUE(completed({directory.path("a"), directory.path("a/b")}).empty());
}

TEST_F(Keeper, WhatIsWalkedAgainIsWalkedFromAboveAndSaid)
{
    TreeKeeper keeper(module, {directory.root()}, 0);
    ASSERT_EQ(3, keeper.start());
    keeper.again(directory.dir("a/b"));
    keeper.run();
    ASSERT_EQ(1u, g_added.size());
    EXPECT_EQ(directory.path("a"), g_added[0].path) << "where a walk starts it adds its own kinds only";
    EXPECT_EQ((std::vector<std::string>{directory.path("a/b")}), keeper.take_again().paths);
    EXPECT_TRUE(keeper.take_again().paths.empty());
}

TEST_F(Keeper, ItsWalksSpareWhatTheWatchesSpare)
{
    TreeKeeper keeper(module, {directory.root()}, 0, {"/a", "/b"});
    EXPECT_EQ(3, keeper.start());
    EXPECT_EQ((std::vector<std::string>{"/a", "/b"}), g_spared);
    EXPECT_LT(TreeKeeper(module, {directory.root()}, 0, {"/full"}).start(), 0);
    EXPECT_EQ(1u, g_instances_gone) << "and nothing is left of it";
}

TEST_F(Keeper, WhereAllShareOneInstanceSuchAWalkHasItsOwn)
{
    Shared shared;
    module.shared = &shared;
    TreeKeeper keeper(module, {directory.root()}, 0, {"/a"});
    EXPECT_EQ(0, keeper.start());
    directory.dir("x/y");
    for (unsigned i = 1; i <= 2; i++) {
        keeper.made(directory.path("x"));
        keeper.run();
        EXPECT_EQ(std::vector<std::string>(i, "/a"), g_spared);
        EXPECT_EQ(i, g_instances_gone);
        EXPECT_EQ(std::vector<std::string>(i, directory.path("x")), g_deleted);
    }
    EXPECT_EQ(-1, shared.short_lived);
}

TEST_F(Keeper, TellsThatThereIsSomethingToLookAt)
{
    TreeKeeper keeper(module, {directory.root()}, 0);
    ASSERT_EQ(3, keeper.start());
    struct pollfd fd = {keeper.wake_fd(), POLLIN, 0};
    EXPECT_EQ(0, poll(&fd, 1, 0));
    keeper.made(directory.path("a"));
    keeper.made(directory.path("b"));
    EXPECT_EQ(1, poll(&fd, 1, 0));
    keeper.run();
    EXPECT_EQ(0, poll(&fd, 1, 0));
}

TEST(CliPaths, ADirectoryIsOpenedThroughNoLink)
{
    const Directory directory;
    directory.dir("a/b/c");
    std::filesystem::create_symlink(directory.path("a"), directory.path("link"));
    std::filesystem::create_symlink("b", directory.path("a/up"));
    EXPECT_TRUE(open_directory("/"));
    EXPECT_TRUE(open_directory(directory.path("a/b")));
    for (const char *path : {"link", "link/b", "a/up", "a/up/c"})
        EXPECT_FALSE(open_directory(directory.path(path))) << path;
    const common::Fd top(open(directory.root().c_str(), O_PATH));
    for (const auto &[path, found] : std::map<std::string, bool>{
             {".", true}, {"a/b", true}, {"link", false}, {"link/b", false}, {"a/up/c", false}, {"a/../a", false}})
        EXPECT_EQ(common::Fd(common::open_stepwise(top.get(), path, O_RDONLY)).get() >= 0, found) << path;
}

TEST(CliPaths, DirectoriesAreCountedWithoutLinks)
{
    const Directory directory;
    directory.dir("a/b/c");
    directory.dir("d");
    std::filesystem::create_symlink(directory.path("a"), directory.path("d/link"));
    EXPECT_EQ(4u, count_directories(directory.root(), 0, 100));
    EXPECT_EQ(3u, count_directories(directory.root(), 2, 100));
    EXPECT_EQ(2u, count_directories(directory.root(), 0, 2));
    EXPECT_EQ(0u, count_directories(directory.path("d/link"), 0, 100));
}

TEST_F(Keeper, LeavesFilesAndFlatDirectoriesAlone)
{
    directory.dir("a");
    directory.file("a/f");
    EXPECT_TRUE(completed({directory.path("a"), directory.path("a/f"), directory.path("gone")}).empty());
}

TEST_F(Keeper, OneWalkServesAllBelow)
{
    directory.dir("a/b/c/d");
    directory.dir("a-b/x");
    EXPECT_EQ(completed({directory.path("a/b"), directory.path("a-b"), directory.path("a"), directory.path("a/b/c")}),
              (std::vector<std::string>{directory.path("a"), directory.path("a-b")}));
}

TEST_F(Keeper, KeepsTheLimitOfDepth)
{
    directory.dir("a/b/c/d");
    completed({directory.path("a")}, 2);
    ASSERT_EQ(1u, g_added.size());
    EXPECT_EQ(1u, g_added[0].depth);
    g_added.clear();
    g_deleted.clear();
    EXPECT_TRUE(completed({directory.path("a/b")}, 2).empty());
    EXPECT_EQ(1u, completed({directory.path("a/b")}, 3).size());
}

TEST_F(Keeper, AStarInANameStartsTheWalkAboveIt)
{
    directory.dir("a/*/b");
    EXPECT_EQ(completed({directory.path("a/*")}), (std::vector<std::string>{directory.path("a")}));
    EXPECT_EQ("/x", without_star("/x"));
    EXPECT_EQ(without_star("/*"), "/");
    EXPECT_EQ("/a", without_star("/a/b*/c"));
}

TEST(CliTree, OrderOfPaths)
{
    std::vector<std::string> paths = {"/a/b", "/a-b", "/a", "/a/b/c", "/b"};
    sort_as_tree(paths);
    EXPECT_EQ((std::vector<std::string>{"/a", "/a/b", "/a/b/c", "/a-b", "/b"}), paths);
}

namespace
{

/* Roots in a directory, and what was said of their end. */
class Guard : public testing::Test
{
protected:
    Root &watch(const std::string &below)
    {
        Root root;
        root.path = directory.path(below);
        root.identity = identify(root.path);
        root.placed = true;
        roots.push_back(root);
        return roots.back();
    }

    Directory directory;
    std::vector<Root> roots;
    std::vector<std::string> ends;
    RootGuard guard{roots, [this](const Root &root, const char *reason) {
                        ends.push_back(root.path.substr(directory.root().size()) + " " + reason);
                    }};
};

}  // namespace

TEST_F(Guard, EventsOfThePathItselfEndIt)
{
    directory.dir("a");
    directory.dir("b");
    watch("a");
    watch("b");
    guard.event(directory.path("a"), FMON_CREATE);
    guard.event(directory.path("a/x"), FMON_DELETE_SELF);
    EXPECT_TRUE(ends.empty());
    guard.event(directory.path("a"), FMON_DELETE_SELF);
    guard.event(directory.path("a"), FMON_DELETE_SELF);
    EXPECT_FALSE(guard.all_ended());
    guard.event(directory.path("b"), FMON_MOVE_SELF);
    EXPECT_EQ((std::vector<std::string>{"/a deleted", "/b moved"}), ends);
    EXPECT_TRUE(guard.all_ended());
}

TEST_F(Guard, APathThatIsWaitedForNeverEnds)
{
    directory.dir("a");
    watch("a").waits = true;
    guard.event(directory.path("a"), FMON_DELETE_SELF);
    std::filesystem::remove_all(directory.path("a"));
    guard.look();
    guard.look();
    EXPECT_TRUE(ends.empty());
    EXPECT_FALSE(guard.all_ended());
}

TEST_F(Guard, ARenameAboveIsSeenAtTheSecondLook)
{
    directory.dir("a/b");
    watch("a/b");
    guard.look();
    guard.look();
    EXPECT_TRUE(ends.empty());
    std::filesystem::rename(directory.path("a"), directory.path("c"));
    guard.look();
    EXPECT_TRUE(ends.empty());
    guard.look();
    EXPECT_EQ((std::vector<std::string>{"/a/b moved"}), ends);
}

TEST_F(Guard, AFileThatIsReplacedWasDeleted)
{
    directory.file("f");
    directory.file("g");
    watch("f");
    std::filesystem::rename(directory.path("g"), directory.path("f"));
    guard.look();
    guard.look();
    EXPECT_EQ((std::vector<std::string>{"/f deleted"}), ends);
}
