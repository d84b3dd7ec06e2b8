/* Tests of TLS as the output "syslog" has it: whose certificate is taken, and whose is not. */

#include <gtest/gtest.h>

#ifdef FMON_TEST_OPENSSL

#include <csignal>

#include "unit/output/tls_server.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;

namespace
{

class SinkTls : public testing::Test
{
protected:
    SinkTls() { signal(SIGPIPE, SIG_IGN); }

    Made made(TlsServer &server, std::map<std::string, Settings::Value> said = {})
    {
        said.insert({{"address", url("tls", server.port())}, {"ca", authority.file}});
        return Made("syslog", said);
    }
    void open(TlsServer &server, const std::map<std::string, Settings::Value> &said = {})
    {
        sink = std::make_unique<Made>(made(server, said));
        ASSERT_TRUE(sink->open());
        give(**sink, Records(1, 1));
    }
    /* Whether the connection fails, which is said with this reason, and nothing of the record was sent. */
    void refused(const Certificate &certificate, const std::string &why,
                 const std::map<std::string, Settings::Value> &said = {})
    {
        TlsServer server(certificate);
        open(server, said);
        EXPECT_FALSE(server.accept()) << why;
        EXPECT_TRUE(sink->says(why)) << (*sink)->condition().text;
        EXPECT_TRUE((*sink)->condition().stuck);
        EXPECT_EQ(1u, (*sink)->figures().waiting);
    }
    void received_by(TlsServer &server)
    {
        ASSERT_TRUE(server.accept()) << (*sink)->condition().text;
        const std::string first = server.read(4);
        ASSERT_EQ(3u, first.find(' ')) << first;
        const std::string rest = server.read(std::stoul(first));
        EXPECT_TRUE(rest.ends_with("record 1")) << rest;
    }

    const Directory directory;
    const Certificate authority{directory, "authority", nullptr, ""};
    const Certificate good{directory, "good", &authority, "IP:127.0.0.1"};
    std::unique_ptr<Made> sink;
};

}  // namespace

TEST_F(SinkTls, ACertificateOfAnAuthorityThatIsTrusted)
{
    TlsServer server(good);
    open(server);
    received_by(server);
    EXPECT_TRUE(becomes([&]() { return (*sink)->safe() == 1; }));
    EXPECT_TRUE((*sink)->drain(kPatienceMs));
}

TEST_F(SinkTls, ForTheNameThatIsAskedFor)
{
    const Certificate named(directory, "named", &authority, "DNS:log.example");
    refused(named, "IP address mismatch");
    refused(named, "hostname mismatch", {{"name", "other.example"s}});
    TlsServer server(named);
    open(server, {{"name", "log.example"s}});
    received_by(server);
}

TEST_F(SinkTls, OthersAreRefused)
{
    const Certificate stranger(directory, "stranger", nullptr, "IP:127.0.0.1");
    refused(stranger, "self-signed certificate");
    refused(Certificate(directory, "old", &authority, "IP:127.0.0.1", -7200, -3600), "certificate has expired");
    refused(Certificate(directory, "early", &authority, "IP:127.0.0.1", 3600, 7200), "certificate is not yet valid");
    refused(good, "TLS cannot be set up: ", {{"ca", directory.path("missing")}});
}

TEST_F(SinkTls, TheFarSideMayAskForOurs)
{
    const Certificate own(directory, "own", &authority, "DNS:host1");
    TlsServer server(good, &authority);
    open(server, {{"certificate", own.file}, {"key", own.key_file}});
    received_by(server);
}

TEST_F(SinkTls, AndRefuseUsWithoutOne)
{
    TlsServer server(good, &authority);
    open(server);
    EXPECT_FALSE(server.accept());
    server.close();
    EXPECT_TRUE(sink->says("certificate required")) << (*sink)->condition().text;
}

TEST_F(SinkTls, AKeyThatOthersMayReadIsRefused)
{
    const Certificate own(directory, "own", &authority, "DNS:host1");
    chmod(own.key_file.c_str(), 0644);
    TlsServer server(good);
    Made refused = made(server, {{"certificate", own.file}, {"key", own.key_file}});
    ASSERT_TRUE(refused) << refused.error;
    EXPECT_FALSE(refused->open(refused.error));
    EXPECT_NE(refused.error.find("others may read it"), std::string::npos);
}

TEST_F(SinkTls, WhatIsNoTlsIsSaid)
{
    const common::Fd plain = bound(SOCK_STREAM);
    sink = std::make_unique<Made>("syslog", std::map<std::string, Settings::Value>{
                                                {"address", url("tls", port_of(plain))}, {"ca", authority.file}});
    ASSERT_TRUE(sink->open());
    give(**sink, Records(1, 1));
    const common::Fd far = accepted(plain);
    received(far);
    ASSERT_EQ(9, send(far.get(), "no TLS at", 9, MSG_NOSIGNAL));
    EXPECT_TRUE(sink->says("TLS with 127.0.0.1 failed: ")) << (*sink)->condition().text;
}

TEST_F(SinkTls, AnEndIsNoticedAndThereIsAnother)
{
    TlsServer server(good);
    open(server);
    received_by(server);
    EXPECT_TRUE(becomes([&]() { return (*sink)->safe() == 1; }));
    server.close();
    EXPECT_TRUE(sink->says("there is another with the next record"));
    give(**sink, Records(2, 1));
    ASSERT_TRUE(server.accept());
    EXPECT_FALSE(server.read(10).empty());
}

#ifdef FMON_TEST_CURL

TEST_F(SinkTls, RequestsHaveItToo)
{
    const Certificate own(directory, "own", &authority, "DNS:host1");
    TlsServer server(good, &authority);
    Made https("http", {{"url", url("https", server.port())},
                        {"ca", authority.file},
                        {"certificate", own.file},
                        {"key", own.key_file},
                        {"batch_records", uint64_t{10}},
                        {"batch_bytes", uint64_t{1000}}});
    ASSERT_TRUE(https.open());
    give(*https, Records(1, 1));
    ASSERT_TRUE(server.accept()) << https->condition().text;
    EXPECT_EQ("POST / HTTP/1.1\r\n", server.read(17));
    server.write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    EXPECT_TRUE(becomes([&]() { return https->safe() == 1; })) << https->condition().text;
}

TEST_F(SinkTls, AndRefuseOthers)
{
    const Certificate named(directory, "named", &authority, "DNS:log.example");
    TlsServer server(named);
    Made https("http", {{"url", url("https", server.port())},
                        {"ca", authority.file},
                        {"batch_records", uint64_t{10}},
                        {"batch_bytes", uint64_t{1000}}});
    ASSERT_TRUE(https.open());
    give(*https, Records(1, 1));
    server.accept();
    EXPECT_TRUE(https.says("no alternative certificate subject name matches")) << https->condition().text;
    EXPECT_EQ(1u, https->figures().waiting);
}

#endif

#else

TEST(SinkTls, IsTestedWithOpenSsl) { GTEST_SKIP() << "this build was made without OpenSSL"; }

#endif
