/* Tests of log_file.h: files that rotate, whoever else writes, moves or removes them. */

#include "log_file.h"

#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <map>
#include <set>

#include "host_support.h"

namespace
{

using host::LogFile;
using host_test::contents;
using host_test::lines;
using host_test::TempDir;

std::string numbered_line(int writer, int number)
{
    char text[64];
    snprintf(text, sizeof text, "%d:%06d ....................................\n", writer, number);
    return text;
}

TEST(LogFile, MakesTheDirectoryAndAppends)
{
    TempDir dir;
    {
        LogFile log;
        ASSERT_TRUE(log.open(dir.path("var/log/agent/fmon").c_str(), 5));
        EXPECT_TRUE(log.write("one\n"));
    }
    LogFile log;
    ASSERT_TRUE(log.open(dir.path("var/log/agent/fmon").c_str(), 5));
    EXPECT_TRUE(log.write("two\n"));
    EXPECT_EQ("one\ntwo\n", contents(dir.path("var/log/agent/fmon/fmon.log")));
}

TEST(LogFile, IsNotReadableByOthers)
{
    TempDir dir;
    LogFile log;
    ASSERT_TRUE(log.open(dir.path("log").c_str(), 5));
    struct stat st;
    ASSERT_EQ(0, stat(dir.path("log/fmon.log").c_str(), &st));
    EXPECT_EQ(0u, st.st_mode & 0007);
    ASSERT_EQ(0, stat(dir.path("log").c_str(), &st));
    EXPECT_EQ(0u, st.st_mode & 0007);
}

TEST(LogFile, RefusesWhatIsNoDirectory)
{
    TempDir dir;
    dir.file("plain");
    LogFile log;
    EXPECT_FALSE(log.open(dir.path("plain").c_str(), 5));
    EXPECT_FALSE(log.is_open());
    EXPECT_FALSE(LogFile().open("/proc/no/such/directory", 5));
    EXPECT_FALSE(LogFile().open("", 5));
}

TEST(LogFile, FollowsNeitherLinksNorPipes)
{
    TempDir dir;
    std::string victim = dir.file("victim", "precious");
    dir.dir("linked");
    ASSERT_EQ(0, symlink(victim.c_str(), dir.path("linked/fmon.log").c_str()));
    EXPECT_FALSE(LogFile().open(dir.path("linked").c_str(), 5));
    EXPECT_EQ("precious", contents(victim));
    dir.dir("piped");
    ASSERT_EQ(0, mkfifo(dir.path("piped/fmon.log").c_str(), 0600));
    EXPECT_FALSE(LogFile().open(dir.path("piped").c_str(), 5));
}

TEST(LogFile, RotatesAndKeepsThatManyFiles)
{
    TempDir dir;
    LogFile log(100);
    ASSERT_TRUE(log.open(dir.path().c_str(), 3));
    for (int i = 0; i < 20; i++)
        EXPECT_TRUE(log.write(numbered_line(1, i))); /* 46 bytes: two fit a file */
    EXPECT_EQ(contents(dir.path("fmon.log")), numbered_line(1, 18) + numbered_line(1, 19));
    EXPECT_EQ(contents(dir.path("fmon.log.1")), numbered_line(1, 16) + numbered_line(1, 17));
    EXPECT_EQ(contents(dir.path("fmon.log.2")), numbered_line(1, 14) + numbered_line(1, 15));
    EXPECT_FALSE(dir.has("fmon.log.3"));
}

TEST(LogFile, RotatesExactlyAtItsLimit)
{
    TempDir dir;
    LogFile log(10);
    ASSERT_TRUE(log.open(dir.path().c_str(), 2));
    EXPECT_TRUE(log.write("12345\n"));
    EXPECT_TRUE(log.write("789\n")) << "ten bytes are not more than ten";
    EXPECT_FALSE(dir.has("fmon.log.1"));
    EXPECT_TRUE(log.write("\n"));
    EXPECT_EQ("12345\n789\n", contents(dir.path("fmon.log.1")));
}

TEST(LogFile, KeepsAtLeastTheCurrentFile)
{
    for (int keep : {1, 0, -7}) {
        TempDir dir;
        LogFile log(10);
        ASSERT_TRUE(log.open(dir.path().c_str(), keep));
        for (int i = 0; i < 5; i++)
            EXPECT_TRUE(log.write("1234567\n"));
        EXPECT_EQ("1234567\n", contents(dir.path("fmon.log")));
        EXPECT_FALSE(dir.has("fmon.log.1"));
    }
}

TEST(LogFile, DropsWhatALargerNumberLeftBehind)
{
    TempDir dir;
    for (int i = 1; i < 8; i++)
        dir.file("fmon.log." + std::to_string(i), "old");
    LogFile log(10);
    ASSERT_TRUE(log.open(dir.path().c_str(), 3));
    EXPECT_TRUE(log.write("1234567\n"));
    EXPECT_TRUE(log.write("1234567\n"));
    EXPECT_EQ("1234567\n", contents(dir.path("fmon.log.1")));
    EXPECT_EQ("old", contents(dir.path("fmon.log.2")));
    EXPECT_FALSE(dir.has("fmon.log.3"));
    EXPECT_FALSE(dir.has("fmon.log.7"));
}

TEST(LogFile, TakesALineLongerThanItsLimit)
{
    TempDir dir;
    LogFile log(10);
    ASSERT_TRUE(log.open(dir.path().c_str(), 2));
    std::string large(500, 'x');
    EXPECT_TRUE(log.write(large + "\n"));
    EXPECT_TRUE(log.write("next\n"));
    EXPECT_EQ(contents(dir.path("fmon.log.1")), large + "\n");
    EXPECT_EQ("next\n", contents(dir.path("fmon.log")));
}

TEST(LogFile, FollowsARotationBySomebodyElse)
{
    TempDir dir;
    LogFile log;
    ASSERT_TRUE(log.open(dir.path().c_str(), 5));
    EXPECT_TRUE(log.write("before\n"));
    ASSERT_EQ(0, rename(dir.path("fmon.log").c_str(), dir.path("fmon.log.1").c_str()));
    EXPECT_TRUE(log.write("after\n"));
    EXPECT_EQ("before\n", contents(dir.path("fmon.log.1")));
    EXPECT_EQ("after\n", contents(dir.path("fmon.log")));
}

TEST(LogFile, FollowsItsDirectoryWhenThatIsMoved)
{
    TempDir dir;
    LogFile log;
    ASSERT_TRUE(log.open(dir.path("log").c_str(), 5));
    ASSERT_EQ(0, rename(dir.path("log").c_str(), dir.path("moved").c_str()));
    EXPECT_TRUE(log.write("line\n"));
    EXPECT_EQ("line\n", contents(dir.path("moved/fmon.log")));
}

TEST(LogFile, MakesAVanishedDirectoryAgain)
{
    TempDir dir;
    LogFile log;
    ASSERT_TRUE(log.open(dir.path("a/log").c_str(), 5));
    std::filesystem::remove_all(dir.path("a"));
    EXPECT_TRUE(log.write("back\n"));
    EXPECT_EQ("back\n", contents(dir.path("a/log/fmon.log")));
    std::filesystem::remove_all(dir.path("a"));
    EXPECT_FALSE(log.write("too soon\n")) << "not more than one attempt a second";
}

TEST(LogFile, LosesALineWhereTheDirectoryCannotBeMade)
{
    TempDir dir;
    LogFile log;
    ASSERT_TRUE(log.open(dir.path("a/log").c_str(), 5));
    std::filesystem::remove_all(dir.path("a"));
    dir.file("a", "in the way");
    EXPECT_FALSE(log.write("lost\n"));
    EXPECT_FALSE(log.write("lost\n"));
}

/* The process's limit on file sizes stands for a full disk: a write is cut short, and the next one refused. */
TEST(LogFile, SurvivesAFullDiskAndGoesOnOnANewLine)
{
    TempDir dir;
    LogFile log;
    ASSERT_TRUE(log.open(dir.path().c_str(), 5));
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit before, tight;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    tight = before;
    tight.rlim_cur = 10;
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &tight));
    bool first = log.write("12345\n"), cut = log.write("6789012\n"), refused = log.write("x\n");
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
    EXPECT_TRUE(first);
    EXPECT_FALSE(cut);
    EXPECT_FALSE(refused);
    EXPECT_TRUE(log.write("again\n"));
    EXPECT_EQ("12345\n6789\nagain\n", contents(dir.path("fmon.log")));
}

