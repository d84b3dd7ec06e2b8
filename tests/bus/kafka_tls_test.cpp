/* Kafka behind TLS and SASL: what is encrypted and by whom, who logs in and how, what is said of a certificate, a
 * password or a mechanism that is wrong, and that no password is in it. */
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "authority.h"
#include "kafka_gate.h"
#include "kafka_testing.h"

using namespace bus_testing;
using output::Settings;

namespace
{

class BusKafkaTls : public BusKafka
{
protected:
    void SetUp() override { NEED(!program_path("openssl").empty(), "there is no openssl"); }

    /* A gate before the cluster, whose certificate is for this name. */
    std::unique_ptr<KafkaGate> make_gate(const std::string &name, const std::string &mechanism = "")
    {
        Authority(tree.root()).certify(name);
        const std::string broker = cluster.addresses()[0];
        const int port = atoi(broker.substr(broker.rfind(':') + 1).c_str());
        return std::make_unique<KafkaGate>(port, KafkaGate::Plan{tree.path("server.pem"), tree.path("server.key"),
                                                                 mechanism, std::string("\0fmon\0right-one", 15)});
    }
    Settings settings(const KafkaGate &gate) const
    {
        Settings all = BusKafka::settings({gate.address("127.0.0.1")});
        all.set("ca", tree.path("ca.pem"));
        return all;
    }
    Settings settings(const KafkaGate &gate, const std::string &mechanism, const std::string &password) const
    {
        Settings all = settings(gate);
        std::ofstream(tree.path("password")) << password << "\n";
        chmod(tree.path("password").c_str(), 0600);
        all.set("sasl", mechanism);
        all.set("user", std::string("fmon"));
        all.set("password", tree.path("password"));
        return all;
    }

    Cluster cluster{1, 1};
};

}  // namespace

TEST_F(BusKafkaTls, RecordsArriveThroughTls)
{
    const auto gate = make_gate("IP:127.0.0.1");
    ASSERT_TRUE(open(settings(*gate)));
    feed.put(1000);
    check(cluster, "Kafka with TLS", "nothing was cut");
}

TEST_F(BusKafkaTls, ACertificateOfAnotherNameIsRefusedAndSaid)
{
    const auto gate = make_gate("DNS:other.example");
    ASSERT_TRUE(open(settings(*gate)));
    feed.put(10);
    EXPECT_TRUE(is_stuck_with("`ca`")) << last_condition;
    EXPECT_NE(std::string::npos, last_condition.find("certificate")) << last_condition;
    EXPECT_EQ(10u, feed.sink().figures().waiting);
    EXPECT_TRUE(cluster.read().empty());
}

TEST_F(BusKafkaTls, ACertificateOfAnUnknownAuthorityIsRefusedAndSaid)
{
    const auto gate = make_gate("IP:127.0.0.1");
    Settings all = BusKafka::settings({gate->address("127.0.0.1")});
    all.set("tls", true);
    ASSERT_TRUE(open(all));
    feed.put(10);
    EXPECT_TRUE(is_stuck_with("`ca`")) << last_condition;
    EXPECT_TRUE(cluster.read().empty());
}

TEST_F(BusKafkaTls, WhoHasThePasswordLogsIn)
{
    const auto gate = make_gate("IP:127.0.0.1", "PLAIN");
    ASSERT_TRUE(open(settings(*gate, "PLAIN", "right-one")));
    feed.put(1000);
    check(cluster, "Kafka with TLS and SASL", "nothing was cut");
    EXPECT_EQ("PLAIN", gate->asked_for());
}

TEST_F(BusKafkaTls, AWrongPasswordIsSaidWithoutItAndMended)
{
    const auto gate = make_gate("IP:127.0.0.1", "PLAIN");
    ASSERT_TRUE(open(settings(*gate, "PLAIN", "wrong-one")));
    feed.put(10);
    EXPECT_TRUE(is_stuck_with("`password`")) << last_condition;
    EXPECT_NE(std::string::npos, last_condition.find("uthentication failed")) << last_condition;
    EXPECT_EQ(std::string::npos, last_condition.find("wrong-one")) << last_condition;
    std::ofstream(tree.path("password")) << "right-one\n";
    check(cluster, "wrong password", "until the file was mended");
    EXPECT_FALSE(feed.sink().condition().stuck);
}

TEST_F(BusKafkaTls, AMechanismThatTheBrokerLacksIsSaid)
{
    const auto gate = make_gate("IP:127.0.0.1", "PLAIN");
    ASSERT_TRUE(open(settings(*gate, "SCRAM-SHA-512", "right-one")));
    feed.put(10);
    EXPECT_TRUE(is_stuck_with("`sasl`")) << last_condition;
    EXPECT_EQ("SCRAM-SHA-512", gate->asked_for());
    EXPECT_EQ(std::string::npos, last_condition.find("right-one")) << last_condition;
}
