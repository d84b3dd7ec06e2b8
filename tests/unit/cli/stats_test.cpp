/* `fmon stats` against a service of the test's own. */
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "agent/message.h"
#include "cli/stats/stats_client.h"
#include "cli/stats/stats_options.h"
#include "common/fd.h"
#include "unit/agent/agent_testing.h"

using namespace cli;

namespace
{

class Stats : public testing::Test
{
protected:
    Stats() : path(directory.path("fmon.sock")) {}
    ~Stats() override
    {
        if (service.joinable())
            service.join();
    }

    void listen_at_path()
    {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path.c_str());
        socket.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(0, bind(socket.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address));
        ASSERT_EQ(0, listen(socket.get(), 1));
    }
    /* Takes one request, says that, in two pieces, and closes. */
    void serve(const std::string &answer)
    {
        listen_at_path();
        service = std::thread([this, answer] {
            const common::Fd asker(accept(socket.get(), nullptr, nullptr));
            char request[16] = {};
            const ssize_t n = recv(asker.get(), request, sizeof request, 0);
            asked.assign(request, n > 0 ? static_cast<size_t>(n) : 0);
            const size_t half = answer.size() / 2;
            send(asker.get(), answer.data(), half, MSG_NOSIGNAL);
            send(asker.get(), answer.data() + half, answer.size() - half, MSG_NOSIGNAL);
        });
    }
    std::string ask(uint64_t patience_ms = 5000)
    {
        std::string answer, error;
        return ask_service(path, patience_ms, answer, error) ? answer : "error: " + error;
    }
    int run(StatsForm form, std::string &out)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = run_stats({path, form});
        out = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
        return status;
    }

    agent_testing::Directory directory;
    std::string path, asked;
    common::Fd socket;
    std::thread service;
};

}  // namespace

TEST_F(Stats, AsksAndTakesTheWholeLine)
{
    serve("{\"a\":1}\n");
    EXPECT_EQ("{\"a\":1}", ask());
    service.join();
    EXPECT_EQ("stats\n", asked);
}

TEST_F(Stats, SaysWhyThereIsNoAnswer)
{
    EXPECT_EQ("error: no service listens at " + path + ": start it (fmon run), or name its socket with --socket",
              ask());
    listen_at_path();
    EXPECT_EQ("error: the service at " + path + " does not answer: it may be stopped, or ending", ask(50));
    socket.reset();
    EXPECT_EQ("error: the service that listened at " + path + " has ended", ask());
    path = "/" + std::string(200, 'x');
    EXPECT_NE(std::string::npos, ask().find(" is too long for a socket's path"));
}

TEST_F(Stats, AnAnswerThatBreaksOffIsNone)
{
    serve("{\"a\":");
    EXPECT_NE(std::string::npos, ask().find("does not answer"));
}

TEST_F(Stats, PrintsEachForm)
{
    const std::string answer = "{\"service\":{\"host\":\"web1\"}}";
    std::string out;
    for (const auto &[form, part] : {std::pair(StatsForm::kText, "service     web1"),
                                     {StatsForm::kJson, "{\"service\":{\"host\":\"web1\"}}\n"},
                                     {StatsForm::kPrometheus, "fmon_info{version=\"\",host=\"web1\""}}) {
        unlink(path.c_str());
        serve(answer + "\n");
        EXPECT_EQ(agent::kDone, run(form, out));
        EXPECT_NE(std::string::npos, out.find(part)) << out;
        service.join();
    }
}

TEST_F(Stats, WhatIsNoServiceIsRefused)
{
    std::string out;
    serve("hello\n");
    EXPECT_EQ(agent::kError, run(StatsForm::kJson, out));
    EXPECT_EQ("fmon: what listens at " + path + " is no fmon run\n", out);
}
