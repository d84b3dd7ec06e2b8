/* Tests of outputs into commands, sockets and the journal with each of their calls failing. */

#include <sys/stat.h>

#include "testlib/fault.h"
#include "unit/agent/agent_testing.h"
#include "unit/output/net_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;
using testlib::Fault;
using testlib::ThreadScope;

namespace
{

constexpr ThreadScope kAll = ThreadScope::kAll;

class SinkNetFaults : public testing::Test
{
protected:
    /* Stuck while the call fails, and that is said. */
    void stuck(Made &sink, const char *call, int error, const std::string &said)
    {
        ASSERT_TRUE(sink.open()) << call;
        const Fault fault(call, 1, error, 2, kAll);
        give(*sink, Records(1, 3));
        EXPECT_TRUE(sink.says(said)) << call << ": " << sink->condition().text;
        EXPECT_TRUE(becomes([&]() { return sink->figures().waiting == 0; })) << call;
        EXPECT_TRUE(fault.hit()) << call;
        EXPECT_EQ(0u, sink->figures().dropped) << call;
    }

    const Directory directory;
};

}  // namespace

TEST_F(SinkNetFaults, CommandsThatCannotBeStarted)
{
    for (const auto &[call, error] :
         std::map<const char *, int>{{"pipe2", EMFILE}, {"fcntl", EINVAL}, {"posix_spawn", ENOMEM}}) {
        const std::string out = directory.path("out");
        Made sink("command", {{"command", "cat > " + out}});
        stuck(sink, call, error, "cannot start the command: ");
        EXPECT_TRUE(sink->drain(kPatienceMs));
        EXPECT_EQ(Records(1, 3).text(), content(out)) << call;
    }
}

TEST_F(SinkNetFaults, CommandsThatCannotBeWrittenTo)
{
    const std::string out = directory.path("out");
    Made sink("command", {{"command", "cat > " + out}});
    stuck(sink, "write", EIO, "cannot write to the command: Input/output error");
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ(Records(1, 3).text(), content(out));
}

TEST_F(SinkNetFaults, SyslogWhoseSocketsFail)
{
    const common::Fd log = unix_datagrams(directory.path("log"));
    for (const auto &[call, error] :
         std::map<const char *, int>{{"socket", EMFILE}, {"connect", EACCES}, {"send", ENOTCONN}}) {
        Made sink("syslog", {{"address", directory.path("log")}});
        stuck(sink, call, error, strerror(error));
        for (int number = 1; number <= 3; number++)
            EXPECT_TRUE(received(log).ends_with("record " + std::to_string(number))) << call;
    }
}

TEST_F(SinkNetFaults, AKernelWithoutMemoryIsWaitedFor)
{
    const common::Fd log = unix_datagrams(directory.path("log"));
    Made sink("syslog", {{"address", directory.path("log")}});
    stuck(sink, "send", ENOBUFS, "takes nothing");
    EXPECT_TRUE(received(log).ends_with("record 1"));
}

TEST_F(SinkNetFaults, ConnectionsThatCannotBeMade)
{
    const common::Fd server = bound(SOCK_STREAM);
    for (const auto &[call, error] : std::map<const char *, int>{{"socket", EMFILE}, {"connect", ENETUNREACH}}) {
        Made sink("syslog", {{"address", url("tcp", port_of(server))}});
        stuck(sink, call, error,
              "cannot connect to 127.0.0.1:" + std::to_string(port_of(server)) + ": " + strerror(error));
        EXPECT_TRUE(received(accepted(server)).ends_with("record 3"));
    }
}

TEST_F(SinkNetFaults, TheJournalWithoutFilesInMemory)
{
    for (const auto &[call, error] : std::map<const char *, int>{
             {"memfd_create", EMFILE}, {"fcntl", EPERM}, {"sendmsg", ENOTCONN}, {"write", ENOSPC}}) {
        const std::string path = directory.path("journal-"s + call);
        const common::Fd journal = unix_datagrams(path);
        Made sink("journal", {{"socket", path}});
        ASSERT_TRUE(sink.open());
        const Fault fault(call, 1, error, 1, kAll);
        give(*sink, std::vector{record_of(1, std::string(500'000, 'x') + "\n")});
        EXPECT_TRUE(sink.says("cannot send to the journal: "s + strerror(error))) << call;
        EXPECT_TRUE(becomes([&]() { return sink->safe() == 1; })) << call;
        EXPECT_EQ(0u, sink->figures().dropped);
    }
}

TEST_F(SinkNetFaults, ASocketThatCannotBeMade)
{
    for (const char *call : {"socket", "fchmod", "bind", "listen"}) {
        Made sink("socket", {{"path", directory.path("socket")}, {"readers", uint64_t{3}}});
        const Fault fault(call, 1, EACCES, 1, kAll);
        EXPECT_FALSE(sink->open(sink.error)) << call;
        EXPECT_EQ("cannot listen at " + directory.path("socket") + ": Permission denied", sink.error);
        unlink(directory.path("socket").c_str());
    }
}

TEST_F(SinkNetFaults, ReadersWithoutADescriptorAreTakenLater)
{
    const std::string path = directory.path("socket");
    Made sink("socket", {{"path", path},
                         {"readers", uint64_t{3}},
                         {"reader_patience", uint64_t{10'000}},
                         {"reader_buffer", uint64_t{1000}}});
    ASSERT_TRUE(sink.open());
    const Fault fault("accept4", 1, EMFILE, 1, kAll);
    std::string error;
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    const common::Fd reader(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, connect(reader.get(), reinterpret_cast<struct sockaddr *>(&address), sizeof address));
    EXPECT_TRUE(sink.says("a reader cannot be taken: no file descriptor is left"));
    EXPECT_TRUE(becomes([&]() {
        give(*sink, Records(1, 1));
        char byte;
        return recv(reader.get(), &byte, 1, MSG_DONTWAIT) == 1;
    }));
}
