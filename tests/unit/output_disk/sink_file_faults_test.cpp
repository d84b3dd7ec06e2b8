/* Tests of the output "file" with each of its calls failing. */

#include <sys/stat.h>

#include "output/secret.h"
#include "testlib/fault.h"
#include "unit/agent/agent_testing.h"
#include "unit/output/sink_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;
using testlib::Fault;
using testlib::ThreadScope;

namespace
{

class SinkFileFaults : public testing::Test
{
protected:
    Made made(std::map<std::string, Settings::Value> said = {})
    {
        said.insert({{"path", path}, {"keep", uint64_t{9}}});
        return Made("file", said);
    }
    /* Records are given while the call fails; then all are there, once, and nothing beside. */
    void survives(const char *call, int error, const std::string &said,
                  const std::map<std::string, Settings::Value> &settings = {}, int count = 3)
    {
        Made sink = made(settings);
        ASSERT_TRUE(sink.open());
        {
            const Fault fault(call, 1, error, count, ThreadScope::kAll);
            give(*sink, Records(1, 100));
            EXPECT_TRUE(sink.says(said)) << call << ": " << sink->condition().text;
            EXPECT_TRUE(fault.hit());
            for (std::istringstream lines(content(path)); lines.peek() != EOF;) {
                std::string line;
                std::getline(lines, line);
                EXPECT_FALSE(lines.eof()) << "half a line: " << line;
            }
        }
        EXPECT_TRUE(sink.becomes_well());
        EXPECT_TRUE(sink->drain(kPatienceMs));
        EXPECT_EQ(Records(1, 100).text(), content(path)) << call;
        EXPECT_EQ(0u, sink->figures().dropped);
        unlink(path.c_str());
    }
    /* The sink opens though the call fails, and writes when it does not any more. */
    void opens_later(const char *call, int error, const std::string &said)
    {
        Made sink = made();
        {
            const Fault fault(call, 1, error, 1000, ThreadScope::kAll);
            EXPECT_TRUE(sink->open(sink.error)) << call;
            give(*sink, Records(1, 2));
            EXPECT_TRUE(sink.says(said)) << call << ": " << sink->condition().text;
        }
        EXPECT_TRUE(sink->drain(kPatienceMs));
        EXPECT_EQ(Records(1, 2).text(), content(path));
        unlink(path.c_str());
    }
    std::string open_error(const char *call, int error, int nth = 1)
    {
        Made sink = made();
        const Fault fault(call, nth, error, 1, ThreadScope::kAll);
        EXPECT_FALSE(sink->open(sink.error)) << call;
        return sink.error;
    }

    const Directory directory;
    const std::string path = directory.path("out");
};

}  // namespace

TEST_F(SinkFileFaults, AFullDiskIsWaitedForAndNothingIsHalfWritten)
{
    survives("write", ENOSPC, "cannot write to " + path + ": No space left on device");
    survives("write", EDQUOT, "Disk quota exceeded");
    survives("write", EIO, "Input/output error");
}

TEST_F(SinkFileFaults, WhatIsHalfWrittenAndCannotBeTakenBackIsLater)
{
    Made sink = made();
    ASSERT_TRUE(sink.open());
    const Fault disk("write", 1, ENOSPC, 1, ThreadScope::kAll);
    const Fault file("ftruncate", 1, EIO, 2, ThreadScope::kAll);
    give(*sink, Records(1, 100));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_TRUE(disk.hit() && file.hit());
    EXPECT_EQ(Records(1, 100).text(), content(path));
}

TEST_F(SinkFileFaults, WhatCannotBeBroughtToTheDiskIsWrittenAnew)
{
    survives("fdatasync", EIO, "cannot bring to the disk " + path + ": Input/output error", {{"sync", "batch"s}});
}

TEST_F(SinkFileFaults, OrIsSaidWhereThatIsDoneLater)
{
    Made sink = made({{"sync", "time"s}, {"sync_time", uint64_t{5}}});
    ASSERT_TRUE(sink.open());
    const Fault fault("fdatasync", 1, EIO, 1, ThreadScope::kAll);
    give(*sink, Records(1, 1));
    EXPECT_TRUE(sink.says("cannot bring to the disk"));
    EXPECT_FALSE(sink->condition().stuck);
    EXPECT_TRUE(sink->drain(kPatienceMs));
}

