/* Tests of processes.h and process_connector.h: the kernel's messages come through a pair of sockets, of a made-up
 * /proc. */
#include "agent/processes.h"

#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <utility>

#include "unit/agent/process_messages.h"

using namespace agent;
using namespace process_messages;

namespace
{

/* What stands in for the kernel. */
struct FakeKernel {
    std::string failing{}; /* the call that fails, */
    int error = EPERM;     /* with this */
    std::optional<uint32_t> answer = 0;
    std::vector<uint32_t> asked{}; /* operations */
    std::string before{};          /* comes before the answer */
    int ours = -1;

    bool fails(const char *call) const
    {
        errno = error;
        return failing == call;
    }
    void send(const std::string &datagram) const
    {
        EXPECT_EQ(static_cast<ssize_t>(datagram.size()), write(ours, datagram.data(), datagram.size()));
    }
};
FakeKernel g_kernel;
unsigned g_messages = 0;              /* empty ones, that the next call receives */
std::atomic<int> g_receive_error = 0; /* of the next call that receives, whoever makes it */

int fake_socket(int domain, int, int protocol)
{
    int ends[2];
    EXPECT_EQ(AF_NETLINK, domain);
    EXPECT_EQ(NETLINK_CONNECTOR, protocol);
    if (g_kernel.fails("socket") || socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        return -1;
    g_kernel.ours = ends[0];
    return ends[1];
}

int fake_setsockopt(int, int, int, const void *, socklen_t) { return g_kernel.fails("setsockopt") ? -1 : 0; }

int fake_bind(int, const struct sockaddr *address, socklen_t)
{
    EXPECT_EQ(CN_IDX_PROC, reinterpret_cast<const struct sockaddr_nl *>(address)->nl_groups);
    return g_kernel.fails("bind") ? -1 : 0;
}

ssize_t fake_send(int, const void *data, size_t size, int)
{
    if (g_kernel.fails("send"))
        return -1;
    uint32_t acknowledged, operation;
    memcpy(&acknowledged, static_cast<const char *>(data) + 28, sizeof acknowledged);
    memcpy(&operation, static_cast<const char *>(data) + 36, sizeof operation);
    g_kernel.asked.push_back(operation);
    if (!g_kernel.before.empty())
        g_kernel.send(g_kernel.before);
    if (g_kernel.answer)
        g_kernel.send(message(process_message::kNone, 1, {*g_kernel.answer}, acknowledged + 1));
    return static_cast<ssize_t>(size);
}

int fake_recvmmsg(int fd, struct mmsghdr *messages, unsigned count, int flags, struct timespec *timeout)
{
    if (const int error = g_receive_error.exchange(0)) {
        errno = error;
        return -1;
    }
    if (g_messages) {
        for (unsigned i = 0; i < count; i++)
            messages[i].msg_len = 0;
        return static_cast<int>(std::min(count, std::exchange(g_messages, 0u)));
    }
    return recvmmsg(fd, messages, count, flags, timeout);
}

constexpr ConnectorCalls kFakeCalls = {fake_socket, fake_setsockopt, fake_bind, fake_send, fake_recvmmsg};

class Connector : public testing::Test
{
protected:
    Connector() { g_kernel = {}; }
    ~Connector() override
    {
        connector.close();
        close(g_kernel.ours);
    }
    bool open() { return connector.open(error); }
    std::string received()
    {
        std::string pids;
        result = connector.receive([&](const ProcessEvent &event) { pids += std::to_string(event.pid) + " "; });
        return pids;
    }

    ProcessConnector connector{kFakeCalls};
    ProcessConnector::Result result{};
    std::string error;
};

class ProcessNames : public testing::Test
{
protected:
    ProcessNames()
    {
        g_kernel = {};
        proc.put(10, {.name = "sh", .exe = "/bin/dash", .arguments = "sh"});
        proc.put(1, {.name = "init", .exe = "/sbin/init", .arguments = "init", .ppid = 0});
    }
    ~ProcessNames() override
    {
        processes.stop();
        close(g_kernel.ours);
    }
    bool start(bool ancestors = false) { return processes.start(ancestors, error); }
    std::string told(uint32_t pid)
    {
        turn++;
        process = processes.find(pid, turn, turn);
        return process ? process->name + "|" + process->cmdline : "none";
    }

    MadeUpProc proc;
    Processes processes{proc.root(), kFakeCalls};
    uint64_t turn = 0;
    ProcessPtr process;
    std::string error;
};

}  // namespace

TEST_F(Connector, AsksTheKernelAndTakesItsLeave)
{
    ASSERT_TRUE(open()) << error;
    connector.close();
    EXPECT_EQ((std::vector<uint32_t>{PROC_CN_MCAST_LISTEN, PROC_CN_MCAST_IGNORE}), g_kernel.asked);
    EXPECT_EQ(-1, connector.fd());
}

TEST_F(Connector, CallsThatFailAreAReason)
{
    for (const char *call : {"socket", "bind", "send"}) {
        g_kernel = {.failing = call};
        EXPECT_FALSE(open()) << call;
        EXPECT_NE(std::string::npos, error.find("Operation not permitted")) << error;
        EXPECT_EQ(-1, connector.fd());
        close(g_kernel.ours);
        g_kernel.ours = -1;
    }
}

TEST_F(Connector, OptionsOfTheSocketAreNoCondition)
{
    g_kernel.failing = "setsockopt";
    EXPECT_TRUE(open());
}

TEST_F(Connector, WithoutAnAnswerNothingIsReported)
{
    g_kernel.answer.reset();
    EXPECT_FALSE(open());
    EXPECT_NE(std::string::npos, error.find("namespaces")) << error;
}

TEST_F(Connector, ARefusalIsAReason)
{
    g_kernel.answer = EPERM;
    EXPECT_FALSE(open());
    EXPECT_NE(std::string::npos, error.find("Operation not permitted")) << error;
}

TEST_F(Connector, AnswersToOthersAreNotOurs)
{
    g_kernel.answer.reset();
    g_kernel.before = message(process_message::kNone, 1, {0}, 4711);
    EXPECT_FALSE(open());
}

TEST_F(Connector, AnOverflowBeforeTheAnswerIsNone)
{
    g_receive_error = ENOBUFS;
    EXPECT_TRUE(open());
}

TEST_F(Connector, ReceivesWhatWaits)
{
    ASSERT_TRUE(open());
    EXPECT_EQ("", received());
    EXPECT_EQ(ProcessConnector::Result::kAll, result);
    g_kernel.send(executed(1, 20));
    g_kernel.send("rubbish");
    g_kernel.send(executed(1, 21) + executed(1, 22));
    EXPECT_EQ("20 21 22 ", received());
    EXPECT_EQ(ProcessConnector::Result::kAll, result);
}

TEST_F(Connector, WhatFillsACallMayBeMore)
{
    ASSERT_TRUE(open());
    g_messages = ProcessConnector::kMost;
    received();
    EXPECT_EQ(ProcessConnector::Result::kMore, result);
}

TEST_F(Connector, ErrorsAreTold)
{
    ASSERT_TRUE(open());
    for (const auto &[code, expected] :
         {std::pair(ENOBUFS, ProcessConnector::Result::kLoss), std::pair(EAGAIN, ProcessConnector::Result::kAll),
          std::pair(EINTR, ProcessConnector::Result::kAll), std::pair(EBADF, ProcessConnector::Result::kEnd)}) {
        g_receive_error = code;
        received();
        EXPECT_EQ(expected, result) << code;
    }
}

TEST_F(Connector, WhatIsNotOpenHasNothing)
{
    EXPECT_EQ("", received());
    EXPECT_EQ(ProcessConnector::Result::kEnd, result);
}

TEST_F(ProcessNames, OneThatHasEndedIsKnown)
{
    ASSERT_TRUE(start());
    proc.put(20, {.name = "cat", .exe = "/bin/cat", .arguments = "cat x", .ppid = 10});
    g_kernel.send(forked(monotonic_ns(), 10, 20));
    g_kernel.send(executed(monotonic_ns(), 20));
    EXPECT_EQ("cat|cat x", told(20));
    proc.end(20);
    g_kernel.send(ended(monotonic_ns(), 20));
    EXPECT_EQ("cat|cat x", told(20));
    EXPECT_EQ(10u, process->ppid);
    EXPECT_EQ("sh", process->parent->name);
    EXPECT_EQ(0u, processes.losses());
}

TEST_F(ProcessNames, WithinATurnAProcessIsTheSame)
{
    ASSERT_TRUE(start());
    EXPECT_EQ("sh|sh", told(10));
    const ProcessPtr first = process;
    proc.put(10, {.name = "cat", .exe = "/bin/cat", .arguments = "cat"});
    g_kernel.send(executed(monotonic_ns(), 10));
    EXPECT_EQ(first, processes.find(10, turn, turn));
    EXPECT_EQ("cat|cat", told(10));
    EXPECT_EQ("none", told(0));
}

TEST_F(ProcessNames, WhoIsNotReportedIsReadFromProc)
{
    ASSERT_TRUE(start(true));
    EXPECT_EQ("none", told(30));
    proc.put(30, {.name = "thread", .exe = "/bin/x", .arguments = "x", .ppid = 10, .loginuid = "5"});
    EXPECT_EQ("thread|x", told(30));
    EXPECT_EQ("sh", process->parent->name);
    EXPECT_EQ("init", process->parent->parent->name);
    EXPECT_EQ(5u, process->loginuid);
}

TEST_F(ProcessNames, WithoutTheKernelsReportsProcIsRead)
{
    g_kernel.failing = "bind";
    EXPECT_FALSE(start(false));
    EXPECT_EQ("sh|sh", told(10));
    EXPECT_EQ(nullptr, process->parent) << "which costs a reading each";
    EXPECT_EQ(wall_clock_of_tick(5), process->start_ns);
    proc.end(10);
    EXPECT_EQ("none", told(10));
}

TEST_F(ProcessNames, WithoutAnEventDescriptorProcIsRead)
{
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    g_kernel.failing = "";
    const int next = dup(0);
    close(next);
    const struct rlimit tight = {static_cast<rlim_t>(next) + 2, before.rlim_max}; /* room for the two sockets */
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    const bool started = start();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_FALSE(started);
    EXPECT_EQ("sh|sh", told(10));
}

TEST_F(ProcessNames, ALossIsCountedAndMendedFromProc)
{
    ASSERT_TRUE(start());
    EXPECT_EQ("sh|sh", told(10));
    proc.put(10, {.name = "cat", .exe = "/bin/cat", .arguments = "cat"});
    proc.put(40, {.name = "missed", .exe = "/bin/missed", .arguments = "missed", .ppid = 10});
    g_receive_error = ENOBUFS;
    EXPECT_EQ("missed|missed", told(40));
    EXPECT_EQ("cat|cat", told(10));
    EXPECT_EQ(1u, processes.losses());
}

TEST_F(ProcessNames, WhenNothingMoreComesProcIsRead)
{
    ASSERT_TRUE(start());
    EXPECT_EQ("sh|sh", told(10));
    proc.put(10, {.name = "cat", .exe = "/bin/cat", .arguments = "cat"});
    g_receive_error = EBADF;
    EXPECT_EQ("cat|cat", told(10));
}

TEST_F(ProcessNames, AfterTheLastMessageProcIsRead)
{
    ASSERT_TRUE(start());
    EXPECT_EQ("sh|sh", told(10));
    processes.stop();
    proc.put(10, {.name = "cat", .exe = "/bin/cat", .arguments = "cat"});
    EXPECT_EQ("cat|cat", told(10));
}
