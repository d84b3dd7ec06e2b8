/* The service with each of its own calls failing: a sentence for it, and nothing else is touched. */
#include <poll.h>
#include <unistd.h>

#include <cstring>

#include "agent/message.h"
#include "cli/run/config_file.h"
#include "cli/run/instance.h"
#include "cli/run/service.h"
#include "cli/run/status_server.h"
#include "testlib/fault.h"
#include "testlib/in_child.h"
#include "unit/agent/agent_testing.h"

using namespace cli;
using testlib::Fault;

namespace
{

class ServiceFaults : public testing::Test
{
protected:
    /* An instance that watches these paths, into one output. */
    InstanceConfig config_of(std::initializer_list<std::string> paths, const std::string &type = "stdout") const
    {
        InstanceConfig config;
        config.name = "a";
        for (const std::string &watched : paths) {
            agent::Request request;
            request.paths = {watched};
            config.watches.push_back(request);
        }
        OutputConfig output;
        output.type = type;
        output.format = "json";
        config.outputs = {output};
        return config;
    }

    bool apply(Instance &instance, const InstanceConfig &config)
    {
        return instance.apply(config, 0, undelivered, error);
    }

    agent_testing::Directory directory;
    const std::string path = directory.path("run/socket");
    agent::ServiceMonitor monitor;
    Numbers numbers;
    Surroundings around{monitor, numbers, "host", "boot", {}, [] {}};
    output::Leftover undelivered;
    std::string error;
};

}  // namespace

/* ---- the socket ---- */

TEST_F(ServiceFaults, ASocketThatCannotBeHadIsSaid)
{
    for (const std::string &at : {path, std::string("127.0.0.1:49464")})
        for (const char *call : {"socket", "bind", "listen"}) {
            StatusServer server;
            const Fault fault(call, 1, EMFILE);
            EXPECT_FALSE(server.start(at, error)) << call << at;
            EXPECT_TRUE(fault.hit()) << call << at;
            EXPECT_EQ("cannot listen at " + at + ": Too many open files", error) << call;
            EXPECT_EQ(-1, server.fd());
        }
    StatusServer server;
    EXPECT_TRUE(server.start(path, error)) << error;
}

TEST_F(ServiceFaults, AnotherServicesSocketStaysWhereItCannotBeAsked)
{
    StatusServer first, second;
    ASSERT_TRUE(first.start(path, error)) << error;
    {
        const Fault fault("socket", 1, EMFILE);
        EXPECT_FALSE(second.start(path, error));
    }
    EXPECT_EQ(0, access(path.c_str(), F_OK));
    EXPECT_FALSE(second.start(path, error));
    EXPECT_EQ(path + ": another service answers there: is it running already?", error);
}

/* Who asked waits, and the service does not run in circles until a descriptor is left. */
TEST_F(ServiceFaults, AnAskerWhoCannotBeTakenWaits)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    const common::Fd asker = agent_testing::connected_to(path);
    ASSERT_EQ(6, write(asker.get(), "stats\n", 6));
    const auto answer = [](const std::string &line) { return "<" + line + ">"; };
    {
        const Fault fault("accept4", 1, EMFILE);
        server.serve(answer);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(-1, server.fd());
    pollfd none = {asker.get(), POLLIN, 0}; /* no answer comes while nobody listens */
    while (server.fd() < 0)
        ASSERT_EQ(0, poll(&none, 1, 10));
    server.serve(answer);
    char text[16] = {};
    EXPECT_EQ(8, read(asker.get(), text, sizeof text));
    EXPECT_STREQ("<stats>\n", text);
}

TEST_F(ServiceFaults, AnAnswerThatCannotBeSentIsGivenUp)
{
    StatusServer server;
    ASSERT_TRUE(server.start(path, error)) << error;
    const common::Fd asker = agent_testing::connected_to(path);
    ASSERT_EQ(1, write(asker.get(), "\n", 1));
    const Fault fault("send", 1, EPIPE);
    server.serve([](const std::string &) { return "answer"; });
    char byte;
    EXPECT_EQ(0, read(asker.get(), &byte, 1));
    EXPECT_TRUE(fault.hit());
}

/* ---- the start ---- */

TEST_F(ServiceFaults, WithoutItsDescriptorsItDoesNotStart)
{
    for (const char *call : {"signalfd", "eventfd"})
        in_child([&] {
            Service service("f", Config());
            testing::internal::CaptureStderr();
            const Fault fault(call, 1, EMFILE);
            EXPECT_EQ(agent::kError, service.run());
            EXPECT_EQ("fmon: no descriptor is left: see ulimit -n\n", testing::internal::GetCapturedStderr());
            EXPECT_TRUE(fault.hit()) << call;
        });
}

TEST_F(ServiceFaults, AConfigurationThatCannotBeReadIsSaid)
{
    const std::string file = directory.file("fmon.toml");
    std::string text;
    const struct {
        const char *call;
        int error;
    } rows[] = {{"open", EMFILE}, {"fstat", EIO}, {"read", EIO}};
    for (const auto &row : rows) {
        const Fault fault(row.call, 1, row.error);
        EXPECT_FALSE(read_config_file(file, text, error)) << row.call;
        EXPECT_EQ(file + ": " + strerror(row.error), error);
        EXPECT_TRUE(fault.hit()) << row.call;
    }
    EXPECT_TRUE(read_config_file(file, text, error)) << error;
}

/* ---- instances ---- */

TEST_F(ServiceFaults, AWatchThatCannotBeStartedIsSaidAndTakesNoNumber)
{
    for (const auto &[call, nth] : {std::pair{"eventfd", 3}, std::pair{"pthread_create", 2}}) {
        Instance instance("a", around);
        const Fault fault(call, nth, EAGAIN); /* those before are the output's */
        EXPECT_FALSE(apply(instance, config_of({directory.root()}))) << call;
        EXPECT_EQ("instance a: no thread, or no descriptor, is left for a watch (ulimit -u, ulimit -n)", error);
        EXPECT_TRUE(instance.watches().empty());
        EXPECT_TRUE(fault.hit()) << call;
        const unsigned number = numbers.take();
        EXPECT_EQ(0u, number) << call;
        numbers.give_back(number);
    }
}