TEST(LogFile, DoesNotWaitForALockInOtherHands)
{
    TempDir dir;
    LogFile log(20);
    ASSERT_TRUE(log.open(dir.path().c_str(), 5));
    int other = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(0, flock(other, LOCK_EX));
    EXPECT_TRUE(log.write("123456789\n"));
    EXPECT_TRUE(log.write("123456789\n"));
    EXPECT_TRUE(log.write("beyond the limit\n"));
    std::string large(host::kLogFileLimit, 'x');
    EXPECT_TRUE(log.write(large));
    EXPECT_FALSE(log.write("x\n")) << "the holder may hang: the file does not grow for ever";
    EXPECT_FALSE(dir.has("fmon.log.1"));
    close(other);
    EXPECT_TRUE(log.write("free\n"));
    EXPECT_EQ("free\n", contents(dir.path("fmon.log")));
}

TEST(LogFile, RefusesLinesWhereItCannotRotate)
{
    TempDir dir;
    LogFile log(10);
    ASSERT_TRUE(log.open(dir.path().c_str(), 2));
    dir.file("fmon.log.1/in the way");
    EXPECT_TRUE(log.write("1234567\n"));
    EXPECT_FALSE(log.write("1234567\n"));
    EXPECT_EQ("1234567\n", contents(dir.path("fmon.log")));
}

