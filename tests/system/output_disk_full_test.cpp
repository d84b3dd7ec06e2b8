/* The output into a file on a disk that is full: what was accepted is written when there is room again, once, and
 * whole. */
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "harness.h"
#include "unit/output/sink_testing.h"

using namespace output;
using namespace sink_testing;

namespace
{

class OutputDiskFull : public testing::Test
{
protected:
    void SetUp() override
    {
        NEED(testlib::can_mount(), "mounting needs root");
        ASSERT_EQ(0, unshare(CLONE_NEWNS));
        ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
        ASSERT_EQ(0, mount("fmon-test", disk.c_str(), "tmpfs", 0, "size=256k,mode=0700")) << strerror(errno);
    }
    void TearDown() override { umount2(disk.c_str(), MNT_DETACH); }

    Made open(std::map<std::string, Settings::Value> said)
    {
        said.insert({"path", path});
        Made sink("file", said);
        EXPECT_TRUE(sink.open());
        return sink;
    }
    static void expect_whole_lines(const std::string &text)
    {
        EXPECT_FALSE(text.empty());
        EXPECT_TRUE(text.ends_with("\n")) << "torn: " << text.substr(text.rfind('\n') + 1);
    }

    testlib::TempTree tree;
    const std::string disk = tree.dir("disk"), path = disk + "/out";
};

}  // namespace

TEST_F(OutputDiskFull, GoesOnWhenThereIsRoom)
{
    Made sink = open({});
    systest::make_file(disk + "/filler", std::string(150'000, 'x'));
    const Records records(1, 2000, 99);
    give(*sink, records);
    EXPECT_TRUE(sink.says("cannot write to " + path + ": No space left on device"));
    EXPECT_TRUE(sink->condition().stuck);
    expect_whole_lines(content(path));
    EXPECT_GT(sink->figures().waiting, 0u);
    systest::remove_file(disk + "/filler");
    EXPECT_TRUE(sink.becomes_well());
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_TRUE(records.text() == content(path));
    EXPECT_EQ(0u, sink->figures().dropped);
}

TEST_F(OutputDiskFull, ByRotationToo)
{
    Made sink = open({{"max_size", uint64_t{60'000}}, {"keep", uint64_t{2}}, {"sync", "batch"s}});
    const Records records(1, 20'000, 99);
    give(*sink, records);
    EXPECT_TRUE(sink->drain(kPatienceMs)) << sink->condition().text;
    for (const std::string &name : {path, path + ".1", path + ".2"})
        expect_whole_lines(content(name));
    EXPECT_TRUE(records.text().ends_with(content(path + ".2") + content(path + ".1") + content(path)));
}

TEST_F(OutputDiskFull, WithoutRoomToCompressFilesStayAsTheyAre)
{
    systest::make_file(disk + "/filler", std::string(155'000, 'x'));
    std::mt19937 random;
    std::string noise(80'000, '\0');
    for (char &byte : noise)
        byte = static_cast<char>(random());
    systest::make_file(path + ".1", noise + "\n");
    Made sink = open({{"keep", uint64_t{3}}, {"compress", "zstd"s}});
    EXPECT_TRUE(sink.says("cannot compress to " + path + ".zst.new: No space left on device"));
    EXPECT_EQ(noise + "\n", content(path + ".1"));
    EXPECT_TRUE(access((path + ".zst.new").c_str(), F_OK) != 0);
    give(*sink, Records(1, 5));
    EXPECT_TRUE(sink->drain(kPatienceMs));
}
