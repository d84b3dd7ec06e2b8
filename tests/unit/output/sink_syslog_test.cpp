/* Tests of the output "syslog" without TLS: the message, datagrams, connections that end. */

#include "agent/event_names.h"
#include "output/sinks/address.h"
#include "output/sinks/syslog_form.h"
#include "unit/agent/agent_testing.h"
#include "unit/output/net_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;

namespace
{

std::string message_of(uint64_t number)
{
    return "<30>1 2023-11-14T22:13:20.123456Z host1 fmon " + std::to_string(getpid()) +
           " event [fmon@32473 instance=\"web\" number=\"" + std::to_string(number) + "\"] " +
           line_of(number).substr(0, line_of(number).size() - 1);
}

std::string frame_of(uint64_t number)
{
    const std::string message = message_of(number);
    return std::to_string(message.size()) + " " + message;
}

std::string frames(uint64_t first, uint64_t count)
{
    std::string all;
    for (uint64_t number = first; number < first + count; number++)
        all += frame_of(number);
    return all;
}

Made made(const std::string &address, std::map<std::string, Settings::Value> said = {})
{
    said.insert({"address", address});
    return Made("syslog", said);
}

}  // namespace

TEST(SinkSyslog, AMessageHasItsParts)
{
    SyslogForm form(SyslogForm::Kind::kRfc5424, 16, "my program", {"", "boot", "a\"b]c\\d"});
    std::string out;
    form.append(record_of(7, "{\"a\":1}\n", "loss"), out);
    EXPECT_EQ("<132>1 2023-11-14T22:13:20.123456Z - my_program " + std::to_string(getpid()) +
                  " loss [fmon@32473 instance=\"a\\\"b\\]c\\\\d\" number=\"7\"] {\"a\":1}",
              out);
    EXPECT_EQ(0, facility_of("kern"));
    EXPECT_EQ(23, facility_of("local7"));
    EXPECT_EQ(-1, facility_of("local8"));
}

TEST(SinkSyslog, AndSoHasTheOlderForm)
{
    setenv("TZ", "UTC", 1);
    tzset();
    SyslogForm form(SyslogForm::Kind::kRfc3164, 3, "fmon", {"host", "boot", "web"});
    std::string out;
    form.append(record_of(7, "text\n"), out);
    EXPECT_EQ("<30>Nov 14 22:13:20 fmon[" + std::to_string(getpid()) + "]: text", out);
    Record new_year = record_of(8, "text\n");
    new_year.time_ns = 1'704'067'199'999'999'999;
    out.clear();
    form.append(new_year, out);
    EXPECT_TRUE(out.starts_with("<30>Dec 31 23:59:59 fmon[")) << out;
    unsetenv("TZ");
    tzset();
}

TEST(SinkSyslog, TheMachinesOwnGetsADatagramEach)
{
    const Directory directory;
    const common::Fd log = unix_datagrams(directory.path("log"));
    Made sink = made(directory.path("log"));
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 2));
    EXPECT_EQ(message_of(1), received(log));
    EXPECT_EQ(message_of(2), received(log));
    EXPECT_TRUE(sink->drain(kPatienceMs));
}

TEST(SinkSyslog, ItMayStartLaterAndAgain)
{
    const Directory directory;
    Made sink = made(directory.path("log"));
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 1));
    EXPECT_TRUE(sink.says("cannot connect to " + directory.path("log") + ": No such file"));
    EXPECT_TRUE(sink->condition().stuck);
    common::Fd log = unix_datagrams(directory.path("log"));
    EXPECT_EQ(message_of(1), received(log));
    log.reset();
    give(*sink, Records(2, 1));
    EXPECT_TRUE(sink.becomes_stuck());
    unlink(directory.path("log").c_str());
    log = unix_datagrams(directory.path("log"));
    EXPECT_EQ(message_of(2), received(log));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ(0u, sink->figures().dropped);
}

TEST(SinkSyslog, OneThatDoesNotReadIsStuckAndLosesNothing)
{
    const Directory directory;
    const common::Fd log = unix_datagrams(directory.path("log"));
    Made sink = made(directory.path("log"));
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 2000));
    EXPECT_TRUE(sink.says(directory.path("log") + " takes nothing"));
    for (uint64_t number = 1; number <= 2000; number++)
        ASSERT_EQ(message_of(number), received(log));
    EXPECT_TRUE(sink->drain(kPatienceMs));
}