TEST_F(SinkFileFaults, AnEndThatIsNotOnTheDiskIsNotSafe)
{
    Made sink = made({{"sync", "time"s}, {"sync_time", uint64_t{600'000}}});
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 1));
    const Fault fault("fdatasync", 1, EIO, 1, ThreadScope::kAll);
    EXPECT_FALSE(sink->drain(kPatienceMs));
}

TEST_F(SinkFileFaults, WithoutRotationItGrowsOn)
{
    Made sink = made({{"max_size", uint64_t{100}}});
    ASSERT_TRUE(sink.open());
    const Fault fault("rename", 1, EPERM, 1000, ThreadScope::kAll);
    give(*sink, Records(1, 100));
    EXPECT_TRUE(sink.says("cannot rotate " + path + ", which grows on: Operation not permitted"));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ(Records(1, 100).text(), content(path));
}

TEST_F(SinkFileFaults, WithoutCompressionFilesStayAsTheyAre)
{
    for (const char *call : {"fchmod", "fsync"}) {
        directory.file("out.1", "rotated\n");
        Made sink = made({{"compress", "zstd"s}});
        const Fault fault(call, 1, EIO, 1, ThreadScope::kAll);
        ASSERT_TRUE(sink.open());
        EXPECT_TRUE(sink.says("cannot compress to " + path + ".zst.new: Input/output error")) << call;
        EXPECT_FALSE(sink->condition().stuck);
        EXPECT_EQ("rotated\n", content(path + ".1"));
        EXPECT_FALSE(std::filesystem::exists(path + ".zst.new")) << call;
        EXPECT_FALSE(std::filesystem::exists(path + ".1.zst")) << call;
    }
}

TEST_F(SinkFileFaults, OrWithoutItsName)
{
    directory.file("out.1", "rotated\n");
    Made sink = made({{"compress", "zstd"s}});
    const Fault fault("rename", 1, EPERM, 1, ThreadScope::kAll);
    ASSERT_TRUE(sink.open());
    EXPECT_TRUE(sink.says("cannot rename " + path + ".zst.new: Operation not permitted"));
    EXPECT_EQ("rotated\n", content(path + ".1"));
    EXPECT_FALSE(std::filesystem::exists(path + ".zst.new"));
}

TEST_F(SinkFileFaults, WhatMayPassIsNoReasonNotToOpen)
{
    opens_later("open", EMFILE, "no file descriptor is left");
    opens_later("open", ENOSPC, "cannot write to " + path + ": No space left");
    opens_later("fstat", ENOMEM, "cannot write to " + path);
    opens_later("flock", EWOULDBLOCK, "is written to by another output or process");
    directory.file("out", "to");
    opens_later("pread", EIO, "cannot mend the last line of " + path);
    directory.file("out", "to");
    opens_later("ftruncate", EIO, "cannot mend the last line of " + path);
}

TEST_F(SinkFileFaults, AFileSystemWithoutLocksWillDo)
{
    Made sink = made();
    const Fault fault("flock", 1, ENOLCK, 1, ThreadScope::kAll);
    ASSERT_TRUE(sink.open());
    EXPECT_TRUE(fault.hit());
}

TEST_F(SinkFileFaults, WithoutThreadOrDescriptorsThereIsNoSink)
{
    EXPECT_NE(open_error("pthread_create", EAGAIN).find("no thread for an output"), std::string::npos);
    EXPECT_NE(open_error("eventfd", EMFILE, 1).find("no descriptor for an output"), std::string::npos);
    EXPECT_NE(open_error("eventfd", EMFILE, 2).find("no descriptor for an output"), std::string::npos);
    EXPECT_NE(open_error("open", EACCES).find("Permission denied"), std::string::npos);
}

TEST_F(SinkFileFaults, SecretsThatCannotBeRead)
{
    const std::string secret_file = directory.file("secret", "hush\n");
    chmod(secret_file.c_str(), 0600);
    for (const char *call : {"open", "fstat", "read"}) {
        const Fault fault(call, 1, EIO);
        std::string secret, error;
        EXPECT_FALSE(read_secret(secret_file, secret, error)) << call;
        EXPECT_EQ("the secret in " + secret_file + ": Input/output error", error) << call;
    }
    const Fault interrupted("read", 1, EINTR);
    std::string secret, error;
    EXPECT_TRUE(read_secret(secret_file, secret, error)) << error;
    EXPECT_EQ("hush", secret);
}
