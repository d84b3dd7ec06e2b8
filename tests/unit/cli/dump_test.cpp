/* Tests of the dump: its options, its protocol, the server in a watch and the client. */

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "agent/dump_place.h"
#include "agent/dump_server.h"
#include "cli/dump/dump_client.h"
#include "cli/dump/dump_options.h"
#include "orx_base.h"
#include "orx_fmon.h"
#include "testlib/count.h"
#include "unit/agent/agent_testing.h"
#include "unit/cli/parse.h"

using namespace agent;
using namespace cli;

namespace
{

DumpOptions given(std::vector<std::string> arguments, bool ok, std::string *error = nullptr)
{
    const auto parsed = cli_testing::parse(kDump, std::move(arguments));
    EXPECT_EQ(parsed.ok, ok) << parsed.error;
    EXPECT_EQ(parsed.error.empty(), ok);
    EXPECT_EQ(parsed.error.find('\n'), std::string::npos);
    if (error)
        *error = parsed.error;
    return parsed.options;
}

std::string complaint(const std::vector<std::string> &arguments)
{
    std::string error;
    given(arguments, false, &error);
    return error;
}

/* In place of the monitor's dump: type 0 is a state with a hostile name, 4 counts, 5 is empty, 6 is more than fits. */
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
    } else if (type == 6) {
        const std::string line(30 << 10, 'x');
        for (size_t sent = 0; sent <= kMaxAnswer; sent += line.size())
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
        EXPECT_EQ(0, connect_in(folder.root(), getpid(), fd));
        EXPECT_EQ(0, fcntl(fd.get(), F_SETFL, 0)); /* blocking */
        return fd.release();
    }

    agent_testing::Folder folder;
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
                      folder.root()};
    std::string error;
};

}  // namespace

TEST(CliDumpOptions, Usual)
{
    const DumpOptions options = given({}, true);
    EXPECT_EQ(0, options.pid);
    EXPECT_EQ(0u, options.request.type);
    EXPECT_EQ(0u, options.request.hold_ms);
    EXPECT_FALSE(options.help);
}

TEST(CliDumpOptions, TypesByNameAndNumber)
{
    const char *const names[] = {"all", "instances", "waiting", "dentries", "events", "backend", "files", "losses"};
    for (uint32_t i = 0; i < kDumpTypes; i++) {
        EXPECT_EQ(given({"-t", names[i]}, true).request.type, i);
        EXPECT_EQ(given({"--type=" + std::to_string(i)}, true).request.type, i);
        EXPECT_NE(kDump.help().find("  " + std::to_string(i) + "  " + names[i] + " "), std::string::npos);
    }
    for (const char *bad : {"8", "", "Events", "-1", "0x1", "01", "4294967296"})
        EXPECT_NE(complaint({"-t", bad})
                      .find("--type takes all, instances, waiting, dentries, events, backend, files, "
                            "losses (or 0 to 7)"),
                  std::string::npos)
            << bad;
}

TEST(CliDumpOptions, HoldAndPid)
{
    EXPECT_EQ(500u, given({"--hold", "0.5", "12"}, true).request.hold_ms);
    EXPECT_EQ(60000u, given({"--hold", "60"}, true).request.hold_ms);
    EXPECT_EQ(12, given({"12"}, true).pid);
    for (const char *bad : {"0", "60.1", "nan", "1s", "", "-1"})
        EXPECT_NE(complaint({"--hold", bad}).find("--hold takes"), std::string::npos) << bad;
    for (const char *bad : {"0", "x", "12x", "", "99999999999"})
        EXPECT_NE(complaint({bad}).find("PID is the number"), std::string::npos) << bad;
    EXPECT_NE(complaint({"1", "2"}).find("one PID"), std::string::npos);
}

