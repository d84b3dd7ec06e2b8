/* Tests of census.h: one pass over a made-up /proc: which mount is whose. */

#include "container/census.h"

#include <gtest/gtest.h>

#include "testlib/container_world/container_world.h"
#include "testlib/tree.h"

using container::Census;
using testlib::made_id;

namespace
{

const std::string kA = made_id(0xa), kB = made_id(0xb), kC = made_id(0xc);

class ContainerLibCensus : public testing::Test
{
protected:
    ContainerLibCensus() : world(tree.root()) { world.add({1, 100, "/init.scope", {1, 2}}); }
    Census take() const
    {
        const std::atomic<bool> never{false};
        return container::take_census(world.proc(), tree.root(), never);
    }
    /* "ID PID" of a mount's container, "host", or "unknown". */
    std::string owner(int mount) const
    {
        const Census census = take();
        const auto row = census.mounts.find(static_cast<uint64_t>(mount));
        if (row == census.mounts.end())
            return "unknown";
        if (row->second == Census::kHost)
            return "host";
        return census.containers[row->second].id + " " + std::to_string(census.containers[row->second].pid);
    }
    testlib::TempTree tree;
    testlib::ContainerWorld world;
};

TEST_F(ContainerLibCensus, EachMountHasItsContainer)
{
    world.add({20, 101, "/docker/" + kA, {30, 31}});
    world.add({21, 101, "/docker/" + kA, {30, 31}});
    world.add({40, 102, "/machine.slice/libpod-" + kB + ".scope", {50}});
    EXPECT_EQ("host", owner(1));
    EXPECT_EQ(kA + " 20", owner(30));
    EXPECT_EQ(kA + " 20", owner(31));
    EXPECT_EQ(kB + " 40", owner(50));
    EXPECT_EQ("unknown", owner(99));
    const Census census = take();
    EXPECT_EQ(4u, census.processes);
    EXPECT_EQ(3u, census.namespaces);
    EXPECT_EQ(2u, census.containers.size());
    EXPECT_EQ(0, census.error);
}

TEST_F(ContainerLibCensus, ServicesWithTheirOwnMountsAreTheHosts)
{
    world.add({30, 105, "/system.slice/systemd-udevd.service", {60}});
    EXPECT_EQ("host", owner(60));
}

TEST_F(ContainerLibCensus, FirstProcessIsTheOldestWhateverItsNumber)
{
    world.add({20, 101, "/docker/" + kA, {30}, 900}); /* numbers began anew */
    world.add({400, 101, "/docker/" + kA, {30}, 500});
    EXPECT_EQ(kA + " 400", owner(30));
}

TEST_F(ContainerLibCensus, VisitorsDoNotTakeOver)
{
    world.add({10, 101, "/user.slice", {30}, 10}); /* entered from the host */
    world.add({20, 101, "/docker/" + kA, {30}, 20});
    world.add({25, 101, "/docker/" + kB, {30}, 25}); /* from another container */
    EXPECT_EQ(kA + " 20", owner(30));
}

TEST_F(ContainerLibCensus, NamespacesMadeInsideAreTheContainers)
{
    world.add({20, 101, "/docker/" + kA, {30}});
    world.add({25, 109, "/docker/" + kA, {35}});
    EXPECT_EQ(kA + " 20", owner(35));
    EXPECT_EQ(1u, take().containers.size());
}

TEST_F(ContainerLibCensus, InnermostOfNestedOnes)
{
    world.add({20, 101, "/docker/" + kA, {30}});
    world.add({25, 109, "/docker/" + kA + "/docker/" + kB, {35}});
    EXPECT_EQ(kB + " 25", owner(35));
    const Census census = take();
    ASSERT_EQ(2u, census.containers.size());
    for (const container::Found &found : census.containers)
        EXPECT_EQ(found.nested, found.id == kB);
}

TEST_F(ContainerLibCensus, BorrowedNamesAreRefused)
{
    world.add({20, 101, "/docker/" + kA, {30}});
    world.add({25, 109, "/docker/" + kB + "/docker-" + kA + ".scope", {35}});
    EXPECT_EQ(kA + " 20", owner(30));
    EXPECT_EQ(kB + " 25", owner(35));
    world.add({26, 110, "/docker/" + kA + "/" + kC, {36}});
    world.add({27, 111, "/docker/" + kB + "/" + kC, {37}});
    EXPECT_EQ(kA + " 20", owner(36)) << "claimed from two places: neither is believed";
    EXPECT_EQ(kB + " 25", owner(37));
}

const std::string kOfUser = "/user.slice/user-1000.slice/user@1000.service/docker-" + kB + ".scope";

TEST_F(ContainerLibCensus, AUsersGroupClaimsNoContainerOfRoots)
{
    world.add({15, 109, kOfUser, {35}, 15}); /* older than the container that it claims to be */
    world.add({16, 110, kOfUser + "/docker-" + kA + ".scope", {36}, 16});
    world.add({20, 102, "/docker/" + kB, {30}, 20});
    EXPECT_EQ(kB + " 20", owner(30));
    EXPECT_EQ("host", owner(35));
    EXPECT_EQ("host", owner(36));
    EXPECT_EQ(1u, take().containers.size()) << "and lends it no process";
}

TEST_F(ContainerLibCensus, AUsersGroupAloneIsReportedWithItsMaker)
{
    world.add({15, 109, kOfUser, {35}});
    world.add({16, 110, kOfUser + "/docker-" + kA + ".scope", {36}});
    EXPECT_EQ(kB + "@1000 15", owner(35));
    EXPECT_EQ(kA + "@1000 16", owner(36));
    for (const container::Found &found : take().containers)
        EXPECT_TRUE(found.nested) << "the host's engines do not know it";
}

TEST_F(ContainerLibCensus, AVisitorFromAUsersGroupIsNotFirst)
{
    world.add({15, 102, kOfUser, {30}, 15});
    world.add({20, 102, "/docker/" + kA, {30}, 20});
    EXPECT_EQ(kA + " 20", owner(30));
}

/* One of a user's that a group of root's leads to, and one that the user owns whoever made it. */
TEST_F(ContainerLibCensus, OwnersOfGroupsAreAsked)
{
    const std::string directory = "/system.slice/build.service/docker-" + kB + ".scope";
    const std::string user = std::to_string(world.make_users_directory("sys/fs/cgroup" + directory));
    world.add({15, 109, directory, {35}, 15});
    EXPECT_EQ(owner(35), kB + "@" + user + " 15");
    world.add({20, 102, "/system.slice/docker-" + kB + ".scope", {30}, 20});
    EXPECT_EQ("host", owner(35));
    EXPECT_EQ(kB + " 20", owner(30));
}

TEST_F(ContainerLibCensus, GroupsAreTheSameWherePathsAre)
{
    world.add({20, 101, "/docker/" + kA + "/x/docker-" + kC + ".scope", {30}});
    world.add({21, 102, "/docker/" + kA + "/y/docker-" + kC + ".scope", {31}});
    EXPECT_EQ(kA + " 20", owner(30)) << "claimed twice within one container: neither is believed";
    EXPECT_EQ(kA + " 20", owner(31));
    world.remove(21);
    EXPECT_EQ(kC + " 20", owner(30));
}

TEST_F(ContainerLibCensus, ReusedIdsBelongToWhoHasThemNow)
{
    world.add({20, 101, "/docker/" + kA, {30}});
    EXPECT_EQ(kA + " 20", owner(30));
    world.remove(20);
    EXPECT_EQ("unknown", owner(30));
    world.add({21, 102, "/docker/" + kB, {30}});
    EXPECT_EQ(kB + " 21", owner(30));
}

TEST_F(ContainerLibCensus, HiddenAndHalfGoneProcessesAreLeftOut)
{
    world.add({20, 0, "/docker/" + kA, {30}});   /* no namespace to be seen */
    world.add({21, 101, "/docker/" + kA, {31}}); /* its list of mounts went */
    tree.remove("proc/21/mountinfo");
    tree.dir("proc/self");
    tree.dir("proc/12x");
    tree.file("proc/uptime", "1 2");
    EXPECT_EQ("unknown", owner(30));
    EXPECT_EQ("unknown", owner(31));
    world.add({22, 101, "/docker/" + kA, {31}});
    EXPECT_EQ(kA + " 21", owner(31)) << "another process of the namespace lists its mounts";
}

/* A container with endless mounts in many namespaces takes nothing from others. */
TEST_F(ContainerLibCensus, WhatAContainerCostsIsBounded)
{
    const std::string line = testlib::mount_line(7777, "/" + std::string(4'000'000, 'y'));
    for (int i = 0; i < 6; i++) {
        world.add({20 + i, 101 + static_cast<uint64_t>(i), "/docker/" + kA, {}});
        world.write("proc/" + std::to_string(20 + i) + "/mountinfo", testlib::mount_line(100 + i) + line);
    }
    world.add({40, 200, "/docker/" + kB, {50}});
    const Census census = take();
    EXPECT_EQ(2u, census.cut) << "four times four megabytes fit";
    EXPECT_EQ(1u, census.mounts.count(103));
    EXPECT_EQ(0u, census.mounts.count(105));
    EXPECT_EQ(kB + " 40", owner(50));
}

TEST_F(ContainerLibCensus, LinksInsideAreNotFollowed)
{
    world.add({20, 101, "/docker/" + kA, {30}});
    const std::string list = tree.file("elsewhere", testlib::mount_line(77));
    tree.remove("proc/20/mountinfo");
    tree.link("proc/20/mountinfo", list);
    EXPECT_EQ("unknown", owner(77));
}

TEST_F(ContainerLibCensus, WithoutProcThereIsAnError)
{
    const std::atomic<bool> never{false};
    EXPECT_EQ(ENOENT, container::take_census(tree.path("none"), tree.root(), never).error);
    EXPECT_EQ(ENOENT, container::take_census(tree.dir("empty"), tree.root(), never).error);
    EXPECT_TRUE(container::take_census(tree.path("none"), tree.root(), never).mounts.empty());
}

TEST_F(ContainerLibCensus, EndsEarlyWhenToldTo)
{
    world.add({20, 101, "/docker/" + kA, {30}});
    const std::atomic<bool> stop{true};
    EXPECT_TRUE(container::take_census(world.proc(), tree.root(), stop).mounts.empty());
}

}  // namespace
