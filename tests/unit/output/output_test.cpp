/* Tests of output.h, exec.h and reporter.h: where records go, and what happens when they cannot. */

#include "output/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <sstream>

#include "agent/descriptors.h"
#include "orx_fmon.h"
#include "output/exec.h"
#include "output/reporter.h"
#include "unit/agent/agent_testing.h"
#include "unit/cli/parse.h"

using namespace agent;
using namespace output;
using agent_testing::Directory;
using agent_testing::event_of;
using cli_testing::parse;

namespace
{

int for_ever(bool) { return -1; }
int always() { return -1; }

std::string content(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/* A reporter that writes to a file, with one instance that shows all kinds. */
class Reporting : public testing::Test
{
protected:
    Reporter &open(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.end(), {"-o", directory.path("out"), "--format", "%e %p", "/root"});
        parsed = parse(arguments);
        EXPECT_TRUE(parsed.ok) << parsed.error;
        reporter = std::make_unique<Reporter>(parsed.options, parsed.options);
        std::string error;
        EXPECT_TRUE(reporter->prepare(error)) << error;
        Plan plan;
        plan.instances = {{"watch", parsed.options.events ? parsed.options.events : uint32_t{FMON_ALL_EVENTS}}};
        plan.roots.resize(1);
        plan.roots[0].path = "/root";
        reporter->set_plan(plan);
        EXPECT_TRUE(reporter->begin(error)) << error;
        return *reporter;
    }
    std::string written()
    {
        reporter->flush();
        return content(directory.path("out"));
    }

    Directory directory;
    cli_testing::Parsed<cli::WatchOptions> parsed;
    std::unique_ptr<Reporter> reporter;
};

}  // namespace

TEST(CliOutput, AClosedPipeIsNoError)
{
    signal(SIGPIPE, SIG_IGN);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    Output output;
    std::string error;
    ASSERT_TRUE(output.open("/dev/fd/" + std::to_string(ends[1]), false, error)) << error;
    close(ends[1]);
    close(ends[0]);
    output.buffer() = "x";
    EXPECT_FALSE(output.flush(for_ever));
    EXPECT_TRUE(output.closed());
    EXPECT_TRUE(output.error().empty());
}

TEST(CliOutput, AFullDiskIsOne)
{
    Output output;
    std::string error;
    ASSERT_TRUE(output.open("/dev/full", false, error));
    output.buffer() = "x";
    EXPECT_FALSE(output.flush(for_ever));
    EXPECT_FALSE(output.closed());
    EXPECT_NE(output.error().find("No space left"), std::string::npos);
}

TEST(CliOutput, FilesAreReplacedAndKnowTheirPath)
{
    const Directory directory;
    const std::string path = directory.file("out", "old");
    Output output;
    std::string error;
    ASSERT_TRUE(output.open(path, false, error));
    EXPECT_EQ(output.file_path(), path);
    output.buffer() = "new";
    EXPECT_TRUE(output.flush_if_large(for_ever));
    EXPECT_EQ("", content(path));
    EXPECT_TRUE(output.flush(for_ever));
    EXPECT_EQ("new", content(path));
    EXPECT_TRUE(output.buffer().empty());
    Output other;
    EXPECT_FALSE(other.open(directory.path("missing/out"), false, error));
    EXPECT_NE(error.find("missing/out: No such file"), std::string::npos);
}

TEST(CliOutput, AReaderThatDoesNotReadCannotHoldUpTheEnd)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_NONBLOCK));
    Output output;
    std::string error;
    ASSERT_TRUE(output.open("/dev/fd/" + std::to_string(ends[1]), false, error)) << error;
    fcntl(output.fd(), F_SETFL, O_NONBLOCK);
    output.buffer().assign(1 << 20, 'x');
    EXPECT_TRUE(output.flush([](bool) { return 20; }));
    EXPECT_TRUE(output.buffer().empty());
    EXPECT_TRUE(output.gave_up());
    output.buffer() = "later\n";
    EXPECT_TRUE(output.flush(for_ever));
    EXPECT_EQ(1u, output.given_up());
    close(ends[0]);
    close(ends[1]);
}