TEST(CliDumpOptions, Unknown)
{
    EXPECT_NE(complaint({"--foo"}).find("--foo"), std::string::npos);
    EXPECT_NE(complaint({"-x"}).find("-x"), std::string::npos);
    EXPECT_NE(complaint({"-t"}).find("--type needs a value"), std::string::npos);
    EXPECT_NE(complaint({"--hold"}).find("--hold needs a value"), std::string::npos);
    EXPECT_TRUE(given({"--help"}, true).help);
    EXPECT_TRUE(given({"-h"}, true).help);
}

TEST(CliDumpProtocol, Requests)
{
    DumpRequest request;
    const std::string line = format_request({3, 1500});
    EXPECT_EQ("dump 3 1500\n", line);
    ASSERT_TRUE(parse_request(line.substr(0, line.size() - 1), request));
    EXPECT_EQ(3u, request.type);
    EXPECT_EQ(1500u, request.hold_ms);
    EXPECT_LT(format_request({UINT32_MAX, UINT32_MAX}).size(), kMaxRequest);
    for (const char *bad : {"", "dump", "dump ", "dump 1", "dump 1 ", "dump 1 2x", "dump -1 2", "dump 1  2", "Dump 1 2",
                            "dump 4294967296 0", "dump 1 60001", "dump 1 2 3"})
        EXPECT_FALSE(parse_request(bad, request)) << bad;
}

TEST(CliDumpProtocol, Answers)
{
    std::string records;
    append_record(kRecordLine, "\nInstance:", records);
    append_record(kRecordLine, "  a\nb\033", records);
    append_record(kRecordLine, "\nTBD list:", records);
    append_record(kRecordLine, "", records);
    EXPECT_FALSE(read_answer(records).complete);
    append_record(kRecordEnd, "", records);
    const DumpAnswer answer = read_answer(records + "Llate");
    EXPECT_TRUE(answer.complete);
    EXPECT_EQ("Instance:\n  a\\nb\\033\n\nTBD list:\n\n", answer.text);

    EXPECT_FALSE(read_answer("").complete);
    EXPECT_FALSE(read_answer("Z").complete);  // cut off before its end
    EXPECT_FALSE(read_answer(std::string("\0Z\0", 3)).complete);
    std::string refused;
    append_record(kRecordError, "no", refused);
    EXPECT_TRUE(read_answer(refused).complete);
    EXPECT_EQ("no", read_answer(refused).error);
}

TEST(CliDumpClient, FindsListenersInTheTable)
{
    const agent_testing::Folder folder;
    const std::string table = folder.file(
        "unix",
        "Num       RefCount Protocol Flags    Type St Inode Path\n"
        "0000000000000000: 00000002 00000000 00010000 0001 01 1041 /run/fmon/fmon-77.socket\n"
        "0000000000000000: 00000003 00000000 00000000 0001 03 1042 /run/fmon/fmon-78.socket\n"  // a connection
        "0000000000000000: 00000002 00000000 00010000 0001 01 1043 @/run/fmon/fmon-79.socket\n"
        "0000000000000000: 00000002 00000000 00010000 0001 01 1044 /run/fmon-8x.socket\n"
        "0000000000000000: 00000002 00000000 00010000 0001 01 1045 /run/fmon-.socket\n"
        "0000000000000000: 00000002 00000000 00010000 0001 01 1045 /run/fmon-05.socket\n"
        "0000000000000000: 00000002 00000000 00010000 0001 01 1046 /run/user/1 2/fmon-5.socket\n"
        "0000000000000000: 00000002 00000000 00010000 0001 01 1047\n"
        "/fmon-3.socket\n"
        "short\n");
    std::vector<Listener> found = listeners(table.c_str());
    std::erase_if(found,
                  [](const Listener &listener) { return listener.directory == dump_folder() && listener.pid != 77; });
    EXPECT_EQ((std::vector<Listener>{{5, "/run/user/1 2"}, {77, "/run/fmon"}}), found);
}

