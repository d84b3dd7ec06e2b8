/* Tests of the output "journal": fields, and records that no datagram holds. */

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"
#include "unit/output/net_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;

namespace
{

/* The fields of a message as the journal reads them. */
std::map<std::string, std::string> fields_of(std::string_view message)
{
    std::map<std::string, std::string> fields;
    while (!message.empty()) {
        const size_t end = message.find_first_of("=\n");
        const std::string name(message.substr(0, end));
        size_t length = message.find('\n') - end - 1;
        size_t start = end + 1;
        if (message[end] == '\n') {
            uint64_t size;
            memcpy(&size, message.data() + start, sizeof size);
            length = size;
            start += sizeof size;
        }
        fields[name] = message.substr(start, length);
        EXPECT_EQ('\n', message[start + length]);
        message.remove_prefix(start + length + 1);
    }
    return fields;
}

/* The content of the descriptor that comes with an empty datagram, or the datagram. */
std::string message_at(const common::Fd &journal)
{
    EXPECT_TRUE(is_readable(journal));
    std::string bytes(1 << 20, '\0');
    struct iovec part = {bytes.data(), bytes.size()};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t n = recvmsg(journal.get(), &message, MSG_CMSG_CLOEXEC);
    EXPECT_GE(n, 0);
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(n, 0)));
    const struct cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (!header)
        return bytes;
    EXPECT_EQ(0, n);
    int fd;
    memcpy(&fd, CMSG_DATA(header), sizeof fd);
    const common::Fd file(fd);
    struct stat st = {};
    fstat(fd, &st);
    EXPECT_EQ(F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL, fcntl(fd, F_GET_SEALS));
    bytes.assign(static_cast<size_t>(st.st_size), '\0');
    EXPECT_EQ(st.st_size, pread(fd, bytes.data(), bytes.size(), 0));
    return bytes;
}

class SinkJournal : public testing::Test
{
protected:
    const Directory directory;
    const common::Fd journal = unix_datagrams(directory.path("journal"));
    Made sink{"journal", {{"socket", directory.path("journal")}}};
};

}  // namespace

TEST_F(SinkJournal, ARecordIsFields)
{
    ASSERT_TRUE(sink.open());
    agent::ProcessInfo process;
    process.name = "rm";
    process.exe = "/usr/bin/rm";
    agent::Event event = agent_testing::event_of("/data/a\nb", FMON_DELETE, 42, &process);
    event.container = "c0ffee";
    give(*sink, std::vector{record_of(9, "text\n", "event", &event)});
    const std::map<std::string, std::string> expected = {
        {"MESSAGE", "text"},    {"PRIORITY", "6"},      {"SYSLOG_IDENTIFIER", "fmon"}, {"FMON_INSTANCE", "web"},
        {"FMON_TYPE", "event"}, {"FMON_NUMBER", "9"},   {"FMON_PATH", "/data/a\nb"},   {"FMON_EVENTS", "delete"},
        {"FMON_PID", "42"},     {"FMON_PROCESS", "rm"}, {"FMON_EXE", "/usr/bin/rm"},   {"FMON_CONTAINER", "c0ffee"}};
    EXPECT_EQ(expected, fields_of(message_at(journal)));
    EXPECT_TRUE(sink->drain(kPatienceMs));
}

TEST_F(SinkJournal, LossesAreWarnings)
{
    ASSERT_TRUE(sink.open());
    give(*sink, std::vector{record_of(1, "lost\n", "loss")});
    auto fields = fields_of(message_at(journal));
    EXPECT_EQ("4", fields["PRIORITY"]);
    EXPECT_EQ("loss", fields["FMON_TYPE"]);
    EXPECT_EQ(0u, fields.count("FMON_PATH"));
}

TEST_F(SinkJournal, WhatNoDatagramHoldsGoesAsAFile)
{
    ASSERT_TRUE(sink.open());
    const std::string text(500'000, 'x');
    give(*sink, std::vector{record_of(1, text + "\n"), record_of(2, "short\n")});
    EXPECT_TRUE(text == fields_of(message_at(journal))["MESSAGE"]);
    EXPECT_EQ("short", fields_of(message_at(journal))["MESSAGE"]);
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ(0u, sink->figures().dropped);
}

TEST_F(SinkJournal, ASocketIsNeeded)
{
    EXPECT_EQ("socket: an absolute path of 107 bytes at most is needed", Made("journal", {{"socket", "x"s}}).error);
}
