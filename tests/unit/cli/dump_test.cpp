/* The dump as it is asked for: its options, its protocol and the client. */

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "agent/dump_place.h"
#include "agent/dump_server.h"
#include "cli/dump/dump_client.h"
#include "cli/dump/dump_options.h"
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

}  // namespace

TEST(CliDumpOptions, Defaults)
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
    const agent_testing::Directory directory;
    const std::string table = directory.file(
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
    std::erase_if(
        found, [](const Listener &listener) { return listener.directory == dump_directory() && listener.pid != 77; });
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
    const agent_testing::Directory directory;
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t target = getpid(), child = fork();
    if (child == 0) {
        const std::string own = directory.path(socket_name(getpid())), name = directory.path(socket_name(target));
        const common::Fd fd = listen_in(directory.root(), 1);
        const bool ok = fd && rename(own.c_str(), name.c_str()) == 0;
        _exit(write(ready[1], ok ? "y" : "n", 1) == 1 ? pause() : 1);
    }
    char ok = 'n';
    ASSERT_EQ(1, read(ready[0], &ok, 1));
    ASSERT_EQ('y', ok);
    common::Fd socket;
    EXPECT_EQ(EPERM, connect_in(directory.root(), target, socket));
    EXPECT_FALSE(is_watch({target, directory.root()}));
    EXPECT_EQ(ENOENT, connect_in(directory.root(), child, socket));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

/* One that sends without end is not taken in. */
TEST(CliDumpClient, BoundsWhatItTakes)
{
    const agent_testing::Directory directory;
    const common::Fd listener = listen_in(directory.root(), 1);
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
