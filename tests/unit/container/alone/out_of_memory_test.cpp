/* Out of memory at every allocation of every entry of the container library: it fails as it says, no exception leaves
 * it, and the next call works as if nothing had been. */
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "orx_sensitivedir.h"
#include "testlib/container_world/container_world.h"
#include "testlib/failing_new.h"
#include "testlib/tree.h"

namespace
{

thread_local long left = -1; /* allocations until one fails; negative: none does */
thread_local bool failed = false;
thread_local bool is_mine = false;
std::atomic<long> others_left{-1}; /* the same of all other threads */
std::atomic<bool> others_failed{false};

}  // namespace

bool testlib::allocation_fails()
{
    if (is_mine) {
        if (left < 0 || left-- != 0)
            return false;
        failed = true;
    } else {
        if (others_left < 0 || others_left-- != 0)
            return false;
        others_failed = true;
    }
    return true;
}

namespace
{

/* Fails the 1st, 2nd, ... allocation of `call`, until it is not reached. Returns how many were. */
template <typename Call>
int fail_each_allocation(Call &&call)
{
    for (int n = 0; n < 5000; n++) {
        failed = false;
        left = n;
        call();
        left = -1;
        if (!failed)
            return n;
    }
    ADD_FAILURE() << "it never succeeded";
    return 0;
}

class ContainerLibOutOfMemory : public testing::Test
{
protected:
    ContainerLibOutOfMemory() : world(tree.root())
    {
        is_mine = true;
        world.add({1, 100, "/init.scope", {1, 2}});
        world.add({20, 101, "/docker/" + id, {30, 31}});
        use();
    }
    ~ContainerLibOutOfMemory() override { orx_container_set_roots(nullptr, nullptr); }
    void use() const { EXPECT_EQ(0, orx_container_set_roots(world.proc().c_str(), FMON_TEST_DATA "/engines")); }
    static std::string owner()
    {
        const struct orx_container_mount *record = _orx_get_container_mount("30");
        return record ? record->label : "host";
    }

    const std::string id = std::string(64, 'a'); /* of one that Docker's files describe */
    testlib::TempTree tree;
    testlib::ContainerWorld world;
};

TEST_F(ContainerLibOutOfMemory, Survey)
{
    struct orx_container_census census;
    EXPECT_GT(fail_each_allocation([&] {
                  const int32_t status = orx_container_survey(&census);
                  EXPECT_EQ(status, failed ? -ENOMEM : 0);
              }),
              10);
    EXPECT_EQ(4u, census.mounts);
    EXPECT_EQ(owner(), id);
}

TEST_F(ContainerLibOutOfMemory, MountsThatAreKnown)
{
    EXPECT_EQ(owner(), id);
    EXPECT_GT(fail_each_allocation([&] {
                  const struct orx_container_mount *record = _orx_get_container_mount("30");
                  EXPECT_EQ(record == nullptr, failed);
              }),
              0);
}

/* The library's thread leaves everything as it was, and goes on. */
TEST_F(ContainerLibOutOfMemory, TheThread)
{
    int n = 0;
    for (bool reached = true; reached && n < 1000; n++) {
        use();
        others_failed = false;
        others_left = n;
        const std::string seen = owner();
        others_left = -1;
        reached = others_failed;
        EXPECT_EQ(seen, reached ? "host" : id) << n;
    }
    EXPECT_GT(n, 10);
    EXPECT_LT(n, 1000);
}

TEST_F(ContainerLibOutOfMemory, Details)
{
    struct orx_container_census census;
    orx_container_survey(&census);
    struct orx_container_info *info = nullptr;
    EXPECT_GT(fail_each_allocation([&] {
                  _orx_free_container_info(info);
                  info = _orx_get_container_info(id.c_str());
                  EXPECT_EQ(info == nullptr, failed);
              }),
              10);
    ASSERT_NE(nullptr, info);
    EXPECT_STREQ("web", info->container_name);
    _orx_free_container_info(info);
}

TEST_F(ContainerLibOutOfMemory, TheRest)
{
    char out[65];
    EXPECT_GT(fail_each_allocation([&] {
                  const int32_t status = orx_container_of_process(20, out, sizeof out);
                  EXPECT_EQ(status, failed ? -ENOMEM : 0);
              }),
              0);
    EXPECT_EQ(out, id);
    const std::string proc = world.proc();
    EXPECT_GT(fail_each_allocation([&] {
                  const int32_t status = orx_container_set_roots(proc.c_str(), FMON_TEST_DATA "/engines");
                  EXPECT_EQ(status, failed ? -ENOMEM : 0);
              }),
              0);
    EXPECT_EQ(owner(), id);
}

}  // namespace
