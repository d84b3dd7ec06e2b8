/* Tests of the output "file": what is in the file and beside it. */

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zstd.h>

#include <csignal>

#include "common/fd.h"
#include "output/sinks/generations.h"
#include "output/sinks/log_file.h"
#include "unit/agent/agent_testing.h"
#include "unit/output/sink_testing.h"

using namespace output;
using namespace sink_testing;
using agent_testing::Directory;

namespace
{

using Said = std::map<std::string, Settings::Value>;

std::string decompressed(const std::string &path)
{
    const std::string bytes = content(path);
    std::string text(16 << 20, '\0');
    const size_t size = ZSTD_decompress(text.data(), text.size(), bytes.data(), bytes.size());
    EXPECT_FALSE(ZSTD_isError(size)) << path << ": " << ZSTD_getErrorName(size);
    return text.substr(0, ZSTD_isError(size) ? 0 : size);
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

class SinkFile : public testing::Test
{
protected:
    Made file(Said said = {})
    {
        said.insert({"path", path});
        return Made("file", said);
    }
    /* Writes records first, ... and ends. */
    void write(uint64_t first, uint64_t count, const Said &said = {})
    {
        Made sink = file(said);
        ASSERT_TRUE(sink.open());
        give(*sink, Records(first, count));
        EXPECT_TRUE(sink->drain(kPatienceMs));
    }
    std::string error_of(const Said &said)
    {
        Made sink = file(said);
        EXPECT_FALSE(sink);
        return sink.error;
    }
    std::string open_error()
    {
        Made sink = file();
        EXPECT_FALSE(sink->open(sink.error));
        return sink.error;
    }

    const Directory directory;
    std::string path = directory.path("out");
};

}  // namespace

TEST_F(SinkFile, GrowsFromRunToRun)
{
    write(1, 3);
    write(4, 2);
    EXPECT_EQ(Records(1, 5).text(), content(path));
    struct stat st = {};
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 0777);
}

TEST_F(SinkFile, IsSafeOnceWritten)
{
    for (const char *sync : {"never", "batch", "time"}) {
        Made sink = file({{"sync", std::string(sync)}, {"sync_time", uint64_t{1}}});
        ASSERT_TRUE(sink.open());
        give(*sink, Records(1, 3));
        EXPECT_TRUE(becomes([&]() { return sink->safe() == 3; }));
        EXPECT_TRUE(sink->drain(kPatienceMs));
    }
    EXPECT_EQ(Records(1, 3).text() + Records(1, 3).text() + Records(1, 3).text(), content(path));
}

TEST_F(SinkFile, ATornLineIsCutAndSaid)
{
    directory.file("out", "whole\ntor");
    Made sink = file();
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 1));
    EXPECT_TRUE(sink.says("had no end: cut 3 bytes"));
    EXPECT_FALSE(sink->condition().stuck);
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ("whole\n" + line_of(1), content(path));
}

TEST_F(SinkFile, WhatHasNoLineIsCutWhole)
{
    directory.file("out", "torn");
    write(1, 1);
    EXPECT_EQ(line_of(1), content(path));
}

TEST_F(SinkFile, ZerosOfALostEndAreCutToo)
{
    directory.file("out", "whole\nto\0\0\0\0"s);
    write(1, 1);
    EXPECT_EQ("whole\n" + line_of(1), content(path));
}

TEST_F(SinkFile, RecordsMayEndInANul)
{
    directory.file("out", "whole\0record\0"s);
    write(1, 1);
    EXPECT_EQ("whole\0record\0"s + line_of(1), content(path));
}

TEST_F(SinkFile, WhatHasNoLinesAtAllIsLeft)
{
    const std::string strange((1 << 20) + 1, 'x');
    directory.file("out", strange);
    write(1, 1);
    EXPECT_EQ(strange + line_of(1), content(path));
}

TEST_F(SinkFile, IsRotatedBeforeItGetsTooLarge)
{
    const size_t line = line_of(1).size();
    write(1, 7, {{"max_size", uint64_t{line * 2}}, {"keep", uint64_t{2}}});
    EXPECT_EQ(line_of(7), content(path));
    EXPECT_EQ(line_of(5) + line_of(6), content(path + ".1"));
    EXPECT_EQ(line_of(3) + line_of(4), content(path + ".2"));
    EXPECT_FALSE(exists(path + ".3"));
}

TEST_F(SinkFile, ARecordAboveTheLimitHasAFileOfItsOwn)
{
    write(1, 3, {{"max_size", uint64_t{5}}, {"keep", uint64_t{9}}});
    EXPECT_EQ(line_of(3), content(path));
    EXPECT_EQ(line_of(2), content(path + ".1"));
    EXPECT_EQ(line_of(1), content(path + ".2"));
}

