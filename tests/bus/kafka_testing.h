/*
 * kafka_testing.h: the mock cluster of Kafka's own client library, and an output into it.
 */
#ifndef BUS_KAFKA_TESTING_H
#define BUS_KAFKA_TESTING_H

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <string>
#include <vector>

#include "bus_testing.h"

namespace bus_testing
{

/* A message of a topic. */
struct Arrived {
    std::string id, host, key;
};

/* The cluster, with the topic "fmon". */
class Cluster
{
public:
    explicit Cluster(int partitions, int brokers = 3);
    ~Cluster();
    Cluster(const Cluster &) = delete;
    Cluster &operator=(const Cluster &) = delete;

    rd_kafka_mock_cluster_t *get() { return mock_; }
    std::vector<std::string> addresses() const { return {rd_kafka_mock_cluster_bootstraps(mock_)}; }
    void set_all(bool up);
    void delay(int ms); /* each answer */

    /* All that is in the topic. */
    std::vector<Arrived> read() const;

private:
    rd_kafka_t *make(rd_kafka_type_t type) const;
    uint64_t stored(rd_kafka_t *consumer) const;

    const int partitions_, brokers_;
    rd_kafka_t *owner_;
    rd_kafka_mock_cluster_t *mock_;
};

class BusKafka : public BusTest
{
protected:
    output::Settings settings(const std::vector<std::string> &brokers) const;
    bool open(const output::Settings &all) { return BusTest::open("kafka", all); }
    /* All has arrived; `twice`: and some may have more than once. */
    void check(const Cluster &cluster, const char *what, const char *cut, bool twice = false);
};

}  // namespace bus_testing

#endif
