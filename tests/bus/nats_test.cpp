/* Records into real NATS servers: what arrived in the stream is what was accepted, once each, whatever happens on the
 * way. */
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <optional>
#include <set>

#include "authority.h"
#include "bus_testing.h"
#include "nats_servers.h"
#include "proxy.h"

using namespace bus_testing;
using output::Settings;

namespace
{

class BusNats : public BusTest
{
protected:
    void SetUp() override { NEED(NatsServers::can_run(), "there is no nats-server"); }

    Settings settings(const std::vector<std::string> &servers)
    {
        Settings out;
        out.set("servers", servers);
        out.set("subject", std::string("fmon.{host}.{instance}.{kind}"));
        out.set("spool", tree.path("spool"));
        out.set("heartbeat", uint64_t{0});
        out.set("ack_timeout", uint64_t{1000});
        return out;
    }
    bool open(const Settings &all) { return BusTest::open("nats", all); }
    /* All has arrived, once each. */
    void check(Stream &stream, const char *what, const char *cut)
    {
        ASSERT_TRUE(feed.sink().drain(kPatienceMs)) << feed.sink().condition().text;
        const Balance balance = balance_of(feed.given(), stream.ids(feed.given()));
        print_row(what, balance, cut);
        EXPECT_EQ(0u, balance.lost);
        EXPECT_EQ(0u, balance.twice);
        EXPECT_EQ(0u, balance.strange);
        EXPECT_EQ(feed.given(), stream.messages());
        EXPECT_EQ(0u, feed.sink().figures().dropped);
    }
};

/* What a child is told. */
constexpr char kServer[] = "FMON_BUS_SERVER", kSpool[] = "FMON_BUS_SPOOL", kAccepted[] = "FMON_BUS_ACCEPTED";

/* A number in a file that processes share; null: it could not be made. */
std::atomic<uint64_t> *counter_in(const std::string &path)
{
    const common::Fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (ftruncate(fd.get(), sizeof(std::atomic<uint64_t>)) != 0)
        return nullptr;
    void *const map = mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    return map == MAP_FAILED ? nullptr : static_cast<std::atomic<uint64_t> *>(map);
}

}  // namespace

TEST_F(BusNats, RecordsArriveInOrderWithTheirNames)
{
    const NatsServers servers(1);
    Stream stream(servers);
    ASSERT_TRUE(stream.make(1));
    ASSERT_TRUE(open(settings(servers.addresses())));
    feed.put(5000);
    check(stream, "one server", "nothing was cut");
    EXPECT_EQ("fmon.host_example.web.note", stream.first_subject());
    EXPECT_EQ("host.example", stream.first_host());
    EXPECT_EQ(5000u, feed.sink().safe());
    EXPECT_FALSE(feed.sink().condition().stuck);
}

using BusNatsCluster = BusNats;

TEST_F(BusNatsCluster, AKilledServerLosesNothing)
{
    NatsServers servers(3);
    Stream stream(servers);
    ASSERT_TRUE(stream.make(3));
    ASSERT_TRUE(open(settings(servers.addresses())));
    const uint64_t part = is_long() ? 100'000 : 10'000;
    feed.put(part);
    servers.kill(0);
    feed.put(part / 2);
    servers.start(0);
    feed.put(part / 2);
    check(stream, "cluster of three", "one killed and started again");
}

TEST_F(BusNats, ABrokenConnectionLosesNothing)
{
    const NatsServers servers(1);
    Stream stream(servers);
    ASSERT_TRUE(stream.make(1));
    Proxy proxy(servers.port(0));
    ASSERT_TRUE(open(settings({"nats://127.0.0.1:" + std::to_string(proxy.port())})));
    feed.put(2000);
    proxy.set(Proxy::State::kRefused);
    feed.put(2000);
    EXPECT_TRUE(is_stuck_with("not connected")) << last_condition;
    EXPECT_GT(feed.sink().figures().waiting, 0u);
    proxy.set(Proxy::State::kOpen);
    check(stream, "broken connection", "connection refused for a while");
    EXPECT_FALSE(feed.sink().condition().stuck);
}