TEST(LogFile, LeavesStandardDescriptorsAlone)
{
    TempDir dir;
    pid_t child = fork();
    if (child == 0) {
        close(0);
        close(1);
        close(2);
        LogFile log;
        bool good = log.open(dir.path().c_str(), 5) && log.write("line\n");
        for (int fd : {0, 1, 2})
            good = good && fcntl(fd, F_GETFD) < 0;
        _exit(good ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(0, status);
}

TEST(LogFile, ReturnsItsDescriptors)
{
    TempDir dir;
    int before = host_test::open_descriptors();
    {
        LogFile log(50);
        ASSERT_TRUE(log.open(dir.path().c_str(), 3));
        for (int i = 0; i < 10; i++)
            log.write(numbered_line(0, i));
        EXPECT_EQ(host_test::open_descriptors(), before + 2);
    }
    EXPECT_EQ(host_test::open_descriptors(), before);
}

/* Numbers of the lines that each writer left in the kept files, whole and in no file twice. */
std::map<int, std::set<int>> kept_lines(const TempDir &dir, int keep)
{
    std::map<int, std::set<int>> kept;
    for (int i = 0; i < keep; i++) {
        std::string name = i == 0 ? "fmon.log" : "fmon.log." + std::to_string(i);
        for (const std::string &text : lines(contents(dir.path(name)))) {
            int writer = -1, number = -1;
            EXPECT_EQ(2, sscanf(text.c_str(), "%d:%d", &writer, &number)) << text;
            EXPECT_EQ(text + "\n", numbered_line(writer, number));
            EXPECT_TRUE(kept[writer].insert(number).second) << text << " stands twice";
        }
    }
    return kept;
}

TEST(LogFile, SeveralProcessesLoseNothing)
{
    /* For over four times as many files: whoever finds the other one rotating writes on, beyond the limit. */
    constexpr int kWriters = 2, kLines = 10000, kKeep = 100;
    TempDir dir;
    for (int writer = 0; writer < kWriters; writer++) {
        if (fork() != 0)
            continue;
        LogFile log(10000);
        bool good = log.open(dir.path().c_str(), kKeep);
        for (int i = 0; i < kLines; i++)
            good = log.write(numbered_line(writer, i)) && good;
        _exit(good ? 0 : 1);
    }
    for (int writer = 0; writer < kWriters; writer++) {
        int status = -1;
        ASSERT_GT(wait(&status), 0);
        EXPECT_EQ(0, status);
    }
    auto kept = kept_lines(dir, kKeep);
    for (int writer = 0; writer < kWriters; writer++)
        EXPECT_EQ(static_cast<size_t>(kLines), kept[writer].size());
    EXPECT_TRUE(dir.has("fmon.log.20")) << "it did rotate";
}

}  // namespace
