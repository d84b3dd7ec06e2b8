/* How `fmon watch` ends: when it is told to, whatever holds it up, and by itself; and what that costs its files. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

const std::string kFmon = std::string(FMON_TEST_BIN) + "/fmon";
#ifdef FMON_TEST_SANITIZED /* a sanitizer waits for a second at an exit */
constexpr int64_t kSoonMs = 5000;
#else
constexpr int64_t kSoonMs = 200;
#endif
constexpr int kTries = 5; /* the machine may be busy */

std::vector<std::string> watch(const std::vector<std::string> &arguments)
{
    std::vector<std::string> argv = {kFmon, "watch"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

bool await(const std::function<bool()> &condition)
{
    for (const int64_t end = now_ms() + kPatienceMs; now_ms() < end; pause_ms(5))
        if (condition())
            return true;
    return condition();
}

void await_text(const std::string &path, const std::string &part)
{
    EXPECT_TRUE(await([&] { return content(path).find(part) != std::string::npos; })) << content(path);
}

void expect_has(const std::string &text, const std::string &part)
{
    EXPECT_NE(text.find(part), std::string::npos) << text;
}

/* Milliseconds from the signal to the end, which must be one with status 0. */
int64_t end_of(Process &fmon, int signal)
{
    const int64_t start = now_ms();
    fmon.send(signal);
    EXPECT_EQ(0, fmon.wait()) << fmon.errors();
    return now_ms() - start;
}

/* The process got so little processor time that its end came by the clock, with the rest undone. */
bool was_cut_off(const Process &fmon)
{
    return fmon.errors().find("told to end while the monitor is held up") != std::string::npos;
}

/* The kernel has no room left in a pipe of whatever size for what these events are told with. */
void make_many(const TempTree &tree, int count)
{
    for (int i = 0; i < count; i++)
        make_file(tree.path(std::to_string(i)));
}

}  // namespace

class Ending : public testing::TestWithParam<int>
{
};
INSTANTIATE_TEST_SUITE_P(Signals, Ending, testing::Values(SIGINT, SIGTERM));

/* Nobody reads the process's output here. */
TEST_P(Ending, AReaderThatDoesNotRead)
{
    int64_t best = INT64_MAX;
    for (int i = 0; i < kTries && best >= kSoonMs; i++) {
        TempTree tree;
        Process fmon({watch({"-e", "create", "--format", "json", tree.root()})});
        fmon.line();
        make_many(tree, 2000);
        pause_ms(300);
        const int64_t took = end_of(fmon, GetParam());
        if (was_cut_off(fmon))
            continue;
        best = std::min(best, took);
        expect_has(fmon.errors(), " records dropped, since the output's reader did not read");
    }
    EXPECT_LT(best, kSoonMs);
}

/* Another process's lease on a watched file holds the monitor up, with its lock held, where nothing is hardened. */
TEST_P(Ending, AMonitorThatIsHeldUp)
{
    NEED(geteuid() == 0, "events are opened by fanotify only");
    int64_t best = INT64_MAX;
    for (int i = 0; i < kTries && best >= kSoonMs; i++) {
        TempTree tree;
        const std::string file = tree.file("leased");
        Process fmon(
            {watch({"-e", "modify", "--source", "marks", "--set", "hardened=0", "--format", "json", tree.root()})});
        fmon.line();
        const Child owner([&] {
            signal(SIGIO, SIG_IGN);
            const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
            EXPECT_EQ(0, fcntl(fd, F_SETLEASE, F_WRLCK));
            EXPECT_EQ(1, write(fd, "x", 1));
        });
        pause_ms(100);
        Process other({{kFmon, "dump", std::to_string(fmon.pid())}});
        EXPECT_EQ(-1, other.wait(300)) << "the monitor is not held up";
        best = std::min(best, end_of(fmon, GetParam()));
    }
    EXPECT_LT(best, kSoonMs);
}

TEST_P(Ending, ACommandThatTakesLong)
{
    int64_t best = INT64_MAX;
    for (int i = 0; i < kTries && best >= kSoonMs; i++) {
        TempTree tree, results;
        Process fmon({watch({"-e", "create", "--format", "json", "--exec",
                             "trap 'echo ended >> " + results.path("out") + "; exit' TERM; echo ran >> " +
                                 results.path("out") + "; while :; do sleep 0.02; done",
                             tree.root()})});
        fmon.line();
        make_file(tree.path("a"));
        make_file(tree.path("b"));
        await_text(results.path("out"), "ran");
        const int64_t took = end_of(fmon, GetParam());
        if (was_cut_off(fmon))
            continue;
        best = std::min(best, took);
        expect_has(fmon.errors(), "/a was sent SIGTERM: it ran for too long");
        expect_has(fmon.errors(), "told to end: 1 event dropped, for which the command of --exec was not run");
        await_text(results.path("out"), "ended");
        EXPECT_EQ("ran\nended\n", content(results.path("out")));
    }
    EXPECT_LT(best, kSoonMs);
}

TEST_P(Ending, ACommandThatFinishesInTime)
{
    TempTree tree, results;
    bool finished = false;
    for (int i = 0; i < kTries && !finished; i++) {
        Process fmon(
            {watch({"-e", "create", "--format", "json", "--exec",
                    "echo ran > " + results.path("out") + "; sleep 0.03; echo finished > " + results.path("out"),
                    tree.root()})});
        fmon.line();
        make_file(tree.path(std::to_string(i)));
        await_text(results.path("out"), "ran");
        end_of(fmon, GetParam());
        finished = content(results.path("out")) == "finished\n" && fmon.errors().find("SIGTERM") == std::string::npos;
    }
    EXPECT_TRUE(finished);
}

TEST_P(Ending, APipeThatNobodyOpens)
{
    TempTree tree;
    ASSERT_EQ(0, mkfifo(tree.path("pipe").c_str(), 0600));
    int64_t best = INT64_MAX;
    for (int i = 0; i < kTries && best >= 5 * kSoonMs; i++) {
        Process fmon({watch({"-q", "-o", tree.path("pipe"), tree.root()})});
        pause_ms(500);
        best = std::min(best, end_of(fmon, GetParam()));
    }
    EXPECT_LT(best, 5 * kSoonMs);
}

/* What has come by then is shown, to a reader that reads. */
TEST_P(Ending, NothingIsDroppedForOneThatReads)
{
    TempTree tree, results;
    const std::string out = results.path("out");
    Process fmon({watch({"-e", "create", "--format", "%p", "-o", out, tree.root()})});
    ASSERT_TRUE(await([&] { return std::filesystem::exists(out); }));
    make_many(tree, 3000);
    await_text(out, tree.path("1000") + "\n");
    EXPECT_GE(end_of(fmon, GetParam()), 0);
    EXPECT_EQ(fmon.errors().find("dropped"), std::string::npos) << fmon.errors();
}

/* ---- by itself ---- */

TEST(EndingStatus, TellsATimeOutFromAWatchThatWent)
{
    TempTree tree;
    Process quiet({watch({"-q", "-t", "0.2", tree.root()})});
    EXPECT_EQ(1, quiet.wait());
    Process gone({watch({"--format", "json", tree.dir("sub")})});
    gone.line();
    remove_dir(tree.path("sub"));
    EXPECT_EQ(3, gone.wait());
}

/* ---- its files ---- */

TEST(OutputFile, KeepsItsContentWhenNothingIsWatched)
{
    TempTree tree;
    const std::string out = tree.file("out", "precious\n");
    Process wrong({watch({"-o", out, tree.path("missing")})});
    EXPECT_EQ(2, wrong.wait());
    EXPECT_EQ("precious\n", content(out));
    Process refused({watch({"-o", out, "--source", "marks", "--pid", "-e", "create", tree.root()})});
    EXPECT_EQ(2, refused.wait());
    EXPECT_EQ("precious\n", content(out));
    Process unwritable({watch({"-o", tree.path("none/out"), tree.root()})});
    EXPECT_EQ(2, unwritable.wait());
    expect_has(unwritable.errors(), "cannot write to " + tree.path("none/out") + ": No such file or directory");
}

TEST(OutputFile, GrowsWithAppend)
{
    TempTree tree, results;
    const std::string out = results.file("out", "before\n");
    for (const char *name : {"a", "b"}) {
        Process fmon({watch({"-n", "1", "-e", "create", "--format", "%p", "--append", "-o", out, tree.root()})});
        ASSERT_TRUE(await([&] { return fmon.errors().find("watching ") != std::string::npos; })) << fmon.errors();
        make_file(tree.path(name));
        EXPECT_EQ(0, fmon.wait());
    }
    EXPECT_EQ(content(out), "before\n" + tree.path("a") + "\n" + tree.path("b") + "\n");
}

TEST(FailingCommand, IsTold)
{
    TempTree tree;
    Process fmon({watch({"-e", "create", "--format", "json", "--exec", "exit 3", tree.root()})});
    fmon.line();
    make_file(tree.path("a"));
    EXPECT_TRUE(await([&] { return fmon.errors().find("ended with status 3") != std::string::npos; }));
    expect_has(fmon.errors(), "the command of --exec for " + tree.path("a") + " ended with status 3");
    EXPECT_EQ(0, fmon.interrupt());
}
