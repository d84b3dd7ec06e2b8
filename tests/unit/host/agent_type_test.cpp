/* Tests of agent_type.h: host or container, by what lies on the disk. */

#include "agent_type.h"

#include <cstring>

#include "host_support.h"

namespace
{

using host_test::Environment;
using host_test::TempDir;

/* A machine's root directory; one whose host's files are in sight, unless told otherwise. */
class Machine
{
public:
    explicit Machine(bool host_in_sight = true)
    {
        if (host_in_sight) {
            root_.dir("rootfs/etc");
            root_.dir("rootfs/usr");
        }
    }
    Machine &has(const std::string &file, const std::string &content = "")
    {
        root_.file(file, content);
        return *this;
    }
    std::string type(const char *forced = nullptr) const { return host::container_type(root_.path(), forced); }
    const TempDir &root() const { return root_; }

private:
    TempDir root_;
};

std::string environment(const std::string &text)
{
    std::string all = text;
    for (char &c : all)
        if (c == '|')
            c = 0;
    return all;
}

TEST(AgentType, IsHostWithoutEvidence)
{
    EXPECT_EQ("", Machine().type());
    EXPECT_EQ("", Machine(false).type());
    EXPECT_EQ("", Machine()
                      .has("proc/1/cgroup", "0::/init.scope\n")
                      .has("proc/1/environ", environment("HOME=/|TERM=linux|"))
                      .type());
}

TEST(AgentType, SaysWhichKindOfContainer)
{
    EXPECT_EQ("docker", Machine().has(".dockerenv").type());
    EXPECT_EQ("podman", Machine().has("run/.containerenv").type());
    EXPECT_EQ("lxc", Machine().has("proc/1/environ", environment("PATH=/bin|container=lxc|")).type());
    EXPECT_EQ("podman", Machine().has("proc/1/environ", environment("container=podman")).type());
    EXPECT_EQ("container", Machine().has("proc/1/environ", environment("container=systemd-nspawn|")).type());
    EXPECT_EQ("docker", Machine().has("proc/1/cgroup", "0::/system.slice/docker-0123.scope\n").type());
    EXPECT_EQ("podman", Machine().has("proc/1/cgroup", "0::/machine.slice/libpod-0123.scope\n").type());
    EXPECT_EQ("lxc", Machine().has("proc/1/cgroup", "1:name=systemd:/lxc/box\n").type());
    EXPECT_EQ("container", Machine().has("proc/1/cgroup", "0::/system.slice/containerd.service/x\n").type());
    EXPECT_EQ("kubernetes", Machine().has("proc/1/cgroup", "0::/kubepods.slice/kubepods-pod1.slice/x\n").type());
    EXPECT_EQ("kubernetes", Machine().has("proc/1/environ", environment("KUBERNETES_SERVICE_HOST=10.0.0.1|")).type());
    EXPECT_EQ("kubernetes",
              Machine().has("proc/self/environ", environment("KUBERNETES_SERVICE_HOST=10.0.0.1|")).type());
    EXPECT_EQ("kubernetes", Machine().has(".dockerenv").has("proc/1/cgroup", "0::/kubepods/x\n").type());
}

/* The container mode of the module looks at the host's files below /rootfs: without them it would see nothing. */
TEST(AgentType, IsHostWhereTheHostsFilesAreOutOfSight)
{
    EXPECT_EQ("", Machine(false).has(".dockerenv").type());
    Machine half(false);
    half.root().dir("rootfs/etc");
    EXPECT_EQ("", half.has(".dockerenv").type());
    Machine files(false);
    EXPECT_EQ("", files.has("rootfs/etc").has("rootfs/usr").has(".dockerenv").type()) << "not directories";
    Machine itself(false);
    itself.root().dir("etc");
    itself.root().dir("usr");
    std::filesystem::create_directory_symlink(".", itself.root().path("rootfs"));
    EXPECT_EQ("", itself.has(".dockerenv").type()) << "its own files are not a host's";
}

TEST(AgentType, NeedsMoreThanASimilarName)
{
    Machine machine;
    machine.has("proc/1/environ", environment("container=|mycontainer=docker|CONTAINER=docker|containers=docker|"));
    EXPECT_EQ("", machine.type());
}

TEST(AgentType, ReadsNoMoreThanItNeeds)
{
    Machine machine;
    machine.has("proc/1/environ", std::string(200000, 'x')).has("proc/1/cgroup", std::string(300000, '\n'));
    EXPECT_EQ("", machine.type());
}

TEST(AgentType, IsWhatItIsForcedToBe)
{
    Machine container, host(false);
    container.has(".dockerenv");
    EXPECT_EQ("", container.type("host"));
    EXPECT_EQ("container", host.type("container"));
    EXPECT_EQ("container", host.type("container:"));
    EXPECT_EQ("lxc", host.type("container:lxc"));
    for (const char *unknown : {"", "HOST", "docker", "containers", "host "}) {
        EXPECT_EQ("docker", container.type(unknown)) << unknown;
        EXPECT_EQ("", host.type(unknown)) << unknown;
    }
}

TEST(AgentType, AnswersThroughItsEntry)
{
    char type[20] = "";
    {
        Environment forced("FMON_AGENT_TYPE", "host");
        EXPECT_EQ(-1, GetAgentType(type, sizeof type));
        EXPECT_STREQ("", type);
    }
    Environment forced("FMON_AGENT_TYPE", "container:kubernetes");
    EXPECT_EQ(0, GetAgentType(type, sizeof type));
    EXPECT_STREQ("kubernetes", type);
    memset(type, 'x', sizeof type);
    EXPECT_EQ(0, GetAgentType(type, 5));
    EXPECT_EQ(0, memcmp(type, "kube\0x", 6)) << "cut, and terminated";
    EXPECT_EQ(0, GetAgentType(type, 1));
    EXPECT_STREQ("", type);
    EXPECT_EQ(-1, GetAgentType(type, 0));
    EXPECT_EQ(-1, GetAgentType(type, -5));
    EXPECT_EQ(GetAgentType(nullptr, 20), -1);
}

}  // namespace
