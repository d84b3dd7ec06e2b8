/* Tests of the log of orx_base.h and orx_autolog.h: where lines go, at which level. */

#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "host_support.h"
#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_host.h"

namespace
{

using host_test::CapturedStderr;
using host_test::contents;
using host_test::Environment;
using host_test::lines;
using host_test::TempDir;

struct Seen {
    int level;
    std::string file;
    int line;
    std::string text;
};

std::vector<Seen> seen;

void remember(int level, const char *file, int line, const char *text, void *)
{
    seen.push_back({level, file, line, text});
}

/* Every case starts on stderr at the default level, without a sink. */
class Log : public testing::Test
{
protected:
    void SetUp() override
    {
        error_output_level = ORX_LOG_WARNING;
        seen.clear();
    }
    void TearDown() override
    {
        orx_host_log_sink(nullptr, nullptr);
        autolog_deinit();
        error_output_level = ORX_LOG_WARNING;
    }
};

TEST_F(Log, WritesOneLineToStderr)
{
    CapturedStderr err;
    error_output(ORX_LOG_ERROR, "fmon.c", 12, "watch %s is gone", "/a");
    int year, month, day, hour, minute, second, micro, thread, end = 0;
    EXPECT_EQ(8, sscanf(err.text().c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6dZ error fmon.c:12 [%d] watch /a is gone%n",
                        &year, &month, &day, &hour, &minute, &second, &micro, &thread, &end))
        << err.text();
    EXPECT_EQ("\n", err.text().substr(static_cast<size_t>(end)));
    EXPECT_EQ(thread, gettid());
}

TEST_F(Log, AddsTheNewlineOnlyWhereItIsMissing)
{
    CapturedStderr err;
    error_output(ORX_LOG_ERROR, "a.c", 1, "with\n");
    error_output(ORX_LOG_ERROR, "a.c", 1, "without");
    error_output(ORX_LOG_ERROR, "a.c", 1, "%s", "");
    ASSERT_EQ(3u, err.lines().size());
    EXPECT_TRUE(err.lines()[0].ends_with("] with"));
    EXPECT_TRUE(err.lines()[1].ends_with("] without"));
    EXPECT_TRUE(err.lines()[2].ends_with("] "));
}

TEST_F(Log, DropsLinesAboveItsLevel)
{
    for (int level = 0; level <= 4; level++) {
        CapturedStderr err;
        error_output_level = level;
        for (int each = 1; each <= 4; each++)
            error_output(each, "a.c", each, "x");
        EXPECT_EQ(err.lines().size(), static_cast<size_t>(level));
    }
}

TEST_F(Log, CannotBeForgedByAName)
{
    CapturedStderr err;
    const char *name = "/tmp/x\n2026-01-01T00:00:00.000000Z error fmon.c:1 [1] forged\n";
    error_output(ORX_LOG_ERROR, "a.c", 1, "lost %s", name);
    ASSERT_EQ(1u, err.lines().size());
    EXPECT_NE(err.text().find("lost /tmp/x\\n2026-"), std::string::npos);
}

TEST_F(Log, TakesLongTextsAndCutsAbsurdOnes)
{
    for (size_t size : {1023u, 1024u, 1025u, 32767u, 32768u}) {
        CapturedStderr err;
        std::string text(size, 'x');
        error_output(ORX_LOG_ERROR, "a.c", 1, "%s", text.c_str());
        ASSERT_EQ(1u, err.lines().size());
        EXPECT_TRUE(err.lines()[0].ends_with("] " + text)) << size;
    }
    CapturedStderr err;
    error_output(ORX_LOG_ERROR, "a.c", 1, "%s\n", std::string(100000, 'x').c_str());
    EXPECT_TRUE(err.lines()[0].ends_with("] " + std::string(32768, 'x') + "... (67233 more bytes)"));
}

TEST_F(Log, LeavesErrnoAlone)
{
    TempDir dir;
    CapturedStderr err;
    ASSERT_EQ(0, autolog_init(dir.path().c_str(), 2));
    std::filesystem::remove_all(dir.path());
    dir.file("", "in the way");
    errno = ENOSPC;
    error_output(ORX_LOG_ERROR, "a.c", 1, "%m");
    EXPECT_EQ(ENOSPC, errno);
    error_output(ORX_LOG_ERROR, "a.c", 1, "%s%m", std::string(2000, 'x').c_str());
    EXPECT_EQ(ENOSPC, errno);
    for (const std::string &line : err.lines())
        EXPECT_TRUE(line.ends_with("No space left on device")) << line;
}

TEST_F(Log, GoesToFilesAndBack)
{
    TempDir dir;
    CapturedStderr err;
    ASSERT_EQ(0, autolog_init(dir.path("log").c_str(), 5));
    error_output(ORX_LOG_ERROR, "a.c", 1, "in the file");
    EXPECT_EQ("", err.text());
    autolog_deinit();
    error_output(ORX_LOG_ERROR, "a.c", 1, "on stderr");
    EXPECT_EQ(1u, err.lines().size());
    EXPECT_EQ(1u, lines(contents(dir.path("log/fmon.log"))).size());
    EXPECT_NE(contents(dir.path("log/fmon.log")).find("in the file\n"), std::string::npos);
}

TEST_F(Log, MovesToAnotherDirectory)
{
    TempDir dir;
    ASSERT_EQ(0, autolog_init(dir.path("a").c_str(), 5));
    ASSERT_EQ(0, autolog_init(dir.path("b").c_str(), 5));
    error_output(ORX_LOG_ERROR, "a.c", 1, "x");
    EXPECT_EQ("", contents(dir.path("a/fmon.log")));
    EXPECT_EQ(1u, lines(contents(dir.path("b/fmon.log"))).size());
}

TEST_F(Log, StaysWhereItIsWhenADirectoryCannotBeWritten)
{
    TempDir dir;
    dir.file("plain");
    CapturedStderr err;
    EXPECT_EQ(-1, autolog_init(dir.path("plain").c_str(), 5));
    EXPECT_EQ(-1, autolog_init("/proc/nothing/here", 5));
    EXPECT_EQ(-1, autolog_init("", 5));
    EXPECT_EQ(-1, autolog_init(nullptr, 5));
    EXPECT_EQ("", err.text());
    error_output(ORX_LOG_ERROR, "a.c", 1, "still here");
    EXPECT_EQ(1u, err.lines().size());
    ASSERT_EQ(0, autolog_init(dir.path("log").c_str(), 5));
    EXPECT_EQ(-1, autolog_init(dir.path("plain").c_str(), 5));
    error_output(ORX_LOG_ERROR, "a.c", 1, "in the file");
    EXPECT_EQ(1u, lines(contents(dir.path("log/fmon.log"))).size());
}

TEST_F(Log, ComesToStderrWhenItsDirectoryIsLost)
{
    TempDir dir;
    ASSERT_EQ(0, autolog_init(dir.path("log").c_str(), 5));
    std::filesystem::remove_all(dir.path("log"));
    dir.file("log", "in the way");
    CapturedStderr err;
    error_output(ORX_LOG_ERROR, "a.c", 1, "seen");
    EXPECT_EQ(1u, err.lines().size());
}

TEST_F(Log, StaysOnStderrByTheEnvironment)
{
    TempDir dir;
    Environment keep("FMON_LOG", "stderr");
    CapturedStderr err;
    EXPECT_EQ(0, autolog_init(dir.path("log").c_str(), 5));
    error_output(ORX_LOG_ERROR, "a.c", 1, "x");
    EXPECT_EQ(1u, err.lines().size());
    EXPECT_FALSE(dir.has("log"));
}

TEST_F(Log, ShowsEachLineToTheSink)
{
    CapturedStderr err;
    orx_host_log_sink(remember, nullptr);
    error_output(ORX_LOG_WARNING, "linux/mount.c", 7, "name %s\n", "a\x1b\n");
    error_output(ORX_LOG_INFO, "a.c", 1, "above the level");
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(ORX_LOG_WARNING, seen[0].level);
    EXPECT_EQ("linux/mount.c", seen[0].file);
    EXPECT_EQ(7, seen[0].line);
    EXPECT_EQ("name a\x1b\n", seen[0].text) << "as it was, without the newline at its end";
    EXPECT_EQ(1u, err.lines().size()) << "the sink does not replace the log";
    orx_host_log_sink(nullptr, nullptr);
    error_output(ORX_LOG_ERROR, "a.c", 1, "x");
    EXPECT_EQ(1u, seen.size());
}

TEST_F(Log, IsNotCaughtInASinkThatLogs)
{
    CapturedStderr err;
    int calls = 0;
    orx_host_log_sink(
        [](int, const char *, int, const char *, void *count) {
            ++*static_cast<int *>(count);
            error_output(ORX_LOG_ERROR, "sink.c", 1, "from the sink");
        },
        &calls);
    error_output(ORX_LOG_ERROR, "a.c", 1, "first");
    error_output(ORX_LOG_ERROR, "a.c", 1, "second");
    EXPECT_EQ(2, calls);
    EXPECT_EQ(4u, err.lines().size());
}

TEST_F(Log, TakesLinesFromManyThreads)
{
    constexpr int kThreads = 4, kLines = 500;
    TempDir dir;
    ASSERT_EQ(0, autolog_init(dir.path().c_str(), 5));
    std::atomic<int> sunk{0};
    auto count = [](int, const char *, int, const char *, void *arg) { ++*static_cast<std::atomic<int> *>(arg); };
    orx_host_log_sink(count, &sunk);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; i++)
                error_output(ORX_LOG_ERROR, "a.c", t, "line %d of %d", i, t);
        });
    orx_host_log_sink(nullptr, nullptr);
    int after_removal = sunk.load();
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(sunk.load(), after_removal) << "no call reaches a sink that was removed";
    EXPECT_EQ(static_cast<size_t>(kThreads * kLines), lines(contents(dir.path("fmon.log"))).size());
}

