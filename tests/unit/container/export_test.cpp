/* The library's own entries on a made-up /proc, with its thread; and on the machine's. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "orx_sensitivedir.h"
#include "testlib/container_world/container_world.h"
#include "testlib/tree.h"

using testlib::made_id;

namespace
{

using Clock = std::chrono::steady_clock;

class ContainerLibExport : public testing::Test
{
protected:
    ContainerLibExport() : world(tree.root())
    {
        world.add({1, 100, "/init.scope", {1, 2}});
        world.add({20, 101, "/docker/" + made_id(1), {30, 31}});
        use();
    }
    ~ContainerLibExport() override { orx_container_set_roots(nullptr, nullptr); }
    void use() { orx_container_set_roots(world.proc().c_str(), tree.root().c_str()); }
    static std::string owner(const char *mount)
    {
        const struct orx_container_mount *record = _orx_get_container_mount(mount);
        return record ? record->label + (" " + std::to_string(record->pid)) : "host";
    }
    testlib::TempTree tree;
    testlib::ContainerWorld world;
};

struct Info {
    explicit Info(const std::string &id) : record(_orx_get_container_info(id.c_str())) {}
    ~Info() { _orx_free_container_info(record); }
    Info(const Info &) = delete;
    Info &operator=(const Info &) = delete;
    struct orx_container_info *record;
};

TEST_F(ContainerLibExport, MountsHaveTheirContainers)
{
    EXPECT_EQ(owner("30"), made_id(1) + " 20");
    EXPECT_EQ("host", owner("1"));
    EXPECT_EQ(owner("31"), made_id(1) + " 20");
}

TEST_F(ContainerLibExport, OddIdsAreTheHosts)
{
    for (const char *id : {"", " 30", "30 ", "-30", "0x1e", "host", "18446744073709551616", "../30"})
        EXPECT_EQ(nullptr, _orx_get_container_mount(id)) << id;
    EXPECT_EQ(nullptr, _orx_get_container_mount(nullptr));
    for (const char *id : {"", "host", "30", "../../../etc"})
        EXPECT_EQ(nullptr, _orx_get_container_info(id)) << id;
    EXPECT_EQ(nullptr, _orx_get_container_info(nullptr));
    _orx_free_container_info(nullptr);
}

TEST_F(ContainerLibExport, NewContainersAreFoundWithinASecond)
{
    EXPECT_EQ("host", owner("50"));
    world.add({40, 102, "/docker/" + made_id(2), {51}});
    testlib::pass_time(std::chrono::seconds(1));
    EXPECT_EQ(owner("51"), made_id(2) + " 40");
}

TEST_F(ContainerLibExport, WhatIsNotKnownIsEmpty)
{
    EXPECT_EQ(owner("30"), made_id(1) + " 20");
    const Info info(made_id(1));
    ASSERT_TRUE(info.record);
    for (const char *text :
         {info.record->mounts, info.record->user, info.record->container_namespace, info.record->image_id,
          info.record->image_name, info.record->image_tag, info.record->repository, info.record->container_name,
          info.record->capability, info.record->ports_binding})
        EXPECT_STREQ("", text);
    EXPECT_EQ(0, info.record->privileged);
    EXPECT_EQ(ORX_CONTAINER_RUNNING, info.record->status);
    EXPECT_EQ(20, info.record->init_pid);
    EXPECT_EQ(nullptr, Info(made_id(9)).record);
}

TEST_F(ContainerLibExport, DetailsComeFromTheDisk)
{
    orx_container_set_roots(world.proc().c_str(), FMON_TEST_DATA "/engines");
    world.add({20, 101, "/docker/" + std::string(64, 'a'), {30}});
    const Info running(std::string(64, 'a')), ended(std::string(64, 'f'));
    ASSERT_TRUE(running.record && ended.record);
    EXPECT_STREQ("web", running.record->container_name);
    EXPECT_STREQ("1.25", running.record->image_tag);
    EXPECT_STREQ("0.0.0.0:8080->80/tcp,:::8080->80/tcp", running.record->ports_binding);
    EXPECT_EQ(20, running.record->init_pid);
    EXPECT_EQ(ORX_CONTAINER_RUNNING, running.record->status);
    EXPECT_EQ(0, ended.record->init_pid);
    EXPECT_EQ(ORX_CONTAINER_ENDED, ended.record->status);
}

TEST_F(ContainerLibExport, PausedOnesAreNotUsable)
{
    world.write("var/lib/docker/containers/" + made_id(1) + "/config.v2.json",
                R"({"Name":"/web","State":{"Running":true,"Paused":true}})");
    const Info info(made_id(1));
    ASSERT_TRUE(info.record);
    EXPECT_EQ(ORX_CONTAINER_PAUSED, info.record->status);
}

/* An id that a container gave to one inside it must not bring up the details of the host's container. */
TEST_F(ContainerLibExport, NestedOnesDoNotBorrowDetails)
{
    orx_container_set_roots(world.proc().c_str(), FMON_TEST_DATA "/engines");
    world.add({21, 102, "/docker/" + made_id(1) + "/docker/" + std::string(64, 'a'), {33}});
    EXPECT_EQ(std::string(64, 'a') + " 21", owner("33"));
    const Info info(std::string(64, 'a'));
    ASSERT_TRUE(info.record);
    EXPECT_STREQ("", info.record->container_name);
}

