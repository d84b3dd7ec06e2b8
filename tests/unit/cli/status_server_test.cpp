/* The socket on which a service answers: who may connect, what is left there, and who asks nothing. */
#include "cli/run/status_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "agent/time_format.h"
#include "unit/agent/agent_testing.h"

using namespace cli;

namespace
{

class StatusServerTest : public testing::Test
{
protected:
    common::Fd connected() const { return agent_testing::connected_to(path); }

    /* What is answered to those bytes. */
    std::string ask(StatusServer &server, const std::string &request, bool http = false) const
    {
        const common::Fd fd = connected();
        EXPECT_EQ(static_cast<ssize_t>(request.size()), write(fd.get(), request.data(), request.size()));
        std::thread serving([&] {
            if (http)
                server.serve_http([] { return "fmon_up 1\n"; });
            else
                server.serve([](const std::string &line) { return "<" + line + ">"; });
        });
        std::string answer;
        char block[256];
        for (ssize_t n; (n = read(fd.get(), block, sizeof block)) > 0;)
            answer.append(block, static_cast<size_t>(n));
        serving.join();
        return answer;
    }

    agent_testing::Directory directory;
    const std::string path = directory.path("run/socket");
    std::string error;
};

}  // namespace

TEST_F(StatusServerTest, ALineIsAnsweredByALine)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    EXPECT_EQ("<stats>\n", ask(server, "stats\nmore"));
    EXPECT_EQ("<>\n", ask(server, "\n"));
}

TEST_F(StatusServerTest, WhoAsksNothingIsAnsweredAfterAMoment)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    EXPECT_EQ("<half>\n", ask(server, "half"));
    EXPECT_EQ("<>\n", ask(server, ""));
}

TEST_F(StatusServerTest, InHttpMetricsAreAnswered)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    const std::string head =
        "HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: 10\r\n"
        "Connection: close\r\n\r\n";
    EXPECT_EQ(head + "fmon_up 1\n", ask(server, "GET /metrics HTTP/1.1\r\nHost: a\r\n\r\n", true));
    EXPECT_EQ(head + "fmon_up 1\n", ask(server, "GET /metrics?x=1 HTTP/1.0\r\n\r\n", true));
    EXPECT_EQ(head, ask(server, "HEAD /metrics HTTP/1.1\r\n\r\n", true));
}

TEST_F(StatusServerTest, InHttpAllElseIsRefused)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    const struct {
        std::string request, status;
    } rows[] = {
        {"GET / HTTP/1.1\r\n\r\n", "404 Not Found"},
        {"GET /metricsx HTTP/1.1\r\n\r\n", "404 Not Found"},
        {"POST /else HTTP/1.1\r\n\r\n", "404 Not Found"},
        {"POST /metrics HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", "405 Method Not Allowed\r\nAllow: GET, HEAD"},
        {"DELETE /metrics HTTP/1.1\r\n\r\n", "405 Method Not Allowed\r\nAllow: GET, HEAD"},
        {"GET /metrics\r\n\r\n", "400 Bad Request"},
        {"GET /metrics FTP/1\r\n\r\n", "400 Bad Request"},
        {"\r\n\r\n", "400 Bad Request"},
        {std::string(3, '\0') + "\r\n\r\n", "400 Bad Request"},
        {std::string(8192, 'x'), "400 Bad Request"}};
    for (const auto &row : rows)
        EXPECT_TRUE(ask(server, row.request, true).starts_with("HTTP/1.0 " + row.status + "\r\n")) << row.request;
}

/* Some bytes now and then are no reason to go on. */
TEST_F(StatusServerTest, WhoAsksOrReadsSlowlyHoldsNobodyUp)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    const common::Fd drips = connected(), deaf = connected();
    std::atomic<bool> over = false;
    std::thread dripping([&] {
        pollfd hung_up = {drips.get(), 0, 0};
        while (!over && poll(&hung_up, 1, 20) == 0 && send(drips.get(), "G", 1, MSG_NOSIGNAL) == 1)
            ;
    });
    ASSERT_EQ(5, send(deaf.get(), "all\n\n", 5, 0));
    const uint64_t start = agent::steady_ms();
    server.serve_http([] { return ""; });
    server.serve([](const std::string &) { return std::string(100 << 20, 'x'); });
    EXPECT_LT(agent::steady_ms() - start, 10'000u);
    over = true;
    dripping.join();
    EXPECT_EQ("<next>\n", ask(server, "next\n"));
}

TEST_F(StatusServerTest, BothLoopbackAddressesAreListenedAt)
{
    for (const std::string host : {"127.0.0.1", "[::1]"}) {
        StatusServer server, second;
        std::string at;
        for (int port = 42000; at.empty() && port < 42100; port++)
            if (server.start(host + ":" + std::to_string(port), error))
                at = host + ":" + std::to_string(port);
        if (at.empty() && host == "[::1]")
            GTEST_SKIP() << "no IPv6 here: " << error;
        ASSERT_NE("", at) << error;
        EXPECT_FALSE(second.start(at, error));
        EXPECT_EQ("cannot listen at " + at + ": Address already in use", error);
    }
}

TEST_F(StatusServerTest, OnlyItsOwnerMayConnect)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    ASSERT_EQ(0, stat(directory.path("run").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);
}

TEST_F(StatusServerTest, ASecondServiceIsRefusedAndALeftoverReplaced)
{
    {
        StatusServer first, second;
        ASSERT_TRUE(first.start(path, error)) << error;
        EXPECT_FALSE(second.start(path, error));
        EXPECT_EQ(path + ": another service answers there: is it running already?", error);
    }
    EXPECT_NE(0, access(path.c_str(), F_OK));
    directory.file("run/socket");
    StatusServer third;
    EXPECT_TRUE(third.start(path, error)) << error;
}

TEST_F(StatusServerTest, APlaceThatOthersMayWriteToIsRefused)
{
    chmod(directory.dir("run").c_str(), 0777);
    StatusServer server;
    EXPECT_FALSE(server.start(path, error));
    EXPECT_EQ(directory.path("run") + ": others may write to it: chmod go-w", error);
    EXPECT_FALSE(server.start("/" + std::string(200, 'x'), error));
    EXPECT_NE(std::string::npos, error.find("the path of a socket has at most 107 bytes"));
}

TEST_F(StatusServerTest, OnlyThisMachinesAddressesAreTaken)
{
    EXPECT_EQ(9464, loopback_port("127.0.0.1:9464"));
    EXPECT_EQ(9464, loopback_port("[::1]:9464"));
    for (const char *text : {"", "[::]:9464", "[::1]", "[::1]:", "::1:9464", "0.0.0.0:9464", "127.0.0.1",
                             "127.0.0.1:", "127.0.0.1:x", "127.0.0.1:99999", "/run/x"})
        EXPECT_EQ(0, loopback_port(text)) << text;
}
