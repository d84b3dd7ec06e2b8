/* Tests of resolve.h: links on the way to what is watched. */

#include "agent/resolve.h"

#include <sys/stat.h>
#include <unistd.h>

#include "agent/mount_guard.h"
#include "agent/unreadable.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using agent_testing::Directory;

namespace
{

void make_link(const std::string &target, const std::string &path) { std::filesystem::create_symlink(target, path); }

}  // namespace

TEST(CliResolve, OwnLinksAreFollowed)
{
    const Directory directory;
    directory.dir("a/b");
    make_link(directory.path("a"), directory.path("absolute"));
    make_link("absolute/b/../b", directory.path("relative"));
    for (const char *path : {"a/b", "absolute/b", "relative", "a/./b", "a/b/../b"}) {
        const Resolved found = resolve_carefully(directory.path(path));
        EXPECT_EQ(found.path, directory.path("a/b")) << path;
        EXPECT_EQ(0, found.identity.error) << path;
        EXPECT_EQ(found.identity.ino, identify(directory.path("a/b")).ino) << path;
        EXPECT_EQ(found.identity.mount_id, identify(directory.path("a/b")).mount_id) << path;
    }
    EXPECT_EQ("/", resolve_carefully("/").path);
    EXPECT_EQ("/", resolve_carefully("/..").path);
}

TEST(CliResolve, WhatIsNotThere)
{
    const Directory directory;
    directory.file("f");
    make_link("loop", directory.path("loop"));
    make_link("nowhere", directory.path("dangling"));
    EXPECT_EQ(ENOENT, resolve_carefully(directory.path("x/y")).identity.error);
    EXPECT_EQ(ENOTDIR, resolve_carefully(directory.path("f/y")).identity.error);
    EXPECT_EQ(ELOOP, resolve_carefully(directory.path("loop")).identity.error);
    EXPECT_EQ(ENOENT, resolve_carefully(directory.path("dangling")).identity.error);
    EXPECT_TRUE(resolve_carefully(directory.path("loop")).foreign_link.empty());
}

TEST(CliResolve, LinksOfAnotherUserAreNotFollowed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, for a link of another user";
    const Directory directory;
    directory.dir("a/b");
    make_link("a", directory.path("link"));
    ASSERT_EQ(0, lchown(directory.path("link").c_str(), 65534, 65534));
    const Resolved found = resolve_carefully(directory.path("link/b"));
    EXPECT_EQ(ELOOP, found.identity.error);
    EXPECT_EQ(found.foreign_link, directory.path("link"));
    EXPECT_EQ(65534u, found.owner);
}

TEST(CliResolve, MatchesOfAPattern)
{
    const Directory directory;
    directory.dir("b/log");
    directory.dir("a/log");
    directory.dir("c");
    EXPECT_EQ(matches_of(directory.path("*/log")),
              (std::vector<std::string>{directory.path("a/log"), directory.path("b/log")}));
    EXPECT_TRUE(matches_of(directory.path("*/none")).empty());
}

TEST(CliUnreadable, IsNamedOnceUntilItMayBeRead)
{
    const Directory directory;
    const std::string a = directory.dir("a"), gone = directory.path("gone"), file = directory.file("f");
    Unreadable unreadable;
    for (const std::string &path : {a, gone, a})
        unreadable.refused(path);
    const Unreadable::News news = unreadable.take();
    EXPECT_EQ(news.paths, (std::vector<std::string>{a, gone}));
    EXPECT_EQ(1u, news.repeated);
    EXPECT_TRUE(unreadable.take().paths.empty());
    EXPECT_TRUE(unreadable.knows(a));
    std::vector<std::string> readable;
    unreadable.look([&](const std::string &path) { readable.push_back(path); });
    EXPECT_EQ(readable, (std::vector<std::string>{a}));
    EXPECT_FALSE(unreadable.any());
}

TEST(CliUnreadable, NoMoreThanSoManyAreKnown)
{
    Unreadable unreadable;
    for (size_t i = 0; i < Unreadable::kMost + 5; i++)
        unreadable.refused("/x" + std::to_string(i));
    EXPECT_EQ(Unreadable::kMost, unreadable.take().paths.size());
}

TEST(CliMountGuard, ChangesInsideATreeAreToldOnce)
{
    std::vector<std::string> told;
    MountGuard guard([&](const std::string &point) { told.push_back(point); });
    Root root;
    root.watched = "/a";
    const auto mount = [](uint64_t id, const char *point) {
        Mount made;
        made.id = id;
        made.point = point;
        return made;
    };
    const std::vector<Mount> before = {mount(1, "/"), mount(2, "/a"), mount(3, "/a/b")};
    guard.look(before, {root});
    guard.look(before, {root});
    EXPECT_TRUE(told.empty());
    guard.look({mount(1, "/"), mount(4, "/a"), mount(5, "/a/b"), mount(6, "/ab"), mount(7, "/a/c/d")}, {root});
    EXPECT_EQ((std::vector<std::string>{"/a/b", "/a/c/d"}), told);
    root.watched.clear();
    guard.look(before, {root});
    EXPECT_EQ(2u, told.size());
}

TEST(CliMountGuard, WhatAMarkOfItsFileSystemHearsIsNotMissed)
{
    std::vector<std::string> told;
    MountGuard guard([&](const std::string &point) { told.push_back(point); });
    Root served, marked;
    served.watched = "/a";
    served.served = true;
    marked.watched = "/a/m";
    const auto mount = [](uint64_t id, const char *point, uint32_t device) {
        Mount made;
        made.id = id;
        made.point = point;
        made.device = device;
        return made;
    };
    const std::vector<Mount> few = {mount(1, "/", 1), mount(2, "/a/other", 2)};
    std::vector<Mount> more = few;
    for (const auto &[id, point] : {std::pair(3, "/a/b"), std::pair(4, "/a/other/c"), std::pair(5, "/a/m/d")})
        more.push_back(mount(static_cast<uint64_t>(id), point, 3));
    guard.look(more, {served, marked});
    guard.look(few, {served, marked});
    EXPECT_EQ((std::vector<std::string>{"/a/m/d", "/a/other/c"}), told); /* a tree of marks; another file system */
    guard.look(more, {served});
    EXPECT_EQ(5u, told.size());
    more[2].id = 6; /* another one at the same place */
    guard.look(more, {served});
    EXPECT_EQ("/a/b", told.back());
}
