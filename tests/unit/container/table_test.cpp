/* Tests of table.h: look-ups, and when a new census is due. */

#include "container/table.h"

#include <gtest/gtest.h>

#include "testlib/container_world/container_world.h"

using container::Census;
using container::Table;
using testlib::made_id;

namespace
{

constexpr uint64_t kNow = 100'000;

/* Mounts 30 of container 1 (process 20), 40 of container 2 (process 21), 1 of the host. */
class ContainerLibTable : public testing::Test
{
protected:
    ContainerLibTable()
    {
        Census census;
        census.containers = {{made_id(1), 20, 20, false}, {made_id(2), 21, 21, false}};
        census.mounts = {{30, 0}, {40, 1}, {1, Census::kHost}};
        table.begin(kNow);
        table.replace(census);
    }
    std::string find(uint64_t mount, uint64_t now = kNow)
    {
        const Table::Answer answer = table.find(mount, now);
        return (answer.found     ? std::to_string(answer.found->pid)
                : answer.unknown ? "unknown"
                                 : "host") +
               (answer.advice == Table::Advice::kRefresh ? " refresh" : "");
    }
    Table table;
};

TEST_F(ContainerLibTable, KnowsWhatTheCensusFound)
{
    EXPECT_EQ(find(30), "20");
    EXPECT_EQ(find(40), "21");
    EXPECT_EQ(find(1), "host");
    ASSERT_TRUE(table.container(made_id(2)));
    EXPECT_EQ(table.container(made_id(2))->pid, 21);
    EXPECT_FALSE(table.container(made_id(3)));
}

TEST_F(ContainerLibTable, AnEmptyOneAsksForACensus)
{
    table = Table();
    EXPECT_EQ(find(30, 0), "unknown refresh");
    table.begin(0);
    EXPECT_EQ(find(30, 0), "unknown");
}

TEST_F(ContainerLibTable, UnknownIdsRefreshOnceASecond)
{
    EXPECT_EQ(find(99, kNow + 999), "unknown");
    EXPECT_EQ(find(99, kNow + 1000), "unknown refresh");
    table.begin(kNow + 1000);
    EXPECT_EQ(find(99, kNow + 1999), "unknown");
}

TEST_F(ContainerLibTable, IdsThatNobodyKnowsAreGivenUpUntilTheNextCensus)
{
    table.give_up(99);
    EXPECT_EQ(find(99, kNow + 4999), "host");
    EXPECT_EQ(find(99, kNow + 5000), "host refresh");
    Census next;
    table.replace(next);
    EXPECT_EQ(find(99, kNow + 5000), "unknown refresh");
}

TEST_F(ContainerLibTable, GivenUpIdsAreBounded)
{
    for (uint64_t id = 1000; id < 20'000; id++)
        table.give_up(id);
    EXPECT_EQ(find(1000), "host");
    EXPECT_EQ(find(19'999), "unknown");
}

TEST_F(ContainerLibTable, KnownIdsAreLookedAtAgainByAge)
{
    EXPECT_EQ(find(30, kNow + 4999), "20");
    EXPECT_EQ(find(30, kNow + 5000), "20 refresh");
    EXPECT_EQ(find(1, kNow + 5000), "host refresh");
}

TEST_F(ContainerLibTable, EndedContainersAreForgottenAtOnce)
{
    table.end(made_id(1), 20);
    EXPECT_EQ(find(30), "unknown");
    EXPECT_EQ(find(30, kNow + 1000), "unknown refresh");
    EXPECT_EQ(find(40), "21");
    EXPECT_FALSE(table.container(made_id(1)));
    table.end(made_id(2), 999); /* another process's end */
    EXPECT_EQ(find(40), "21");
}

TEST_F(ContainerLibTable, ReusedIdsBelongToTheNextOne)
{
    table.end(made_id(1), 20);
    Census next;
    next.containers = {{made_id(3), 25, 25, false}};
    next.mounts = {{30, 0}};
    table.replace(next);
    EXPECT_EQ(find(30), "25");
    EXPECT_EQ(find(40), "unknown");
    EXPECT_EQ(next.containers.size(), 2u) << "the old one is handed back";
}

}  // namespace
