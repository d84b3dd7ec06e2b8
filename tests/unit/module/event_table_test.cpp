/* The table of records by itself. */
#include <cstring>

#include "core_fixture.h"

namespace
{

using namespace testlib;

struct Table {
    explicit Table(int32_t max_events) { result = event_init(&monitor, max_events); }
    ~Table() { event_deinit(&monitor); }
    struct fmon monitor = {};
    int result;
};

TEST(EventTable, HasATwelfthOfTheLimitButAtLeast32Chains)
{
    const int sizes[][2] = {{1, 32},    {100, 32},    {383, 32},     {384, 32},     {395, 32},    {396, 33},
                            {1000, 83}, {10000, 833}, {12000, 1000}, {12011, 1000}, {12012, 1001}};
    for (auto [limit, chains] : sizes) {
        Table table(limit);
        EXPECT_EQ(0, table.result);
        EXPECT_EQ(limit, table.monitor.max_events);
        EXPECT_EQ(chains, table.monitor.hash_size) << limit;
    }
}

TEST(EventTable, StartsEmpty)
{
    Table table(12000);
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(nullptr, table.monitor.hash[i]);
}

TEST(EventTable, WithoutMemoryThereIsNone)
{
    Fault fault("calloc");
    Table table(100);
    EXPECT_EQ(FMON_ENOMEM, table.result);
    EXPECT_EQ(nullptr, table.monitor.hash);
    EXPECT_TRUE(fault.hit());
}

TEST(EventTable, StopForgetsTheChains)
{
    Table table(100);
    event_deinit(&table.monitor);
    EXPECT_EQ(nullptr, table.monitor.hash);
    event_deinit(&table.monitor);
}

TEST(EventTable, FreeingNothingIsAccepted) { _event_free(nullptr); }

TEST(EventTable, FreesARecordThatWasNeverLinked)
{
    auto *ev = static_cast<struct event *>(calloc(1, sizeof(struct event)));
    ev->path = strdup("/a");
    ev->container = strdup("host");
    _event_free(ev);
}

TEST(EventTable, RecordOutsideTheTableOnlyCountsDown)
{
    Table table(100);
    table.monitor.event_count = 1;
    event_free(&table.monitor, static_cast<struct event *>(calloc(1, sizeof(struct event))));
    EXPECT_EQ(0, table.monitor.event_count);
}

TEST(EventTableDeathTest, CountNeverWraps)
{
    struct fmon monitor = {};
    monitor.event_count = INT32_MIN;
    auto *ev = static_cast<struct event *>(calloc(1, sizeof(struct event)));
    EXPECT_EXIT(event_free(&monitor, ev), ::testing::KilledBySignal(SIGABRT), "");
    free(ev);
}

}  // namespace
