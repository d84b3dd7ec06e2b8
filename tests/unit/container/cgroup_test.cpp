/* Tests of cgroup.h: ids of containers in names of control groups, in every engine's way. */

#include "container/cgroup.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "testlib/container_world/container_world.h"
#include "testlib/tree.h"

using container::Chain;
using testlib::made_id;

namespace
{

const std::string kA = made_id(0xa), kB = made_id(0xb);

TEST(ContainerLibCgroup, EveryNamingSchemeIsUnderstood)
{
    const std::string paths[] = {
        "/system.slice/docker-" + kA + ".scope",
        "/docker/" + kA,
        "/kubepods.slice/kubepods-burstable.slice/kubepods-burstable-pod1.slice/cri-containerd-" + kA + ".scope",
        "/kubepods.slice/kubepods-besteffort.slice/crio-" + kA + ".scope",
        "/kubepods/burstable/pod0c5b/" + kA,
        "/kubepods/burstable/pod0c5b/crio-" + kA,
        "/machine.slice/libpod-" + kA + ".scope",
        "/machine.slice/libpod-" + kA + ".scope/container",
        "/user.slice/user-1000.slice/user@1000.service/user.slice/libpod-" + kA + ".scope",
        "/libpod_parent/libpod-" + kA,
        "/default/" + kA,
        "/system.slice/containerd.service/kubepods-pod1.slice:cri-containerd:" + kA,
        "/system.slice:docker:" + kA,
        "/../docker-" + kA + ".scope",
        "/" + kA,
        "/docker/" + kA + " (deleted)",
    };
    for (const std::string &path : paths)
        EXPECT_EQ(Chain{kA}, container::chain_of_path(path)) << path;
}

TEST(ContainerLibCgroup, HostsProcessesAreInNone)
{
    const std::string paths[] = {"",
                                 "/",
                                 "/init.scope",
                                 "/system.slice/docker.service",
                                 "/machine.slice/libpod-conmon-" + kA + ".scope",
                                 "/kubepods.slice/crio-conmon-" + kA + ".scope",
                                 "/docker/" + kA.substr(1),
                                 "/docker/0" + kA,
                                 "/docker/g" + kA.substr(1),
                                 "/docker-" + kA + "x.scope",
                                 "/a b" + kA,
                                 "/:" + kA,
                                 "/dockers-" + kA};
    for (const std::string &path : paths)
        EXPECT_EQ(Chain{}, container::chain_of_path(path)) << path;
}

TEST(ContainerLibCgroup, NestedOnesAreListedFromOutside)
{
    EXPECT_EQ((Chain{kA, kB}), container::chain_of_path("/docker/" + kA + "/docker/" + kB));
    EXPECT_EQ((Chain{kA, kB}),
              container::chain_of_path("/system.slice/docker-" + kA + ".scope/kubepods/crio-" + kB + ".scope/x"));
    EXPECT_EQ(Chain{kA}, container::chain_of_path("/docker/" + kA + "/docker-" + kA + ".scope"));
}

TEST(ContainerLibCgroup, DepthIsBounded)
{
    std::string path;
    for (unsigned i = 0; i < 100; i++)
        path += "/" + made_id(i);
    EXPECT_EQ(8u, container::chain_of_path(path).size());
}

TEST(ContainerLibCgroup, FirstHierarchyThatNamesOneCounts)
{
    EXPECT_EQ(Chain{kA},
              container::parse_cgroup("12:pids:/\n11:memory:/docker/" + kA + "\n0::/docker/" + kB + "\n").chain);
    EXPECT_EQ(Chain{kA}, container::parse_cgroup("0::/docker/" + kA).chain) << "without a newline";
    EXPECT_EQ(Chain{}, container::parse_cgroup("1:name=systemd:/\n0::/\n").chain);
    EXPECT_EQ(Chain{kA}, container::parse_cgroup("5:cpu,cpuacct:/a:b/docker/" + kA + "\n").chain)
        << "a colon in a name";
}

TEST(ContainerLibCgroup, PlacesEndWithTheNameThatCounts)
{
    const std::string path = "/a/docker-" + kA + ".scope/b/" + kB;
    const container::Group group = container::parse_cgroup("3:cpu:/\n1:name=systemd:" + path + "/c (deleted)\n");
    ASSERT_EQ((Chain{kA, kB}), group.chain);
    EXPECT_EQ("systemd", group.hierarchy);
    EXPECT_EQ("/a/docker-" + kA + ".scope", group.place(0));
    EXPECT_EQ(group.place(1), path);
    EXPECT_EQ(container::parse_cgroup("0::" + path + " (deleted)\n").place(1), path);
}

TEST(ContainerLibCgroup, LabelsNameTheMaker)
{
    EXPECT_EQ(kA, container::label_of(kA, 0));
    EXPECT_EQ(kA + "@1000", container::label_of(kA, 1000));
    EXPECT_EQ(container::kMaxLabel, container::label_of(kA, UINT32_MAX).size());
    for (const std::string &label : {kA, kA + "@1", kA + "@4294967295"})
        EXPECT_TRUE(container::is_label(label)) << label;
    for (const std::string &label : {std::string(), kA.substr(1), kA + "@", kA + "@x", kA + "@01", kA + "@-1", kA + "1",
                                     kA + "@4294967296", kA + "@1@1", std::string("@1000")})
        EXPECT_FALSE(container::is_label(label)) << label;
}

/* Groups below a user's own manager, and those that a user owns, or that lie in one that a user owns. */
TEST(ContainerLibCgroup, MakersOfGroups)
{
    const testlib::TempTree tree;
    const testlib::ContainerWorld world(tree.root());
    const auto maker = [&](const std::string &line) {
        return container::maker_of(container::parse_cgroup(line), tree.root());
    };
    const std::string scope = "/docker-" + kA + ".scope";
    EXPECT_EQ(1000u, maker("0::/user.slice/user-1000.slice/user@1000.service/app.slice" + scope));
    EXPECT_EQ(1000u, maker("0::/../../user@1000.service" + scope)) << "seen from another group";
    EXPECT_EQ(0u, maker("0::/user.slice/user-0.slice/user@0.service" + scope)) << "root's own";
    EXPECT_EQ(0u, maker("0::/user.slice/user-1000.slice" + scope)) << "which only root makes";
    EXPECT_EQ(0u, maker("0::/system.slice/user@x.service" + scope));
    EXPECT_EQ(0u, maker("0::" + scope + "/user@1000.service")) << "a name that was given inside";
    EXPECT_EQ(0u, maker("0::/nothing/in/sight" + scope));
    EXPECT_EQ(0u, maker("0::/"));
    const uint32_t user = world.make_users_directory("sys/fs/cgroup/two/of" + scope);
    EXPECT_EQ(maker("0::/two/of" + scope), user);
    EXPECT_EQ(0u, maker("5:pids:/two/of" + scope)) << "another hierarchy";
    EXPECT_EQ(0u, maker("0::/two/of/../of" + scope)) << "not looked for where it leads out";
    world.make_users_directory("sys/fs/cgroup/pids/one");
    EXPECT_EQ(maker("5:pids:/one/of" + scope), user);
    world.make_users_directory("sys/fs/cgroup/unified/both");
    EXPECT_EQ(maker("0::/both" + scope), user);
}

TEST(ContainerLibCgroup, RubbishIsNoContainer)
{
    for (const std::string &text : {std::string(), std::string("\n\n\n"), std::string(":::"), std::string(100000, '/'),
                                    std::string(100000, ':'), std::string(64, '\0'), "0:" + kA, kA})
        EXPECT_EQ(Chain{}, container::parse_cgroup(text).chain);
    EXPECT_EQ(Chain{}, container::parse_cgroup(std::string(64, '\n') + "0::/docker/" + kA).chain) << "too many lines";
}

/* As they were on machines, one file a scheme; the id is the same in all. */
TEST(ContainerLibCgroup, StoredFiles)
{
    const std::string id = "4c01db0b339c5a1f8e7d6c5b4a39281706f5e4d3c2b1a09f8e7d6c5b4a392817";
    for (const char *name : {"docker-v1-cgroupfs", "docker-v2-systemd", "containerd-v1", "containerd-v2", "crio-v2",
                             "podman-v2-systemd", "podman-v1-cgroupfs"}) {
        std::ifstream file(std::string(FMON_TEST_DATA "/cgroup/") + name);
        ASSERT_TRUE(file) << name;
        std::stringstream text;
        text << file.rdbuf();
        EXPECT_EQ(container::parse_cgroup(text.str()).chain, Chain{id}) << name;
    }
}

}  // namespace
