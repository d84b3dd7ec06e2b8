/* The server of the dump in a watch, and whoever asks there. */

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "agent/dump_place.h"
#include "agent/dump_server.h"
#include "cli/dump/dump_client.h"
#include "orx_base.h"
#include "testlib/count.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using namespace cli;

namespace
{

/* In place of the monitor's dump: type 0 is a state with a hostile name, 3 is more than a socket holds, 4 counts, 5 is
 * empty, 6 is more than fits. */
std::atomic<int> waiting_events, dumps;

int fake_dump(uint32_t type, void *)
{
    dumps++;
    if (type == 0) {
        error_output(4, "fmon.c", 1, "\nInstance:\n");
        error_output(4, "fmon.c", 2, "    [W] %s (%s)\n", "/a\nE\033[31m\xff", "dentry");
        error_output(4, "fmon.c", 3, "\nEvents:\n");
    } else if (type == 4) {
        error_output(4, "fmon.c", 1, "\nEvents:\n");
        error_output(4, "fmon.c", 2, "count: %d\n", waiting_events.load());
    } else if (type == 3 || type == 6) {
        const std::string line(30 << 10, 'x');
        for (size_t sent = 0; sent <= (type == 3 ? 4 << 20 : kMaxAnswer); sent += line.size())
            error_output(4, "fmon.c", 1, "%s\n", line.c_str());
    }
    return type > 6 ? -1 : 0;
}

/* A watch as far as the dump is concerned, in this process. */
class Dump : public testing::Test
{
protected:
    void SetUp() override
    {
        waiting_events = dumps = 0;
        ASSERT_TRUE(server.start());
    }

    DumpAnswer ask(uint32_t type, uint32_t hold_ms = 0)
    {
        DumpAnswer answer;
        error.clear();
        const bool ok = ask_watch(getpid(), {type, hold_ms}, answer, error);
        EXPECT_EQ(ok, error.empty());
        return answer;
    }

    /* A connection that says `bytes` and gives back what it gets. */
    std::string say(const std::string &bytes) const
    {
        const int fd = connected();
        EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        shutdown(fd, SHUT_WR);
        std::string all;
        char chunk[4096];
        for (ssize_t n; (n = recv(fd, chunk, sizeof chunk, 0)) > 0;)
            all.append(chunk, static_cast<size_t>(n));
        close(fd);
        return all;
    }

    int connected() const
    {
        common::Fd fd;
        EXPECT_EQ(0, connect_in(directory.root(), getpid(), fd));
        EXPECT_EQ(0, fcntl(fd.get(), F_SETFL, 0)); /* blocking */
        return fd.release();
    }

    agent_testing::Directory directory;
    std::atomic<int> holds = 0;
    testlib::Count held;
    DumpServer server{fake_dump,
                      [this](bool on) {
                          holds += on;
                          held.raise(on ? 1 : -1);
                      },
                      [] {
                          return std::vector<std::string>{"2 events found no memory", "/a\nb is full"};
                      },
                      directory.root()};
    std::string error;
};

}  // namespace

TEST_F(Dump, LinesArriveWholeAndHarmless)
{
    const DumpAnswer answer = ask(0);
    EXPECT_EQ("", error);
    EXPECT_EQ("Instance:\n    [W] /a\\nE\\033[31m\\377 (dentry)\n\nEvents:\n", answer.text);
    EXPECT_FALSE(answer.cut);
    EXPECT_TRUE(is_watch({getpid(), directory.root()}));
    const std::vector<Listener> all = listeners();  // others may run on this machine
    EXPECT_EQ(1, std::count(all.begin(), all.end(), Listener{getpid(), directory.root()}));
}

TEST_F(Dump, EmptyPart) { EXPECT_EQ("", ask(5).text); }

TEST_F(Dump, UnknownType)
{
    ask(8);
    EXPECT_NE(error.find("knows no type 8"), std::string::npos) << error;
    EXPECT_EQ("Instance:", ask(0).text.substr(0, 9));
}

TEST_F(Dump, WhatIsTooLongIsCut)
{
    const DumpAnswer answer = ask(6);
    EXPECT_TRUE(answer.cut);
    EXPECT_LE(answer.text.size(), kMaxAnswer);
    EXPECT_GT(answer.text.size(), kMaxAnswer / 2);
}