TEST_F(BusNats, ASilentConnectionLosesNothing)
{
    const NatsServers servers(1);
    Stream stream(servers);
    ASSERT_TRUE(stream.make(1));
    Proxy proxy(servers.port(0));
    ASSERT_TRUE(open(settings({"nats://127.0.0.1:" + std::to_string(proxy.port())})));
    feed.put(2000);
    ASSERT_TRUE(feed.sink().drain(kPatienceMs));
    proxy.set(Proxy::State::kSilent);
    feed.put(5000);
    EXPECT_TRUE(is_stuck_with("no acknowledgement within 1 s")) << last_condition;
    if (is_long())
        wait_until([] { return false; }, 60'000);
    proxy.set(Proxy::State::kOpen);
    check(stream, "silent connection", is_long() ? "nothing passed for a minute" : "nothing passed for a while");
    EXPECT_GT(feed.sink().figures().retries, 0u);
}

TEST_F(BusNats, AServerThatIsNotThereYetIsAwaited)
{
    NatsServers servers(1);
    servers.kill(0);
    ASSERT_TRUE(open(settings(servers.addresses())));
    feed.put(100);
    EXPECT_TRUE(is_stuck_with("not connected")) << last_condition;
    servers.start(0);
    Stream stream(servers);
    ASSERT_TRUE(stream.make(1));
    check(stream, "late server", "started after the records");
}

TEST_F(BusNats, WithoutAStreamRecordsWaitForOne)
{
    const NatsServers servers(1);
    ASSERT_TRUE(open(settings(servers.addresses())));
    feed.put(100);
    EXPECT_TRUE(is_stuck_with("no stream takes the subject")) << last_condition;
    Stream stream(servers);
    ASSERT_TRUE(stream.make(1));
    check(stream, "late stream", "made after the records");
}

TEST_F(BusNats, WhatTheStreamNeverTakesIsCountedAndTheRestArrives)
{
    const NatsServers servers(1);
    Stream stream(servers);
    ASSERT_TRUE(stream.make(1, false, 1000));
    ASSERT_TRUE(open(settings(servers.addresses())));
    feed.put(10);
    feed.put(1, 2000);
    feed.put(10);
    ASSERT_TRUE(feed.sink().drain(kPatienceMs));
    EXPECT_TRUE(wait_until([&] { return stream.messages() == 21; })); /* a record tells of the loss */
    EXPECT_EQ(1u, feed.sink().figures().dropped);
    const std::vector<std::string> ids = stream.ids(21);
    EXPECT_EQ(0, std::count(ids.begin(), ids.end(), Feed::id(11)));
    EXPECT_EQ(1, std::count(ids.begin(), ids.end(), Feed::id(12)));
}

/* What the next case kills: a program of its own, since a copy of this process would have the locks of the engine's
 * threads without the threads. */
using BusNatsSender = BusNats;

TEST_F(BusNatsSender, DISABLED_SendsUntilItIsKilled)
{
    Settings all = settings({getenv(kServer)});
    all.set("spool", std::string(getenv(kSpool)));
    std::atomic<uint64_t> *const accepted = counter_in(getenv(kAccepted));
    ASSERT_TRUE(accepted && open(all));
    for (;;) {
        feed.put(100);
        *accepted = feed.given();
    }
}

TEST_F(BusNats, AKilledSenderSendsTheRestInOrderWhenItIsBack)
{
    const NatsServers servers(1);
    Stream stream(servers);
    ASSERT_TRUE(stream.make(1));
    std::atomic<uint64_t> *const accepted = counter_in(tree.path("accepted"));
    ASSERT_TRUE(accepted);
    setenv(kServer, servers.addresses()[0].c_str(), 1);
    setenv(kSpool, tree.path("spool").c_str(), 1);
    setenv(kAccepted, tree.path("accepted").c_str(), 1);
    Server child({"/proc/self/exe", "--gtest_also_run_disabled_tests", "--gtest_filter=BusNatsSender.*"},
                 tree.path("child.log"));
    EXPECT_TRUE(wait_until([&] { return *accepted > 10'000; }));
    child.kill();
    const uint64_t sure = *accepted;
    ASSERT_TRUE(open(settings(servers.addresses())));
    feed.go_on_at(sure + 101); /* what the child accepted last, it could not say */
    feed.put(1000);
    ASSERT_TRUE(feed.sink().drain(kPatienceMs));
    const std::vector<std::string> ids = stream.ids(stream.messages());
    const std::set<std::string> all(ids.begin(), ids.end());
    EXPECT_EQ(all.size(), ids.size());
    for (uint64_t number = 1; number <= sure; number++)
        ASSERT_TRUE(all.count(Feed::id(number))) << number;
    const Balance balance = balance_of(feed.given(), ids);
    print_row("killed sender", balance, "SIGKILL in the middle, then started again");
    EXPECT_EQ(0u, balance.out_of_order);
    EXPECT_LE(balance.lost, 100u); /* those that were never accepted */
}

TEST_F(BusNats, AWrongPasswordIsSaidWithoutItAndMended)
{
    const NatsServers servers(1, "authorization { user: fmon, password: right-one }\n");
    const std::string password = tree.file("password", "wrong-one\n");
    chmod(password.c_str(), 0600);
    Settings all = settings(servers.addresses());
    all.set("user", std::string("fmon"));
    all.set("password", password);
    ASSERT_TRUE(open(all));
    feed.put(100);
    EXPECT_TRUE(is_stuck_with("uthorization")) << last_condition;
    EXPECT_EQ(std::string::npos, last_condition.find("wrong-one"));
    std::ofstream(password) << "right-one\n";
    Stream stream(servers, "fmon:right-one@");
    ASSERT_TRUE(stream.make(1));
    check(stream, "wrong password", "until the file was mended");
}

namespace
{

class BusNatsTls : public BusNats
{
protected:
    void SetUp() override
    {
        BusNats::SetUp();
        NEED(!program_path("openssl").empty(), "there is no openssl");
        authority.emplace(tree.root());
    }
    std::string server_lines() const
    {
        return "tls { cert_file: \"" + tree.path("server.pem") + "\", key_file: \"" + tree.path("server.key") +
               "\" }\n";
    }

    std::optional<Authority> authority;
};

}  // namespace

TEST_F(BusNatsTls, ACertificateOfAnotherNameIsRefusedUntilItIsRight)
{
    authority->certify("DNS:other.example");
    NatsServers servers(1, server_lines());
    Settings all = settings({"tls://localhost:" + std::to_string(servers.port(0))});
    all.set("ca", tree.path("ca.pem"));
    ASSERT_TRUE(open(all));
    feed.put(100);
    EXPECT_TRUE(is_stuck_with("not connected: SSL handshake error: 62:hostname mismatch")) << last_condition;
    {
        Stream stream(servers, "", true);
        ASSERT_TRUE(stream.make(1));
        EXPECT_EQ(0u, stream.messages());
    }
    authority->certify("DNS:localhost");
    servers.kill(0);
    servers.start(0);
    Stream stream(servers, "", true);
    check(stream, "another's certificate", "until the server had the right one");
}

TEST_F(BusNatsTls, ACertificateOfAnUnknownAuthorityIsRefused)
{
    authority->certify("DNS:localhost");
    const NatsServers servers(1, server_lines());
    Settings all = settings({"tls://localhost:" + std::to_string(servers.port(0))});
    all.set("tls", true);
    ASSERT_TRUE(open(all));
    feed.put(100);
    EXPECT_TRUE(is_stuck_with("ertificate")) << last_condition;
    EXPECT_EQ(100u, feed.sink().figures().waiting);
}
