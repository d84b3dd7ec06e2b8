/* Tests of the output "command": what the command reads, its end, and commands that do not behave. */

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "unit/agent/agent_testing.h"
#include "unit/output/sink_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;

namespace
{

class SinkCommand : public testing::Test
{
protected:
    void open(const std::string &command)
    {
        sink = std::make_unique<Made>("command", std::map<std::string, Settings::Value>{{"command", command}});
        ASSERT_TRUE(sink->open());
    }
    std::string written() const { return content(out); }
    bool is_written(const std::string &text) const
    {
        return becomes([&]() { return written() == text; });
    }

    const Directory directory;
    const std::string out = directory.path("out");
    std::unique_ptr<Made> sink;
};

}  // namespace

TEST_F(SinkCommand, ReadsAllAndEndsByItself)
{
    open("cat > " + out + "; echo end >> " + out);
    const Records records(1, 20'000);
    give(**sink, records);
    EXPECT_TRUE((*sink)->drain(kPatienceMs));
    EXPECT_TRUE(records.text() + "end\n" == written());
    EXPECT_EQ(20'000u, (*sink)->safe());
    EXPECT_EQ(0u, (*sink)->figures().dropped);
}

TEST_F(SinkCommand, WhatItReadIsSafeBeforeItsEnd)
{
    open("cat > " + out);
    give(**sink, Records(1, 3));
    EXPECT_TRUE(becomes([&]() { return (*sink)->safe() == 3; }));
    EXPECT_TRUE(is_written(Records(1, 3).text()));
}

TEST_F(SinkCommand, AnotherGetsWhatItLeft)
{
    open("head -c " + std::to_string(line_of(1).size()) + " | cat >> " + out);
    for (uint64_t number = 1; number <= 3; number++) {
        give(**sink, Records(number, 1));
        EXPECT_TRUE(is_written(Records(1, number).text()));
    }
    EXPECT_TRUE((*sink)->drain(kPatienceMs));
}

TEST_F(SinkCommand, AnEndIsSaid)
{
    open("cat >> " + out + "; exit 3");
    give(**sink, Records(1, 1));
    EXPECT_TRUE(is_written(line_of(1)));
    EXPECT_TRUE((*sink)->drain(kPatienceMs));
    open("exit 3");
    give(**sink, Records(1, 1));
    EXPECT_TRUE(sink->says("the command has ended with status 3"));
    EXPECT_EQ(1u, (*sink)->figures().waiting) << "it is tried again";
    EXPECT_TRUE(becomes([&]() { return (*sink)->figures().retries >= 2; }));
    open("kill -9 $$");
    give(**sink, Records(1, 1));
    EXPECT_TRUE(sink->says("the command was ended by signal 9"));
}

TEST_F(SinkCommand, AnEndWithoutRecordsIsNoted)
{
    open("head -n 1 > " + out);
    give(**sink, Records(1, 1));
    EXPECT_TRUE(sink->says("has ended with status 0; it is started again with the next record"));
    EXPECT_FALSE((*sink)->condition().stuck);
    give(**sink, Records(2, 1));
    EXPECT_TRUE(is_written(line_of(2)));
}

TEST_F(SinkCommand, OneThatHangsIsStuckAndIsEnded)
{
    open("echo $$ > " + out + "; trap '' TERM; while :; do sleep 1000; done");
    give(**sink, Records(1, 3));
    EXPECT_TRUE(sink->says("the command does not read"));
    EXPECT_TRUE((*sink)->condition().stuck);
    EXPECT_EQ(0u, (*sink)->safe());
    EXPECT_FALSE((*sink)->drain(20));
    const pid_t pid = std::stoi(written());
    EXPECT_EQ(0, kill(pid, 0));
    sink.reset();
    EXPECT_EQ(-1, kill(pid, 0));
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(SinkCommand, SoIsOneThatReadsAllAndNeverEnds)
{
    open("cat > " + out + "; sleep 1000");
    give(**sink, Records(1, 1));
    EXPECT_TRUE(is_written(line_of(1)));
    EXPECT_FALSE((*sink)->drain(20));
    EXPECT_EQ(0u, (*sink)->figures().waiting);
    sink.reset();
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "something was left behind";
}

TEST_F(SinkCommand, OneThatClosesItsInputIsReplaced)
{
    open("exec <&-; echo $$ >> " + out + "; sleep 1000");
    const Records records(1, 3);
    give(**sink, records);
    EXPECT_TRUE(becomes([&]() {
        const std::string text = written();
        return std::count(text.begin(), text.end(), '\n') >= 2;
    }));
    EXPECT_EQ(3u, (*sink)->figures().waiting);
}

TEST_F(SinkCommand, ItHasSignalsAndDescriptorsAsOthersHave)
{
    open("grep -E '^Sig(Blk|Ign)' /proc/self/status > " + out + "; ls /proc/self/fd >> " + out + "; cat > /dev/null");
    give(**sink, Records(1, 1));
    EXPECT_TRUE((*sink)->drain(kPatienceMs));
    EXPECT_NE(written().find("SigBlk:\t0000000000000000"), std::string::npos) << written();
}

TEST_F(SinkCommand, IsNeeded) { EXPECT_EQ("command: what is to be run is needed", Made("command", {}).error); }