TEST_F(Dump, Garbage)
{
    const std::string nul(100, '\0');
    for (const std::string &bytes :
         {std::string("\n"), std::string("GET / HTTP/1.0\r\n"), std::string("dump 1 60001\n"), std::string(1000, 'x'),
          nul, std::string("dump 0 0\0\n", 10)})
        EXPECT_NE(say(bytes).find("Ethe request is not understood"), std::string::npos) << bytes;
    EXPECT_EQ("", say(""));
    EXPECT_EQ("", say("dump 0 0"));  // no newline
    EXPECT_EQ(0, dumps);
    EXPECT_EQ("Instance:", ask(0).text.substr(0, 9));
}

TEST_F(Dump, HoldsEventsForItsTime)
{
    const auto start = std::chrono::steady_clock::now();
    ask(0, 300);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(280));
    EXPECT_EQ(1, holds);
    EXPECT_TRUE(held.becomes(0));
}

TEST_F(Dump, HoldEndsBeforeTheMonitorIsFull)
{
    waiting_events = 100000000;
    const auto start = std::chrono::steady_clock::now();
    ask(4, 60000);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(0, held.now());
    EXPECT_EQ("", error);
}

TEST_F(Dump, HoldEndsWithItsAsker)
{
    const int fd = connected();
    ASSERT_EQ(13, send(fd, "dump 0 60000\n", 13, MSG_NOSIGNAL));
    ASSERT_TRUE(held.becomes(1));
    close(fd);
    EXPECT_TRUE(held.becomes(0));
    EXPECT_EQ("Instance:", ask(0).text.substr(0, 9));
}

TEST_F(Dump, HoldEndsWithTheWatch)
{
    const int fd = connected();
    ASSERT_EQ(13, send(fd, "dump 0 60000\n", 13, MSG_NOSIGNAL));
    ASSERT_TRUE(held.becomes(1));
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(0, held.now());
    EXPECT_FALSE(server.stop());
    close(fd);
}

/* One that says nothing, and one that reads nothing, are given up; the next is served. */
TEST_F(Dump, AskersThatHang)
{
    const int silent = connected(), deaf = connected();
    ASSERT_EQ(9, send(deaf, "dump 3 0\n", 9, MSG_NOSIGNAL));
    EXPECT_EQ("Instance:", ask(0).text.substr(0, 9));
    close(silent);
    close(deaf);
}

TEST_F(Dump, AskerThatIsGoneBeforeItsAnswer)
{
    for (int i = 0; i < 4; i++) {
        const int fd = connected();
        ASSERT_EQ(9, send(fd, "dump 3 0\n", 9, MSG_NOSIGNAL));
        close(fd);
        if (i == 0) {
            EXPECT_EQ("", ask(5).text);
        }
    }
    EXPECT_EQ(false, server.stop());
}

TEST_F(Dump, SeveralAtOnce)
{
    std::atomic<int> good = 0;
    std::vector<std::thread> askers;
    for (int i = 0; i < 8; i++)
        askers.emplace_back([&] {
            DumpAnswer answer;
            std::string complaint;
            good += ask_watch(getpid(), {0, 0}, answer, complaint) && answer.text.substr(0, 9) == "Instance:";
        });
    for (std::thread &asker : askers)
        asker.join();
    EXPECT_EQ(8, good);
}

TEST_F(Dump, LossesAreToldByTheWatch)
{
    const DumpAnswer answer = ask(kDumpLosses);
    EXPECT_EQ("2 events found no memory\n/a\\nb is full\n", answer.text);
    EXPECT_EQ(0, dumps) << "the monitor is not stopped for it";
}

TEST_F(Dump, ASecondServerOfOneProcessGivesWay)
{
    DumpServer second(
        fake_dump, [](bool) {}, [] { return std::vector<std::string>(); }, directory.root());
    EXPECT_FALSE(second.start());
    EXPECT_FALSE(second.stop());
    EXPECT_EQ("Instance:", ask(0).text.substr(0, 9));
}

TEST_F(Dump, TheSocketGoesWithTheWatch)
{
    const std::string path = directory.path(socket_name(getpid()));
    EXPECT_TRUE(std::filesystem::is_socket(path));
    server.stop();
    EXPECT_FALSE(std::filesystem::exists(path));
}