TEST(CliExec, TheEventIsInTheEnvironmentAndNeverInTheCommand)
{
    const Directory directory;
    const std::string hostile = directory.path("a\n$(touch " + directory.path("trap") + ");'\"`\xff");
    setenv("FMON_PATH", "old", 1);
    const Executor executor("printf '%s|%s|%s' \"$FMON_EVENTS\" \"$FMON_PATH\" \"$FMON_PID\" > " +
                            directory.path("out"));
    std::string error;
    ASSERT_TRUE(executor.run(event_of(hostile, FMON_CREATE | FMON_ATTRIB, 42), always, error)) << error;
    EXPECT_EQ(content(directory.path("out")), "create,attrib|" + hostile + "|42");
    EXPECT_FALSE(std::filesystem::exists(directory.path("trap")));
    unsetenv("FMON_PATH");
}

TEST(CliExec, FailuresAreTold)
{
    const Event event = event_of("/a", FMON_CREATE);
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"true", ""},
        {"exit 3", "the command of --exec for /a ended with status 3"},
        {"kill -9 $$", "the command of --exec for /a was ended by signal 9 (Killed)"}};
    for (const auto &[command, told] : rows) {
        std::string trouble = "as before";
        EXPECT_TRUE(Executor(command).run(event, always, trouble));
        EXPECT_EQ(trouble, told) << command;
    }
    const std::string long_path(200000, 'x');  // more than a process takes
    std::string trouble;
    EXPECT_FALSE(Executor("true").run(event_of(long_path, FMON_CREATE), always, trouble));
    EXPECT_NE(trouble.find("cannot run the command of --exec: Argument list too long"), std::string::npos);
}

