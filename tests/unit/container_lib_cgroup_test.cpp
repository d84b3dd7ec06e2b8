#include "container/cgroup.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "testlib/container_world/container_world.h"

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
        EXPECT_EQ(container::chain_of_path(path), Chain{kA}) << path;
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
        EXPECT_EQ(container::chain_of_path(path), Chain{}) << path;
}

TEST(ContainerLibCgroup, NestedOnesAreListedFromOutside)
{
    EXPECT_EQ(container::chain_of_path("/docker/" + kA + "/docker/" + kB), (Chain{kA, kB}));
    EXPECT_EQ(container::chain_of_path("/system.slice/docker-" + kA + ".scope/kubepods/crio-" + kB + ".scope/x"),
              (Chain{kA, kB}));
    EXPECT_EQ(container::chain_of_path("/docker/" + kA + "/docker-" + kA + ".scope"), Chain{kA});
}

TEST(ContainerLibCgroup, DepthIsBounded)
{
    std::string path;
    for (unsigned i = 0; i < 100; i++)
        path += "/" + made_id(i);
    EXPECT_EQ(container::chain_of_path(path).size(), 8u);
}

TEST(ContainerLibCgroup, FirstHierarchyThatNamesOneCounts)
{
    EXPECT_EQ(container::parse_cgroup("12:pids:/\n11:memory:/docker/" + kA + "\n0::/docker/" + kB + "\n"), Chain{kA});
    EXPECT_EQ(container::parse_cgroup("0::/docker/" + kA), Chain{kA}) << "without a newline";
    EXPECT_EQ(container::parse_cgroup("1:name=systemd:/\n0::/\n"), Chain{});
    EXPECT_EQ(container::parse_cgroup("5:cpu,cpuacct:/a:b/docker/" + kA + "\n"), Chain{kA}) << "a colon in a name";
}

TEST(ContainerLibCgroup, RubbishIsNoContainer)
{
    for (const std::string &text : {std::string(), std::string("\n\n\n"), std::string(":::"), std::string(100000, '/'),
                                    std::string(100000, ':'), std::string(64, '\0'), "0:" + kA, kA})
        EXPECT_EQ(container::parse_cgroup(text), Chain{});
    EXPECT_EQ(container::parse_cgroup(std::string(64, '\n') + "0::/docker/" + kA), Chain{}) << "too many lines";
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
        EXPECT_EQ(container::parse_cgroup(text.str()), Chain{id}) << name;
    }
}

}  // namespace
