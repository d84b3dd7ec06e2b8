/* Tests of the output "stdout" and of stream.h: pipes, sockets and files that somebody else has made. */

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/fd.h"
#include "unit/agent/agent_testing.h"
#include "unit/output/sink_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;

namespace
{

/* Standard output is another descriptor while this lives. */
class Instead
{
public:
    explicit Instead(int fd) : before_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0))
    {
        fflush(stdout);
        dup2(fd, STDOUT_FILENO);
    }
    ~Instead() { dup2(before_.get(), STDOUT_FILENO); }

private:
    const common::Fd before_;
};

class SinkStdout : public testing::Test
{
protected:
    /* A sink that was opened while standard output was this one. */
    Made open(int fd)
    {
        Made sink("stdout", {});
        bool opened;
        {
            const Instead instead(fd);
            opened = sink->open(sink.error);
        }
        EXPECT_TRUE(opened) << sink.error;
        return sink;
    }
    void pipe_open()
    {
        ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
        reader.reset(ends[0]);
        writer.reset(ends[1]);
    }
    std::string read_bytes(size_t length)
    {
        std::string text(length, '\0');
        size_t held = 0;
        for (ssize_t n = 1; held < length && n > 0; held += static_cast<size_t>(std::max<ssize_t>(n, 0)))
            n = read(reader.get(), text.data() + held, length - held);
        return text.substr(0, held);
    }

    int ends[2] = {};
    common::Fd reader, writer;
};

}  // namespace

TEST_F(SinkStdout, APipeGetsAll)
{
    pipe_open();
    Made sink = open(writer.get());
    const Records records(1, 1000);
    give(*sink, records);
    EXPECT_EQ(records.text(), read_bytes(records.text().size()));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ(0, fcntl(writer.get(), F_GETFL) & O_NONBLOCK) << "the shared end was changed";
}

TEST_F(SinkStdout, SoDoesASocket)
{
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    reader.reset(ends[0]);
    writer.reset(ends[1]);
    Made sink = open(writer.get());
    const Records records(1, 20'000);
    give(*sink, records);
    EXPECT_EQ(records.text(), read_bytes(records.text().size()));
    EXPECT_TRUE(sink->drain(kPatienceMs));
}

TEST_F(SinkStdout, AFileGrowsWhereItWas)
{
    const Directory directory;
    const std::string path = directory.file("out");
    const common::Fd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(6, write(file.get(), "first\n", 6));
    Made sink = open(file.get());
    give(*sink, Records(1, 2));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    ASSERT_EQ(5, write(file.get(), "last\n", 5));
    EXPECT_EQ("first\n" + Records(1, 2).text() + "last\n", content(path));
}

TEST_F(SinkStdout, AReaderThatDoesNotReadIsSaidAndNeverWaitedFor)
{
    pipe_open();
    Made sink = open(writer.get());
    const Records records(1, 3000, 99);
    give(*sink, records);
    EXPECT_TRUE(sink.says("the reader of standard output does not read"));
    EXPECT_TRUE(sink->condition().stuck);
    EXPECT_FALSE(sink->drain(10));
    EXPECT_GT(sink->figures().waiting, 0u);
    EXPECT_EQ(records.text(), read_bytes(records.text().size()));
    EXPECT_TRUE(becomes([&]() { return sink->safe() == 3000; }));
}

TEST_F(SinkStdout, WhatNobodyWillReadIsCounted)
{
    pipe_open();
    Made sink = open(writer.get());
    reader.reset();
    give(*sink, Records(1, 10));
    EXPECT_TRUE(sink.says("the reader of standard output has gone"));
    EXPECT_TRUE(becomes([&]() { return sink->figures().dropped == 10; }));
    EXPECT_EQ(10u, sink->safe());
    give(*sink, Records(11, 10));
    EXPECT_TRUE(becomes([&]() { return sink->figures().dropped == 20; }));
    EXPECT_EQ(0u, sink->figures().retries) << "nothing is waited for";
}

TEST_F(SinkStdout, ClosedItIsRefused)
{
    const common::Fd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Made sink("stdout", {});
    bool opened;
    {
        const Instead instead(null.get());
        opened = sink->open(sink.error);
    }
    EXPECT_FALSE(opened);
    EXPECT_EQ("standard output is closed", sink.error);
}

TEST_F(SinkStdout, AFullDeviceIsStuck)
{
    const common::Fd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    Made sink = open(full.get());
    give(*sink, Records(1, 1));
    EXPECT_TRUE(sink.says("cannot write to standard output: No space left"));
}

TEST(SinkTable, EveryRowSaysWhatItIs)
{
    for (const SinkRow &row : sinks()) {
        EXPECT_EQ(&row, find_sink(row.type));
        EXPECT_FALSE(std::string(row.meaning).empty());
        bool has_bound = false; /* of memory, or of the disk */
        for (const Setting &setting : row.settings) {
            EXPECT_FALSE(std::string(setting.meaning).ends_with('.')) << row.type << " " << setting.key;
            has_bound = has_bound || setting.key == "buffer"s || setting.key == "spool_size"s;
        }
        EXPECT_TRUE(has_bound) << row.type;
    }
    EXPECT_EQ(nullptr, find_sink("none"));
}