// The wait is interrupted as signals.h says: here by a timer.
TEST(CliExec, ACommandHasItsTimeToEnd)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const struct itimerval often = {{0, 5000}, {0, 5000}}, off = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto start = std::chrono::steady_clock::now();
    const auto patience = [&] {
        const auto took = std::chrono::steady_clock::now() - start;
        return std::max(0, 500 - static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
    };
    std::string trouble;
    EXPECT_TRUE(Executor("sleep 0.1").run(event_of("/a", FMON_CREATE), patience, trouble));
    EXPECT_EQ("", trouble);
    EXPECT_TRUE(Executor("exec sleep 30").run(event_of("/a", FMON_CREATE), patience, trouble));
    EXPECT_EQ("the command of --exec for /a was sent SIGTERM: it ran for too long", trouble);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    setitimer(ITIMER_REAL, &off, nullptr);
    int status = 0;
    EXPECT_GT(wait(&status), 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

// Programs of a command may use select(), which holds 1,024 descriptors.
TEST(CliExec, ACommandHasTheLimitOfDescriptorsThatWas)
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    ASSERT_GT(limit.rlim_max, 200u);
    const rlim_t given = limit.rlim_cur;
    limit.rlim_cur = 200;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    raise_descriptor_limit();
    getrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
    EXPECT_EQ(most_descriptors(), limit.rlim_max);
    const Directory directory;
    std::string trouble;
    EXPECT_TRUE(Executor("ulimit -S -n > " + directory.path("out") + "; ulimit -H -n >> " + directory.path("out"))
                    .run(event_of("/a", FMON_CREATE), always, trouble));
    EXPECT_EQ("", trouble);
    EXPECT_EQ(content(directory.path("out")), "200\n" + std::to_string(limit.rlim_max) + "\n");
    limit.rlim_cur = given;
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(Reporting, ACommandThatFailsIsToldOf)
{
    testing::internal::CaptureStderr();
    open({"--exec", "exit 3"});
    for (const char *path : {"/root/1", "/root/2", "/root/3"})
        reporter->event(event_of(path, FMON_CREATE));
    reporter->report_dropped();
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ("fmon: the command of --exec for /root/1 ended with status 3", said.substr(0, said.find('\n')));
    EXPECT_EQ("fmon: the command of --exec failed 2 more times\n", said.substr(said.find('\n') + 1));
    EXPECT_FALSE(reporter->finished());
}

TEST_F(Reporting, ShowsWhatWasAskedFor)
{
    open({"-e", "create"});
    reporter->event(event_of("/root/a", FMON_CREATE | FMON_ATTRIB));
    reporter->event(event_of("/root/b", FMON_ATTRIB));
    EXPECT_EQ("create /root/a\n", written());
    EXPECT_EQ(1u, reporter->shown());
}

TEST_F(Reporting, EndsAfterTheCount)
{
    open({"-n", "2", "--exclude", "x$"});
    for (const char *path : {"/root/1", "/root/x", "/root/2", "/root/3"})
        reporter->event(event_of(path, FMON_CREATE));
    EXPECT_EQ("create /root/1\ncreate /root/2\n", written());
    EXPECT_TRUE(reporter->finished());
    EXPECT_EQ(0, reporter->status());
}

TEST_F(Reporting, KeepsTheLimitOfDepth)
{
    open({"-r", "--max-depth", "1"});
    for (const char *path : {"/root", "/root/a", "/root/a/b", "/root/a/b/c", "/elsewhere"})
        reporter->event(event_of(path, FMON_CREATE));
    EXPECT_EQ("create /root\ncreate /root/a\ncreate /root/a/b\n", written());
}

TEST_F(Reporting, DoesNotShowItsOwnFile)
{
    open({});
    reporter->event(event_of(directory.path("out"), FMON_MODIFY));
    reporter->event(event_of(directory.path("out2"), FMON_MODIFY));
    EXPECT_EQ(written(), "modify " + directory.path("out2") + "\n");
}

TEST_F(Reporting, RecordsBesideEventsAreForJsonOnly)
{
    open({});
    reporter->established({{"/root"}, {}, 1});
    reporter->loss("inotify", 1, "");
    reporter->ended("/root", "deleted");
    EXPECT_EQ("", written());
}

// A run that comes to nothing must not cost what the file held.
TEST(CliReporter, AFileIsOpenedLast)
{
    const Directory directory;
    const std::string out = directory.file("out", "old\n");
    for (const bool append : {false, true}) {
        auto parsed = parse({"-o", out, "-f", "csv", "/root"});
        parsed.options.append = append;
        Reporter reporter(parsed.options, parsed.options);
        std::string error;
        ASSERT_TRUE(reporter.prepare(error)) << error;
        reporter.set_plan({});
        EXPECT_EQ(content(out).substr(0, 4), append ? "time" : "old\n");
        ASSERT_TRUE(reporter.begin(error)) << error;
        reporter.loss("inotify", 1, "");
        reporter.flush();
        const std::string text = content(out);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), append ? 3 : 2) << text;
        EXPECT_EQ(0u, text.find("time,events,path,pid,process\n")) << text;
        EXPECT_EQ(0u, text.rfind("time,events")) << "one heading";
    }
    EXPECT_FALSE(parse({"--append", "/root"}).ok);
}

TEST(CliReporter, AnAppendedFileBeginsWithAHeading)
{
    const Directory directory;
    const auto parsed = parse({"-o", directory.path("new"), "--append", "-f", "csv", "/root"});
    Reporter reporter(parsed.options, parsed.options);
    std::string error;
    ASSERT_TRUE(reporter.prepare(error)) << error;
    EXPECT_FALSE(std::filesystem::exists(directory.path("new")));
    reporter.set_plan({});
    ASSERT_TRUE(reporter.begin(error)) << error;
    reporter.flush();
    EXPECT_EQ("time,events,path,pid,process\n", content(directory.path("new")));
}

TEST(CliReporter, RefusesBeforeAnythingIsOpened)
{
    const Directory directory;
    const std::vector<std::vector<std::string>> cases = {{"--include", "("},       {"--exclude", "[a"},
                                                         {"--format", "%q"},       {"-o", directory.path("no/out")},
                                                         {"-o", directory.root()}, {"-o", directory.root() + "/new/"}};
    for (std::vector<std::string> arguments : cases) {
        arguments.insert(arguments.end(), {"/root"});
        const auto parsed = parse(arguments);
        ASSERT_TRUE(parsed.ok) << parsed.error;
        Reporter reporter(parsed.options, parsed.options);
        std::string error;
        EXPECT_FALSE(reporter.prepare(error));
        EXPECT_FALSE(error.empty());
    }
}
