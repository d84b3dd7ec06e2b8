/* The socket on which a service answers: who may connect, what is left there, and who asks nothing. */
#include "cli/run/status_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "unit/agent/agent_testing.h"

using namespace cli;

namespace
{

class StatusServerTest : public testing::Test
{
protected:
    /* What is answered to those bytes. */
    std::string ask(StatusServer &server, const std::string &request, bool http = false) const
    {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const common::Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(0, connect(fd.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address));
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

TEST_F(StatusServerTest, InHttpAnyRequestIsAnswered)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    const std::string answer = ask(server, "GET /metrics HTTP/1.1\r\nHost: a\r\n\r\n", true);
    EXPECT_TRUE(answer.starts_with("HTTP/1.0 200 OK\r\n")) << answer;
    EXPECT_TRUE(answer.ends_with("Content-Length: 10\r\n\r\nfmon_up 1\n")) << answer;
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
    for (const char *text : {"", "0.0.0.0:9464", "127.0.0.1", "127.0.0.1:", "127.0.0.1:x", "127.0.0.1:99999", "/run/x"})
        EXPECT_EQ(0, loopback_port(text)) << text;
}
