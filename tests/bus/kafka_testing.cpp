#include "kafka_testing.h"

namespace bus_testing
{

namespace
{

std::string header_of(const rd_kafka_headers_t *headers, const char *name)
{
    const void *value;
    size_t size;
    if (rd_kafka_header_get_last(headers, name, &value, &size) != RD_KAFKA_RESP_ERR_NO_ERROR)
        return "";
    return {static_cast<const char *>(value), size};
}

Arrived arrived(const rd_kafka_message_t *message)
{
    Arrived out;
    rd_kafka_headers_t *headers = nullptr;
    out.key.assign(static_cast<const char *>(message->key), message->key_len);
    if (rd_kafka_message_headers(message, &headers) != RD_KAFKA_RESP_ERR_NO_ERROR)
        return out;
    out.id = header_of(headers, "fmon-id");
    out.host = header_of(headers, "fmon-host");
    return out;
}

}  // namespace

Cluster::Cluster(int partitions, int brokers)
    : partitions_(partitions),
      brokers_(brokers),
      owner_(make(RD_KAFKA_PRODUCER)),
      mock_(rd_kafka_mock_cluster_new(owner_, brokers))
{
    rd_kafka_mock_topic_create(mock_, "fmon", partitions, brokers);
}

Cluster::~Cluster()
{
    rd_kafka_mock_cluster_destroy(mock_);
    rd_kafka_destroy(owner_);
}

void Cluster::set_all(bool up)
{
    for (int32_t broker = 1; broker <= brokers_; broker++)
        up ? rd_kafka_mock_broker_set_up(mock_, broker) : rd_kafka_mock_broker_set_down(mock_, broker);
}

void Cluster::delay(int ms)
{
    for (int32_t broker = 1; broker <= brokers_; broker++)
        rd_kafka_mock_broker_set_rtt(mock_, broker, ms);
}

rd_kafka_t *Cluster::make(rd_kafka_type_t type) const
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
uint64_t Cluster::stored(rd_kafka_t *consumer) const
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

std::vector<Arrived> Cluster::read() const
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

output::Settings BusKafka::settings(const std::vector<std::string> &brokers) const
{
    output::Settings out;
    out.set("brokers", brokers);
    out.set("topic", std::string("fmon"));
    out.set("key", std::string("host"));
    out.set("spool", tree.path("spool"));
    out.set("heartbeat", uint64_t{0});
    out.set("options", std::vector<std::string>{"reconnect.backoff.max.ms=200"});
    return out;
}

void BusKafka::check(const Cluster &cluster, const char *what, const char *cut, bool twice)
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

}  // namespace bus_testing
