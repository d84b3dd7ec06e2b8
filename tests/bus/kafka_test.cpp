/* Records into the mock cluster of Kafka's own client library, whose brokers fail and answer late when told: what
 * arrived in the topic is what was accepted, once each when ids that were seen before are left out. */
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <algorithm>
#include <fstream>

#include "bus_testing.h"

using namespace bus_testing;
using output::Settings;

namespace
{

constexpr int kBrokers = 3;
constexpr int16_t kProduce = 0; /* the number of the request */

struct Arrived {
    std::string id, host, key;
};

/* The cluster, and a consumer of its topic. */
class Cluster
{
public:
    explicit Cluster(int partitions)
        : owner_(make(RD_KAFKA_PRODUCER)), mock_(rd_kafka_mock_cluster_new(owner_, kBrokers)), partitions_(partitions)
    {
        rd_kafka_mock_topic_create(mock_, "fmon", partitions, kBrokers);
    }
    ~Cluster()
    {
        rd_kafka_mock_cluster_destroy(mock_);
        rd_kafka_destroy(owner_);
    }
    Cluster(const Cluster &) = delete;
    Cluster &operator=(const Cluster &) = delete;

    rd_kafka_mock_cluster_t *get() { return mock_; }
    std::vector<std::string> addresses() const { return {rd_kafka_mock_cluster_bootstraps(mock_)}; }
    void set_all(bool up)
    {
        for (int32_t broker = 1; broker <= kBrokers; broker++)
            up ? rd_kafka_mock_broker_set_up(mock_, broker) : rd_kafka_mock_broker_set_down(mock_, broker);
    }

    void delay(int ms)
    {
        for (int32_t broker = 1; broker <= kBrokers; broker++)
            rd_kafka_mock_broker_set_rtt(mock_, broker, ms);
    }

    /* All that is in the topic. */
    std::vector<Arrived> read()
    {
        rd_kafka_t *const consumer = make(RD_KAFKA_CONSUMER);
        rd_kafka_topic_partition_list_t *const list = rd_kafka_topic_partition_list_new(partitions_);
        for (int i = 0; i < partitions_; i++)
            rd_kafka_topic_partition_list_add(list, "fmon", i)->offset = 0;
        rd_kafka_assign(consumer, list);
        rd_kafka_topic_partition_list_destroy(list);
        std::vector<Arrived> all;
        const uint64_t end = now_ms() + kPatienceMs;
        for (const uint64_t count = stored(consumer); all.size() < count && now_ms() < end;) {
            rd_kafka_message_t *const message = rd_kafka_consumer_poll(consumer, 100);
            if (message && message->err == RD_KAFKA_RESP_ERR_NO_ERROR)
                all.push_back(arrived(message));
            if (message)
                rd_kafka_message_destroy(message);
        }
        rd_kafka_consumer_close(consumer);
        rd_kafka_destroy(consumer);
        return all;
    }

private:
    rd_kafka_t *make(rd_kafka_type_t type) const
    {
        rd_kafka_conf_t *conf = rd_kafka_conf_new();
        rd_kafka_conf_set_log_cb(conf, [](const rd_kafka_t *, int, const char *, const char *) {});
        if (type == RD_KAFKA_CONSUMER) {
            rd_kafka_conf_set(conf, "bootstrap.servers", addresses()[0].c_str(), nullptr, 0);
            rd_kafka_conf_set(conf, "group.id", "test", nullptr, 0);
            rd_kafka_conf_set(conf, "fetch.wait.max.ms", "10", nullptr, 0);
        }
        return rd_kafka_new(type, conf, nullptr, 0);
    }
    /* How many messages the topic holds. */
    uint64_t stored(rd_kafka_t *consumer) const
    {
        uint64_t count = 0;
        for (int i = 0; i < partitions_; i++) {
            int64_t low = 0, high = 0;
            EXPECT_EQ(RD_KAFKA_RESP_ERR_NO_ERROR,
                      rd_kafka_query_watermark_offsets(consumer, "fmon", i, &low, &high, kPatienceMs));
            count += static_cast<uint64_t>(high - low);
        }
        return count;
    }
    static Arrived arrived(const rd_kafka_message_t *message)
    {
        Arrived out;
        rd_kafka_headers_t *headers = nullptr;
        const void *value;
        size_t size;
        out.key.assign(static_cast<const char *>(message->key), message->key_len);
        if (rd_kafka_message_headers(message, &headers) != RD_KAFKA_RESP_ERR_NO_ERROR)
            return out;
        if (rd_kafka_header_get_last(headers, "fmon-id", &value, &size) == RD_KAFKA_RESP_ERR_NO_ERROR)
            out.id.assign(static_cast<const char *>(value), size);
        if (rd_kafka_header_get_last(headers, "fmon-host", &value, &size) == RD_KAFKA_RESP_ERR_NO_ERROR)
            out.host.assign(static_cast<const char *>(value), size);
        return out;
    }

