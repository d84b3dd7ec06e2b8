/* Records into the mock cluster of Kafka's own client library, whose brokers fail and answer late when told: what
 * arrived in the topic is what was accepted, once each when ids that were seen before are left out. */
#include <sys/stat.h>

#include <algorithm>

#include "kafka_testing.h"

using namespace bus_testing;
using output::Settings;

namespace
{

constexpr int16_t kProduce = 0; /* the number of the request */

}  // namespace

TEST_F(BusKafka, RecordsArriveInOrderWithTheirNames)
{
    Cluster cluster(1);
    ASSERT_TRUE(open(settings(cluster.addresses())));
    feed.put(5000);
    ASSERT_TRUE(feed.sink().drain(kPatienceMs)) << feed.sink().condition().text;
    const std::vector<Arrived> all = cluster.read();
    ASSERT_EQ(5000u, all.size());
    for (uint64_t number = 1; number <= 5000; number++)
        ASSERT_EQ(Feed::id(number), all[number - 1].id);
    EXPECT_EQ("host.example", all[0].host);
    EXPECT_EQ("host.example", all[0].key);
    EXPECT_EQ(5000u, feed.sink().safe());
}

TEST_F(BusKafka, BrokersThatFailLoseNothing)
{
    Cluster cluster(3);
    ASSERT_TRUE(open(settings(cluster.addresses())));
    const uint64_t part = is_long() ? 50'000 : 3000;
    feed.put(part);
    rd_kafka_mock_push_request_errors(cluster.get(), kProduce, 4, RD_KAFKA_RESP_ERR_NOT_LEADER_FOR_PARTITION,
                                      RD_KAFKA_RESP_ERR_NOT_ENOUGH_REPLICAS, RD_KAFKA_RESP_ERR__TRANSPORT,
                                      RD_KAFKA_RESP_ERR_REQUEST_TIMED_OUT);
    feed.put(part);
    rd_kafka_mock_broker_set_down(cluster.get(), 1);
    feed.put(part);
    rd_kafka_mock_broker_set_up(cluster.get(), 1);
    feed.put(part);
    check(cluster, "failing brokers", "errors, a broker down and up again", true);
}

TEST_F(BusKafka, LateAnswersLoseNothing)
{
    Cluster cluster(1);
    cluster.delay(is_long() ? 3000 : 150);
    ASSERT_TRUE(open(settings(cluster.addresses())));
    feed.put(5000);
    ASSERT_TRUE(feed.sink().drain(kPatienceMs)) << feed.sink().condition().text;
    cluster.delay(0); /* who reads is not delayed */
    check(cluster, "late answers", is_long() ? "each after 3 s" : "each after 0.15 s");
}

TEST_F(BusKafka, AClusterThatIsDownIsSaidAndAwaited)
{
    Cluster cluster(1);
    cluster.set_all(false);
    ASSERT_TRUE(open(settings(cluster.addresses())));
    feed.put(1000);
    EXPECT_TRUE(is_stuck_with("brokers are down")) << last_condition;
    cluster.set_all(true);
    check(cluster, "late cluster", "down until the records were there");
    EXPECT_FALSE(feed.sink().condition().stuck);
}

TEST_F(BusKafka, WhatTheBrokersNeverTakeIsCountedAndTheRestArrives)
{
    Cluster cluster(1);
    Settings all = settings(cluster.addresses());
    all.set("options", std::vector<std::string>{"message.max.bytes=2000"});
    ASSERT_TRUE(open(all));
    feed.put(10);
    feed.put(1, 5000);
    feed.put(10);
    ASSERT_TRUE(feed.sink().drain(kPatienceMs));
    EXPECT_EQ(1u, feed.sink().figures().dropped);
    std::vector<Arrived> arrived; /* a record tells of the loss, a little later */
    EXPECT_TRUE(wait_until([&] { return (arrived = cluster.read()).size() == 21; })) << arrived.size();
    EXPECT_TRUE(
        std::none_of(arrived.begin(), arrived.end(), [](const Arrived &one) { return one.id == Feed::id(11); }));
}

TEST_F(BusKafka, ASettingThatTheEngineRefusesIsSaid)
{
    Cluster cluster(1);
    Settings all = settings(cluster.addresses());
    all.set("compression", std::string("none at all"));
    ASSERT_TRUE(open(all));
    EXPECT_TRUE(is_stuck_with("compression.codec")) << last_condition;
}

TEST_F(BusKafka, AMissingFileIsSaidAndMended)
{
    Cluster cluster(1);
    Settings all = settings(cluster.addresses());
    all.set("user", std::string("fmon"));
    all.set("password", tree.path("password"));
    ASSERT_TRUE(open(all));
    feed.put(10);
    EXPECT_TRUE(is_stuck_with("password")) << last_condition;
    const std::string password = tree.file("password", "geheim\n");
    chmod(password.c_str(), 0644);
    EXPECT_TRUE(is_stuck_with("read")) << last_condition;
    EXPECT_EQ(std::string::npos, last_condition.find("geheim"));
    chmod(password.c_str(), 0600);
    check(cluster, "missing file", "until the file was there");
}