TEST(SinkSyslog, WhatNoDatagramHoldsIsDroppedAndCounted)
{
    const common::Fd server = bound(SOCK_DGRAM);
    Made sink = made(url("udp", port_of(server)));
    ASSERT_TRUE(sink.open());
    give(*sink, std::vector{record_of(1, std::string(70'000, 'x') + "\n")});
    EXPECT_TRUE(sink.says("too long for a datagram to 127.0.0.1:"));
    give(*sink, Records(2, 1));
    EXPECT_EQ(message_of(2), received(server));
    EXPECT_EQ(1u, sink->figures().dropped);
    EXPECT_TRUE(becomes([&]() { return sink->safe() == 2; }));
}

TEST(SinkSyslog, AnAddressWhereNobodyListensIsNoticed)
{
    common::Fd server = bound(SOCK_DGRAM);
    const uint16_t port = port_of(server);
    server.reset();
    Made sink = made(url("udp", port));
    ASSERT_TRUE(sink.open());
    uint64_t number = 1;
    EXPECT_TRUE(becomes([&]() {
        give(*sink, Records(number++, 1));
        return sink->condition().stuck;
    }));
    EXPECT_TRUE(sink.says("Connection refused"));
    EXPECT_TRUE(becomes([&]() { return sink->figures().dropped >= 1; })) << "the one that went before";
}

TEST(SinkSyslog, AConnectionHasFramesWithTheirLengths)
{
    const common::Fd server = bound(SOCK_STREAM);
    Made sink = made(url("tcp", port_of(server)));
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 1000));
    const common::Fd far = accepted(server);
    EXPECT_EQ(frames(1, 1000), received(far, frames(1, 1000).size()));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    sink.sink.reset();
    EXPECT_EQ("", received(far)) << "the end";
}

TEST(SinkSyslog, WhatWasNotAcknowledgedGoesToTheNextConnection)
{
    const common::Fd server = bound(SOCK_STREAM);
    const int small = 4096;
    setsockopt(server.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    Made sink = made(url("tcp", port_of(server)));
    ASSERT_TRUE(sink.open());
    const uint64_t count = 30'000;
    give(*sink, Records(1, count));
    common::Fd far = accepted(server);
    std::string first = received(far, 10'000);
    EXPECT_TRUE(sink.says("takes nothing"));
    const uint64_t safe = sink->safe();
    EXPECT_LT(safe, count);
    const struct linger hard = {1, 0};
    setsockopt(far.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    far.reset();
    far = accepted(server);
    std::string second = received(far, frame_of(1).size());
    const uint64_t again = std::stoull(second.substr(second.find("number=\"") + 8));
    EXPECT_GT(again, safe);
    const std::string rest = frames(again, count - again + 1);
    second += received(far, rest.size() - second.size());
    EXPECT_TRUE(rest == second) << "whole, from the first that was not acknowledged on";
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ(count, sink->safe());
}

TEST(SinkSyslog, AnEndBetweenRecordsIsNoticed)
{
    const common::Fd server = bound(SOCK_STREAM);
    Made sink = made(url("tcp", port_of(server)));
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 1));
    common::Fd far = accepted(server);
    EXPECT_EQ(frame_of(1), received(far, frame_of(1).size()));
    EXPECT_TRUE(becomes([&]() { return sink->safe() == 1; }));
    far.reset();
    EXPECT_TRUE(sink.says("has ended the connection; there is another with the next record"));
    give(*sink, Records(2, 1));
    far = accepted(server);
    EXPECT_EQ(frame_of(2), received(far, frame_of(2).size()));
}

TEST(SinkSyslog, NobodyThereIsStuckAndNoReasonToGiveUp)
{
    common::Fd server = bound(SOCK_STREAM);
    const uint16_t port = port_of(server);
    server.reset();
    Made sink = made(url("tcp", port));
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 1));
    EXPECT_TRUE(sink.says("cannot connect to 127.0.0.1:" + std::to_string(port) + ": Connection refused"));
    server = bound(SOCK_STREAM, port);
    const common::Fd far = accepted(server);
    EXPECT_EQ(frame_of(1), received(far, frame_of(1).size()));
}

TEST(SinkSyslog, ANameThatNobodyHasIsSaid)
{
    Made sink = made("tcp://fmon-test.invalid:514");
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 1));
    EXPECT_TRUE(sink.says("no address of fmon-test.invalid"));
}

TEST(SinkSyslog, SettingsThatMakeNoSense)
{
    for (const char *address : {"", "log", "http://x", "tcp://", "tcp://:514", "udp://host:port", "tcp://[::1"})
        EXPECT_TRUE(made(address).error.starts_with("address: the path of a socket")) << address;
    EXPECT_EQ("facility: kern, user, daemon, auth, authpriv, local0 to local7 ...",
              made("/x", {{"facility", "x"s}}).error);
    EXPECT_EQ("form: rfc5424 or rfc3164", made("/x", {{"form", "x"s}}).error);
    EXPECT_EQ("ca, name, certificate and key are for tls://", made("tcp://x", {{"ca", "/ca"s}}).error);
    EXPECT_EQ("certificate and key go together", made("tls://x", {{"key", "/key"s}}).error);
}

TEST(SinkAddress, HasAHostAndAPort)
{
    Address address;
    EXPECT_TRUE(parse_address("host", "1", address));
    EXPECT_EQ("host:1", address.text());
    EXPECT_TRUE(parse_address("host:22", "1", address));
    EXPECT_EQ("host:22", address.text());
    EXPECT_TRUE(parse_address("[::1]:22", "1", address));
    EXPECT_EQ("::1", address.host);
    EXPECT_EQ("[::1]:22", address.text());
    EXPECT_TRUE(parse_address("[::1]", "1", address));
    EXPECT_EQ("[::1]:1", address.text());
    for (const char *none : {"", ":1", "a:", "a:b", "[]", "[::1", "[::1]x", "a:1234567"})
        EXPECT_FALSE(parse_address(none, "1", address)) << none;
}