    rd_kafka_t *owner_;
    rd_kafka_mock_cluster_t *mock_;
    const int partitions_;
};

class BusKafka : public testing::Test
{
protected:
    Settings settings(const Cluster &cluster)
    {
        Settings out;
        out.set("brokers", cluster.addresses());
        out.set("topic", std::string("fmon"));
        out.set("key", std::string("host"));
        out.set("spool", tree.path("spool"));
        out.set("heartbeat", uint64_t{0});
        out.set("options", std::vector<std::string>{"reconnect.backoff.max.ms=200"});
        return out;
    }
    bool open(const Settings &all)
    {
        std::string error;
        const bool opened = feed.open("kafka", all, error);
        EXPECT_TRUE(opened) << error;
        return opened;
    }
    bool is_stuck_with(const std::string &text)
    {
        return wait_until([&] {
            const output::Condition condition = feed.sink().condition();
            last_condition = condition.text;
            return condition.stuck && condition.text.find(text) != std::string::npos;
        });
    }
    /* All has arrived; `twice`: and some may have more than once. */
    void check(Cluster &cluster, const char *what, const char *cut, bool twice = false)
    {
        ASSERT_TRUE(feed.sink().drain(kPatienceMs)) << feed.sink().condition().text;
        std::vector<std::string> ids;
        for (const Arrived &one : cluster.read())
            ids.push_back(one.id);
        const Balance balance = balance_of(feed.given(), ids);
        print_row(what, balance, cut);
        EXPECT_EQ(0u, balance.lost);
        EXPECT_EQ(0u, balance.strange);
        EXPECT_TRUE(twice || balance.twice == 0) << balance.twice;
        EXPECT_EQ(0u, feed.sink().figures().dropped);
    }

    testlib::TempTree tree;
    Feed feed;
    std::string last_condition;
};

}  // namespace

TEST_F(BusKafka, RecordsArriveInOrderWithTheirNames)
{
    Cluster cluster(1);
    ASSERT_TRUE(open(settings(cluster)));
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
    ASSERT_TRUE(open(settings(cluster)));
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
    ASSERT_TRUE(open(settings(cluster)));
    feed.put(5000);
    ASSERT_TRUE(feed.sink().drain(kPatienceMs)) << feed.sink().condition().text;
    cluster.delay(0); /* who reads is not delayed */
    check(cluster, "late answers", is_long() ? "each after 3 s" : "each after 0.15 s");
}

TEST_F(BusKafka, AClusterThatIsDownIsSaidAndAwaited)
{
    Cluster cluster(1);
    cluster.set_all(false);
    ASSERT_TRUE(open(settings(cluster)));
    feed.put(1000);
    EXPECT_TRUE(is_stuck_with("brokers are down")) << last_condition;
    cluster.set_all(true);
    check(cluster, "late cluster", "down until the records were there");
    EXPECT_FALSE(feed.sink().condition().stuck);
}

TEST_F(BusKafka, WhatTheBrokersNeverTakeIsCountedAndTheRestArrives)
{
    Cluster cluster(1);
    Settings all = settings(cluster);
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
    Settings all = settings(cluster);
    all.set("compression", std::string("none at all"));
    ASSERT_TRUE(open(all));
    EXPECT_TRUE(is_stuck_with("compression.codec")) << last_condition;
}

TEST_F(BusKafka, AMissingFileIsSaidAndMended)
{
    Cluster cluster(1);
    Settings all = settings(cluster);
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