TEST_F(SinkFile, NothingIsKeptWhereNothingIsAskedFor)
{
    write(1, 3, {{"max_size", uint64_t{line_of(1).size()}}, {"keep", uint64_t{0}}});
    EXPECT_EQ(line_of(3), content(path));
    EXPECT_FALSE(exists(path + ".1"));
}

TEST_F(SinkFile, IsRotatedByAgeThoughNothingComes)
{
    Made sink = file({{"max_age", uint64_t{30}}, {"keep", uint64_t{5}}});
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 2));
    EXPECT_TRUE(becomes([&]() { return exists(path + ".1"); }));
    EXPECT_EQ(Records(1, 2).text(), content(path + ".1"));
    EXPECT_TRUE(becomes([&]() { return exists(path); }));
    EXPECT_EQ("", content(path)) << "and not again before something is in it";
    EXPECT_FALSE(exists(path + ".2"));
}

TEST_F(SinkFile, TheAgeIsThatOfTheFileAndNotOfTheRun)
{
    write(1, 2);
    const uint64_t old_enough = 20;
    ASSERT_TRUE(becomes([&]() { /* time passes */
                                struct timespec now;
                                struct stat st;
                                clock_gettime(CLOCK_REALTIME, &now);
                                stat(path.c_str(), &st);
                                return (now.tv_sec - st.st_mtim.tv_sec) * 1000 +
                                           (now.tv_nsec - st.st_mtim.tv_nsec) / 1'000'000 >
                                       40;
    }));
    Made sink = file({{"max_age", old_enough}, {"keep", uint64_t{5}}});
    ASSERT_TRUE(sink.open());
    EXPECT_TRUE(becomes([&]() { return exists(path + ".1"); }));
}