/* What a fresh process has for its level; its own program again, so that it starts with that environment. */
int level_with(const char *value)
{
    Environment level("FMON_LOG_LEVEL", value), child("HOST_LOG_TEST_CHILD", "level");
    pid_t pid = fork();
    if (pid == 0) {
        execl("/proc/self/exe", "child", static_cast<char *>(nullptr));
        _exit(99);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

[[gnu::constructor(65535)]] void answer_as_child()
{
    const char *what = getenv("HOST_LOG_TEST_CHILD");
    if (what && std::string(what) == "level")
        _exit(error_output_level);
    if (what && std::string(what) == "no-stderr") {
        int fd = open(getenv("HOST_LOG_TEST_FILE"), O_WRONLY);
        error_output(ORX_LOG_ERROR, "a.c", 1, "must not be in that file");
        _exit(fd);
    }
}

TEST_F(Log, TakesItsLevelFromTheEnvironment)
{
    EXPECT_EQ(2, level_with(nullptr));
    EXPECT_EQ(0, level_with("0"));
    EXPECT_EQ(4, level_with("4"));
    for (const char *bad : {"", "5", "-1", "x", "3x", " 3", "33"})
        EXPECT_EQ(2, level_with(bad)) << bad;
}

/* Where a process starts without stderr, descriptor 2 is soon some other file. */
TEST_F(Log, DoesNotWriteIntoAFileThatBecameDescriptorTwo)
{
    TempDir dir;
    std::string file = dir.file("data", "precious");
    Environment what("HOST_LOG_TEST_CHILD", "no-stderr"), where("HOST_LOG_TEST_FILE", file.c_str());
    pid_t pid = fork();
    if (pid == 0) {
        close(2);
        execl("/proc/self/exe", "child", static_cast<char *>(nullptr));
        _exit(99);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(2, WEXITSTATUS(status)) << "the file did become descriptor 2";
    EXPECT_EQ("precious", contents(file));
}

}  // namespace