TEST(CliDumpClient, NobodyThere)
{
    DumpAnswer answer;
    std::string error;
    EXPECT_FALSE(ask_watch(getpid(), {}, answer, error));
    EXPECT_NE(error.find("is no running fmon watch"), std::string::npos) << error;
    EXPECT_FALSE(ask_watch(0x7ffffffe, {}, answer, error));
    EXPECT_NE(error.find("there is no process"), std::string::npos) << error;
    EXPECT_FALSE(is_watch({getpid(), "/nonexistent"}));
}

/* A name that another process has taken is not asked: it could answer anything. */
TEST(CliDumpClient, AnotherProcessUnderTheName)
{
    const agent_testing::Folder folder;
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t target = getpid(), child = fork();
    if (child == 0) {
        const std::string own = folder.path(socket_name(getpid())), name = folder.path(socket_name(target));
        const common::Fd fd = listen_in(folder.root(), 1);
        const bool ok = fd && rename(own.c_str(), name.c_str()) == 0;
        _exit(write(ready[1], ok ? "y" : "n", 1) == 1 ? pause() : 1);
    }
    char ok = 'n';
    ASSERT_EQ(1, read(ready[0], &ok, 1));
    ASSERT_EQ('y', ok);
    common::Fd socket;
    EXPECT_EQ(EPERM, connect_in(folder.root(), target, socket));
    EXPECT_FALSE(is_watch({target, folder.root()}));
    EXPECT_EQ(ENOENT, connect_in(folder.root(), child, socket));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

TEST_F(Dump, LinesArriveWholeAndHarmless)
{
    const DumpAnswer answer = ask(0);
    EXPECT_EQ("", error);
    EXPECT_EQ("Instance:\n    [W] /a\\nE\\033[31m\\377 (dentry)\n\nEvents:\n", answer.text);
    EXPECT_FALSE(answer.cut);
    EXPECT_TRUE(is_watch({getpid(), folder.root()}));
    const std::vector<Listener> all = listeners();  // others may run on this machine
    EXPECT_EQ(1, std::count(all.begin(), all.end(), Listener{getpid(), folder.root()}));
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
    ASSERT_EQ(9, send(deaf, "dump 6 0\n", 9, MSG_NOSIGNAL));
    EXPECT_EQ("Instance:", ask(0).text.substr(0, 9));
    close(silent);
    close(deaf);
}

TEST_F(Dump, AskerThatIsGoneBeforeItsAnswer)
{
    for (int i = 0; i < 4; i++) {
        const int fd = connected();
        ASSERT_EQ(9, send(fd, "dump 6 0\n", 9, MSG_NOSIGNAL));
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
        fake_dump, [](bool) {}, [] { return std::vector<std::string>(); }, folder.root());
    EXPECT_FALSE(second.start());
    EXPECT_FALSE(second.stop());
    EXPECT_EQ("Instance:", ask(0).text.substr(0, 9));
}

TEST_F(Dump, TheSocketGoesWithTheWatch)
{
    const std::string path = folder.path(socket_name(getpid()));
    EXPECT_TRUE(std::filesystem::is_socket(path));
    server.stop();
    EXPECT_FALSE(std::filesystem::exists(path));
}

/* One that sends without end is not taken in. */
TEST(CliDumpClient, BoundsWhatItTakes)
{
    const agent_testing::Folder folder;
    const common::Fd listener = listen_in(folder.root(), 1);
    std::atomic<uint64_t> sent = 0;
    std::thread endless([&] {
        struct pollfd p = {listener.get(), POLLIN, 0};
        poll(&p, 1, -1);
        const int fd = accept(listener.get(), nullptr, nullptr);
        const std::string bytes(1 << 20, 'L');
        for (ssize_t n; sent < 8 * kMaxAnswer && (n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL)) > 0;)
            sent += static_cast<uint64_t>(n);
        close(fd);
    });
    DumpAnswer answer;
    std::string error;
    EXPECT_FALSE(ask_watch(getpid(), {}, answer, error));
    EXPECT_NE(error.find("broke off"), std::string::npos) << error;
    endless.join();
    EXPECT_LT(sent, kMaxAnswer + (8 << 20));
}
