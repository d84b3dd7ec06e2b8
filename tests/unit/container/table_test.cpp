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
    EXPECT_EQ("20", find(30));
    EXPECT_EQ("21", find(40));
    EXPECT_EQ("host", find(1));
    ASSERT_TRUE(table.container(made_id(2)));
    EXPECT_EQ(21, table.container(made_id(2))->pid);
    EXPECT_FALSE(table.container(made_id(3)));
}

TEST_F(ContainerLibTable, AnEmptyOneAsksForACensus)
{
    table = Table();
    EXPECT_EQ("unknown refresh", find(30, 0));
    table.begin(0);
    EXPECT_EQ("unknown", find(30, 0));
}

TEST_F(ContainerLibTable, UnknownIdsRefreshOnceASecond)
{
    EXPECT_EQ("unknown", find(99, kNow + 999));
    EXPECT_EQ("unknown refresh", find(99, kNow + 1000));
    table.begin(kNow + 1000);
    EXPECT_EQ("unknown", find(99, kNow + 1999));
}

TEST_F(ContainerLibTable, IdsThatNobodyKnowsAreGivenUpUntilTheNextCensus)
{
    table.give_up(99);
    EXPECT_EQ("host", find(99, kNow + 4999));
    EXPECT_EQ("host refresh", find(99, kNow + 5000));
    Census next;
    table.replace(next);
    EXPECT_EQ("unknown refresh", find(99, kNow + 5000));
}

TEST_F(ContainerLibTable, GivenUpIdsAreBounded)
{
    for (uint64_t id = 1000; id < 20'000; id++)
        table.give_up(id);
    EXPECT_EQ("host", find(1000));
    EXPECT_EQ("unknown", find(19'999));
}

TEST_F(ContainerLibTable, KnownIdsAreLookedAtAgainByAge)
{
    EXPECT_EQ("20", find(30, kNow + 4999));
    EXPECT_EQ("20 refresh", find(30, kNow + 5000));
    EXPECT_EQ("host refresh", find(1, kNow + 5000));
}

TEST_F(ContainerLibTable, EndedContainersAreForgottenAtOnce)
{
    table.end(made_id(1), 20);
    EXPECT_EQ("unknown", find(30));
    EXPECT_EQ("unknown refresh", find(30, kNow + 1000));
    EXPECT_EQ("21", find(40));
    EXPECT_FALSE(table.container(made_id(1)));
    table.end(made_id(2), 999); /* another process's end */
    EXPECT_EQ("21", find(40));
}

TEST_F(ContainerLibTable, ReusedIdsBelongToTheNextOne)
{
    table.end(made_id(1), 20);
    Census next;
    next.containers = {{made_id(3), 25, 25, false}};
    next.mounts = {{30, 0}};
    table.replace(next);
    EXPECT_EQ("25", find(30));
    EXPECT_EQ("unknown", find(40));
    EXPECT_EQ(2u, next.containers.size()) << "the old one is handed back";
}

}  // namespace
