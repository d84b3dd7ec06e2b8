/* What Kafka's client library is told: by which protocol, with which files and names, and what is no setting of its
 * own. */
#include "bus/kafka/configuration.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "testlib/tree.h"

namespace
{

using Pairs = std::map<std::string, std::string>;

/* The library's settings; `error`: why there are none. */
Pairs configuration_of(const Pairs &given, std::string &error)
{
    std::vector<struct fmon_bus_setting> settings;
    for (const auto &[key, value] : given)
        settings.push_back({key.c_str(), value.c_str()});
    const bus::KafkaConfiguration conf =
        bus::make_configuration(bus::Settings(settings.data(), settings.size()), error);
    Pairs out;
    size_t count = 0;
    const char **const dump = conf ? rd_kafka_conf_dump(conf.get(), &count) : nullptr;
    for (size_t i = 0; i + 1 < count; i += 2)
        out[dump[i]] = dump[i + 1];
    if (dump)
        rd_kafka_conf_dump_free(dump, count);
    return out;
}

Pairs configuration_of(const Pairs &given)
{
    std::string error;
    Pairs out = configuration_of(given, error);
    EXPECT_EQ("", error);
    return out;
}

std::string protocol_of(Pairs given)
{
    given["brokers"] = "a.example:9092\n";
    return configuration_of(given)["security.protocol"];
}

class KafkaConfiguration : public testing::Test
{
protected:
    std::string error_of(const Pairs &given)
    {
        std::string error;
        EXPECT_TRUE(configuration_of(given, error).empty());
        return error;
    }
    testlib::TempTree tree;
};

}  // namespace

TEST_F(KafkaConfiguration, TheProtocolFollowsFromWhatIsGiven)
{
    EXPECT_EQ("plaintext", protocol_of({}));
    EXPECT_EQ("ssl", protocol_of({{"tls", "true"}}));
    EXPECT_EQ("ssl", protocol_of({{"ca", "/ca.pem"}}));
    EXPECT_EQ("ssl", protocol_of({{"certificate", "/own.pem"}}));
    EXPECT_EQ("sasl_plaintext", protocol_of({{"sasl", "SCRAM-SHA-512"}, {"user", "fmon"}}));
    EXPECT_EQ("sasl_ssl", protocol_of({{"tls", "true"}, {"sasl", "PLAIN"}, {"user", "fmon"}}));
}

TEST_F(KafkaConfiguration, FilesNamesAndThePasswordReachTheLibrary)
{
    const std::string password = tree.file("password", "geheim\n");
    Pairs conf = configuration_of({{"brokers", "a.example:9092\nb.example:9092\n"},
                                   {"ca", "/ca.pem"},
                                   {"certificate", "/own.pem"},
                                   {"private_key", "/own.key"},
                                   {"sasl", "SCRAM-SHA-256"},
                                   {"user", "fmon"},
                                   {"password", password},
                                   {"compression", "lz4"},
                                   {"options", "linger.ms=17\n"}});
    EXPECT_EQ("a.example:9092,b.example:9092", conf["metadata.broker.list"]);
    EXPECT_EQ("/ca.pem", conf["ssl.ca.location"]);
    EXPECT_EQ("/own.pem", conf["ssl.certificate.location"]);
    EXPECT_EQ("/own.key", conf["ssl.key.location"]);
    EXPECT_EQ("SCRAM-SHA-256", conf["sasl.mechanisms"]);
    EXPECT_EQ("fmon", conf["sasl.username"]);
    EXPECT_EQ("geheim", conf["sasl.password"]);
    EXPECT_EQ("lz4", conf["compression.codec"]);
    EXPECT_EQ("17", conf["queue.buffering.max.ms"]);
}

TEST_F(KafkaConfiguration, ACertificateIsCheckedAndMustBeForTheBrokersName)
{
    Pairs conf = configuration_of({{"brokers", "a:1\n"}, {"tls", "true"}});
    EXPECT_EQ("true", conf["enable.ssl.certificate.verification"]);
    EXPECT_EQ("https", conf["ssl.endpoint.identification.algorithm"]);
    EXPECT_EQ("true", conf["enable.idempotence"]);
}

TEST_F(KafkaConfiguration, WhatIsWrongIsSaid)
{
    EXPECT_EQ("password: the file cannot be read", error_of({{"password", tree.path("none")}}));
    EXPECT_EQ("options: linger.ms has no \"=\"", error_of({{"options", "linger.ms\n"}}));
    EXPECT_NE(std::string::npos, error_of({{"options", "lingers=1\n"}}).find("lingers"));
    EXPECT_NE(std::string::npos, error_of({{"sasl", "PLAIN\n"}, {"compression", "none at all"}}).find("compression"));
}