/* A user's group that is called like a container of the host's, which has ended. */
TEST_F(ContainerLibExport, UsersGroupsDoNotBorrowDetails)
{
    orx_container_set_roots(world.proc().c_str(), FMON_TEST_DATA "/engines");
    world.add({21, 102, "/user@1000.service/docker-" + std::string(64, 'a') + ".scope", {33}});
    EXPECT_EQ(std::string(64, 'a') + "@1000 21", owner("33"));
    const Info info(std::string(64, 'a') + "@1000"), ended(std::string(64, 'a') + "@1001");
    ASSERT_TRUE(info.record);
    EXPECT_STREQ("", info.record->container_name);
    EXPECT_EQ(21, info.record->init_pid);
    EXPECT_FALSE(ended.record);
}

TEST_F(ContainerLibExport, ContainerOfAProcess)
{
    char id[76];
    EXPECT_EQ(0, orx_container_of_process(20, id, sizeof id));
    EXPECT_EQ(id, made_id(1));
    world.add({21, 102, "/docker/" + made_id(1) + "/docker-" + made_id(2) + ".scope", {}});
    EXPECT_EQ(0, orx_container_of_process(21, id, sizeof id));
    EXPECT_EQ(id, made_id(1)) << "names within it are its own choice";
    world.add({22, 102, "/user@4294967294.service/docker-" + made_id(2) + ".scope", {}});
    EXPECT_EQ(0, orx_container_of_process(22, id, sizeof id));
    EXPECT_EQ(id, made_id(2) + "@4294967294");
    EXPECT_EQ(-ENOENT, orx_container_of_process(1, id, sizeof id));
    EXPECT_STREQ("", id);
    EXPECT_EQ(-ENOENT, orx_container_of_process(555, id, sizeof id));
    EXPECT_EQ(-EINVAL, orx_container_of_process(-1, id, sizeof id));
    EXPECT_EQ(-EINVAL, orx_container_of_process(20, nullptr, 5));
}

TEST_F(ContainerLibExport, Census)
{
    struct orx_container_census census;
    EXPECT_EQ(0, orx_container_survey(&census));
    EXPECT_EQ(1u, census.containers);
    EXPECT_EQ(4u, census.mounts);
    EXPECT_EQ(2u, census.processes);
    EXPECT_EQ(-EINVAL, orx_container_survey(nullptr));
    EXPECT_EQ(owner("30"), made_id(1) + " 20") << "look-ups use it";
}

TEST_F(ContainerLibExport, WithoutProcEverythingIsTheHosts)
{
    orx_container_set_roots(tree.path("none").c_str(), nullptr);
    EXPECT_EQ("host", owner("30"));
    struct orx_container_census census;
    EXPECT_EQ(-ENOENT, orx_container_survey(&census));
}

TEST_F(ContainerLibExport, ManyThreadsMayAsk)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([i] {
            for (int j = 0; j < 200; j++) {
                const struct orx_container_mount *record = _orx_get_container_mount("30");
                EXPECT_TRUE(record && record->label == made_id(1));
                _orx_get_container_mount(std::to_string(1000 + i * 200 + j).c_str());
                const Info info(made_id(1));
                EXPECT_TRUE(info.record);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
}

#ifndef __SANITIZE_THREAD__ /* which lets no child of a threaded process start threads */
TEST_F(ContainerLibExport, AForkedChildFindsItsOwnWay)
{
    EXPECT_EQ(owner("30"), made_id(1) + " 20");
    const pid_t child = fork();
    if (child == 0) {
        use();
        _exit(owner("31") == made_id(1) + " 20" ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(0, status);
}

#endif

TEST_F(ContainerLibExport, DescriptorsAreGivenBack)
{
    owner("30");
    use();
    const int before = testlib::open_fds();
    for (int i = 0; i < 10; i++) {
        owner("30");
        const Info info(made_id(1));
        use();
    }
    EXPECT_EQ(testlib::open_fds(), before);
}

/* Processes that come and go during look-ups. A look-up waits for 200 ms at most; the rest is for a machine with other
 * work. */
TEST_F(ContainerLibExport, LookUpsDoNotStallWhileProcessesComeAndGo)
{
    for (int pid = 1000; pid < 2000; pid++)
        world.add({pid, 100, "/user.slice", {}});
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        for (int pid = 10'000; !stop; pid = pid < 12'000 ? pid + 1 : 10'000) {
            world.add({pid, 100 + static_cast<uint64_t>(pid) % 50, "/docker/" + made_id(7), {pid}});
            world.remove(pid - 20);
        }
    });
    Clock::duration longest{};
    const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
    for (int i = 0; Clock::now() < end; i++) {
        const Clock::time_point begin = Clock::now();
        _orx_get_container_mount(std::to_string(10'000 + i % 2000).c_str());
        longest = std::max(longest, Clock::now() - begin);
    }
    stop = true;
    churn.join();
    EXPECT_LT(longest, std::chrono::milliseconds(1000));
    EXPECT_EQ(owner("30"), made_id(1) + " 20");
}

}  // namespace
