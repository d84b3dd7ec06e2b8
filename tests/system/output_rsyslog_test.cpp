/* The output into syslog, read by rsyslog as people run it. */
#include <unistd.h>

#include "harness.h"
#include "unit/output/net_testing.h"

using namespace output;
using namespace sink_testing;

namespace
{

constexpr char kDaemon[] = "/usr/sbin/rsyslogd";

class OutputRsyslog : public testing::Test
{
protected:
    void SetUp() override { NEED(access(kDaemon, X_OK) == 0, "rsyslogd is not installed"); }

    /* rsyslogd with an input, which writes what it has understood of each message. */
    void start(const std::string &module, const std::string &input)
    {
        const std::string configuration =
            tree.file("rsyslog.conf", "module(load=\"" + module + "\")\ninput(type=\"" + module + "\" " + input +
                                          ")\ntemplate(name=\"parts\" type=\"string\" "
                                          "string=\"%pri%|%hostname%|%app-name%|%procid%|%msgid%|%msg%\\n\")\n"
                                          "if $programname == \"fmon\" then action(type=\"omfile\" file=\"" +
                                          out + "\" template=\"parts\")\n");
        systest::Launch launch;
        launch.argv = {kDaemon, "-n", "-f", configuration, "-i", tree.path("pid")};
        daemon = std::make_unique<systest::Process>(launch);
    }
    void send(const std::string &address, const std::string &form)
    {
        sink = std::make_unique<Made>("syslog",
                                      std::map<std::string, Settings::Value>{{"address", address}, {"form", form}});
        ASSERT_TRUE(sink->open());
        give(**sink, Records(1, 500));
        EXPECT_TRUE((*sink)->drain(kPatienceMs)) << (*sink)->condition().text;
    }
    /* Each record once, in order, with these parts before its text. */
    void expect_read(const std::string &parts)
    {
        std::string expected;
        for (uint64_t number = 1; number <= 500; number++)
            expected += parts + line_of(number);
        EXPECT_TRUE(becomes([&]() { return content(out).size() >= expected.size(); })) << daemon->errors();
        EXPECT_TRUE(expected == content(out)) << content(out).substr(0, 500);
    }

    testlib::TempTree tree;
    const std::string out = tree.path("out"), pid = std::to_string(getpid());
    std::unique_ptr<systest::Process> daemon;
    std::unique_ptr<Made> sink;
};

}  // namespace

TEST_F(OutputRsyslog, ByTcp)
{
    const uint16_t port = port_of(bound(SOCK_STREAM));
    start("imtcp", "address=\"127.0.0.1\" port=\"" + std::to_string(port) + "\"");
    send(url("tcp", port), "rfc5424");
    expect_read("30|host1|fmon|" + pid + "|event|");
}

TEST_F(OutputRsyslog, ByItsOwnSocketInTheOlderForm)
{
    const std::string socket = tree.path("log");
    start("imuxsock", "socket=\"" + socket + "\" ratelimit.interval=\"0\"");
    send(socket, "rfc3164");
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    expect_read("30|" + std::string(host).substr(0, std::string(host).find('.')) + "|fmon|" + pid + "|-| ");
}