TEST_F(SinkFile, RotatedFilesAreCompressed)
{
    const uint64_t lines = 20'000;
    Made sink = file({{"max_size", uint64_t{100'000}}, {"keep", uint64_t{100}}, {"compress", "zstd"s}});
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, lines));
    EXPECT_TRUE(becomes([&]() { return sink->safe() == lines; }));
    EXPECT_TRUE(becomes([&]() { return exists(path + ".1.zst") && !exists(path + ".1"); }));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    std::string all = content(path);
    uint64_t n = 1;
    for (; exists(path + "." + std::to_string(n) + ".zst"); n++)
        all.insert(0, decompressed(path + "." + std::to_string(n) + ".zst"));
    EXPECT_GT(n, 2u);
    EXPECT_TRUE(Records(1, lines).text() == all) << "what is there together is not what was written";
}

TEST_F(SinkFile, WhatGoesWhileItIsCompressedLeavesNothing)
{
    Made sink = file({{"max_size", uint64_t{200'000}}, {"keep", uint64_t{1}}, {"compress", "zstd"s}});
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 60'000));
    EXPECT_TRUE(becomes([&]() { return sink->safe() == 60'000; }));
    EXPECT_TRUE(becomes([&]() { return exists(path + ".1.zst") && !exists(path + ".1"); }));
    EXPECT_FALSE(exists(path + ".2") || exists(path + ".2.zst") || exists(path + ".zst.new"));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_TRUE(Records(1, 60'000).text().ends_with(decompressed(path + ".1.zst") + content(path)));
}

TEST_F(SinkFile, WhatWasNotCompressedIsTheNextTime)
{
    directory.file("out.2", "old\n");
    directory.file("out.1", "new\n");
    directory.file("out.zst.new", "half");
    directory.file("out.3", "whole\n");
    directory.file("out.3.zst", "compressed already");
    directory.file("out.11", "too many");
    directory.file("out.x", "not ours");
    Made sink = file({{"keep", uint64_t{10}}, {"compress", "zstd"s}});
    ASSERT_TRUE(sink.open());
    EXPECT_TRUE(becomes([&]() { return !exists(path + ".1"); }));
    EXPECT_EQ("old\n", decompressed(path + ".2.zst"));
    EXPECT_EQ("new\n", decompressed(path + ".1.zst"));
    EXPECT_EQ("compressed already", content(path + ".3.zst"));
    EXPECT_FALSE(exists(path + ".3") || exists(path + ".zst.new") || exists(path + ".11"));
    EXPECT_TRUE(exists(path + ".x"));
}

TEST_F(SinkFile, MovedAwayItIsMadeAnew)
{
    Made sink = file();
    ASSERT_TRUE(sink.open());
    give(*sink, Records(1, 1));
    EXPECT_TRUE(becomes([&]() { return sink->safe() == 1; }));
    ASSERT_EQ(0, rename(path.c_str(), directory.path("moved").c_str()));
    uint64_t number = 2;
    EXPECT_TRUE(becomes([&]() {
        give(*sink, Records(number, 1));
        number++;
        return exists(path);
    }));
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_EQ(Records(1, number - 1).text(), content(directory.path("moved")) + content(path));
}

TEST_F(SinkFile, TwoThatWriteToOneFileTakeTurns)
{
    Made first = file();
    ASSERT_TRUE(first.open());
    Made second = file();
    ASSERT_TRUE(second->open(second.error));
    give(*second, Records(2, 1));
    EXPECT_TRUE(second.becomes_stuck());
    EXPECT_TRUE(second.says("is written to by another"));
    give(*first, Records(1, 1));
    EXPECT_TRUE(first->drain(kPatienceMs));
    first.sink.reset();
    EXPECT_TRUE(second.becomes_well());
    EXPECT_TRUE(second->drain(kPatienceMs));
    EXPECT_EQ(Records(1, 2).text(), content(path));
}

TEST_F(SinkFile, ADirectoryThatHasGoneIsWaitedFor)
{
    path = directory.dir("below") + "/out";
    Made sink = file();
    ASSERT_TRUE(sink.open());
    std::filesystem::remove_all(directory.path("below"));
    uint64_t number = 1;
    EXPECT_TRUE(becomes([&]() {
        give(*sink, Records(number++, 1));
        return sink->condition().stuck;
    }));
    EXPECT_TRUE(sink.says("No such file or directory"));
    directory.dir("below");
    EXPECT_TRUE(sink.becomes_well());
    EXPECT_TRUE(sink->drain(kPatienceMs));
    EXPECT_TRUE(content(path).ends_with(line_of(number - 1)));
}

TEST_F(SinkFile, OthersMayNotHaveASay)
{
    path = directory.dir("open") + "/out";
    chmod(directory.path("open").c_str(), 0777);
    EXPECT_NE(open_error().find("others than root may write to " + directory.path("open")), std::string::npos);
    chmod(directory.path("open").c_str(), 01777);
    write(1, 1);
    unlink(path.c_str());
    ASSERT_EQ(0, symlink("/etc/passwd", path.c_str()));
    EXPECT_NE(open_error().find("a link: say where it leads to"), std::string::npos);
}

TEST_F(SinkFile, WhatIsNoFileIsRefused)
{
    path = directory.dir("directory");
    EXPECT_NE(open_error().find("Is a directory"), std::string::npos);
    path = directory.path("pipe");
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    EXPECT_NE(open_error().find("no regular file"), std::string::npos);
    path = directory.path("missing/out");
    EXPECT_NE(open_error().find("cannot use " + directory.path("missing") + ": No such file"), std::string::npos);
}

TEST_F(SinkFile, SettingsThatMakeNoSense)
{
    path = "relative";
    EXPECT_EQ("path: the absolute path of a file is needed", error_of({}));
    path = directory.path("out");
    for (const char *mode : {"", "9", "0400", "0622", "0755", "06400", "x"})
        EXPECT_NE(error_of({{"mode", std::string(mode)}}).find("mode: octal"), std::string::npos) << mode;
    EXPECT_EQ("compress: none or zstd", error_of({{"compress", "gzip"s}}));
    EXPECT_EQ("sync: never, time or batch", error_of({{"sync", "always"s}}));
}

/* A child writes until it is killed, wherever in a write that is; what it leaves is whole lines once opened again. */
TEST_F(SinkFile, AKillLeavesNoTornLine)
{
    for (int round = 0; round < 5; round++) {
        const pid_t child = fork();
        if (child == 0) {
            Made sink = file({{"max_size", uint64_t{3'000'000}}, {"keep", uint64_t{100}}});
            if (sink && sink->open(sink.error))
                for (uint64_t number = 1;; number += 100)
                    give(*sink, Records(number, 100, 1 + number % 5000));
            _exit(1);
        }
        EXPECT_TRUE(becomes([&]() { return exists(path + "." + std::to_string(round + 1)); }));
        kill(child, SIGKILL);
        int status;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        write(0, 1);
        std::istringstream lines(content(path));
        for (std::string line; std::getline(lines, line);)
            ASSERT_TRUE(line.starts_with("record ")) << line;
        EXPECT_TRUE(content(path).ends_with(line_of(0)));
    }
}

TEST(SinkGenerations, AGapEndsTheShift)
{
    const Directory directory;
    const std::string path = directory.file("log", "0");
    directory.file("log.1", "1");
    directory.file("log.3.zst", "3");
    const Generations generations(path, 5);
    EXPECT_EQ(0, generations.rotate());
    EXPECT_EQ("0", content(path + ".1"));
    EXPECT_EQ("1", content(path + ".2"));
    EXPECT_EQ("3", content(path + ".3.zst"));
    EXPECT_EQ(path + ".2", generations.uncompressed());
    EXPECT_EQ(ENOENT, generations.rotate()) << "there is nothing to rotate";
}
