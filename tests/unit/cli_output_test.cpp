#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include "cli_testing.h"
#include "exec.h"
#include "orx_fmon.h"
#include "reporter.h"

using namespace cli;
using cli_testing::event_of;
using cli_testing::Folder;
using cli_testing::parse;

namespace
{

bool never() { return false; }

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
        arguments.insert(arguments.end(), {"-o", folder.path("out"), "--format", "%e %p", "/root"});
        parsed = parse(arguments);
        EXPECT_TRUE(parsed.ok) << parsed.error;
        reporter = std::make_unique<Reporter>(parsed.options);
        std::string error;
        EXPECT_TRUE(reporter->open(error)) << error;
        Plan plan;
        plan.instances = {{"watch", parsed.options.events ? parsed.options.events : uint32_t{FMON_ALL_EVENTS}}};
        plan.roots.resize(1);
        plan.roots[0].path = "/root";
        reporter->set_plan(plan);
        return *reporter;
    }
    std::string written()
    {
        reporter->flush();
        return content(folder.path("out"));
    }

    Folder folder;
    cli_testing::Parsed parsed;
    std::unique_ptr<Reporter> reporter;
};

}  // namespace

TEST(CliOutput, a_closed_pipe_is_no_error)
{
    signal(SIGPIPE, SIG_IGN);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Output output;
    std::string error;
    ASSERT_TRUE(output.open("/dev/fd/" + std::to_string(ends[1]), error)) << error;
    close(ends[1]);
    close(ends[0]);
    output.buffer() = "x";
    EXPECT_FALSE(output.flush(never));
    EXPECT_TRUE(output.closed());
    EXPECT_TRUE(output.error().empty());
}

TEST(CliOutput, a_full_disk_is_one)
{
    Output output;
    std::string error;
    ASSERT_TRUE(output.open("/dev/full", error));
    output.buffer() = "x";
    EXPECT_FALSE(output.flush(never));
    EXPECT_FALSE(output.closed());
    EXPECT_NE(output.error().find("No space left"), std::string::npos);
}

TEST(CliOutput, files_are_replaced_and_know_their_path)
{
    const Folder folder;
    const std::string path = folder.file("out", "old");
    Output output;
    std::string error;
    ASSERT_TRUE(output.open(path, error));
    EXPECT_EQ(output.file_path(), path);
    output.buffer() = "new";
    EXPECT_TRUE(output.flush_if_large(never));
    EXPECT_EQ(content(path), "");
    EXPECT_TRUE(output.flush(never));
    EXPECT_EQ(content(path), "new");
    EXPECT_TRUE(output.buffer().empty());
    Output other;
    EXPECT_FALSE(other.open(folder.path("missing/out"), error));
    EXPECT_NE(error.find("missing/out: No such file"), std::string::npos);
}

TEST(CliOutput, a_reader_that_does_not_read_cannot_hold_up_the_end)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    Output output;
    std::string error;
    ASSERT_TRUE(output.open("/dev/fd/" + std::to_string(ends[1]), error)) << error;
    fcntl(output.fd(), F_SETFL, O_NONBLOCK);
    output.buffer().assign(1 << 20, 'x');
    EXPECT_TRUE(output.flush([] { return true; }));
    EXPECT_TRUE(output.buffer().empty());
    close(ends[0]);
    close(ends[1]);
}

TEST(CliExec, the_event_is_in_the_environment_and_never_in_the_command)
{
    const Folder folder;
    const std::string hostile = folder.path("a\n$(touch " + folder.path("trap") + ");'\"`\xff");
    setenv("FMON_PATH", "old", 1);
    const Executor executor("printf '%s|%s|%s' \"$FMON_EVENTS\" \"$FMON_PATH\" \"$FMON_PID\" > " + folder.path("out"));
    std::string error;
    ASSERT_TRUE(executor.run(event_of(hostile, FMON_CREATE | FMON_ATTRIB, 42), never, error)) << error;
    EXPECT_EQ(content(folder.path("out")), "create,attrib|" + hostile + "|42");
    EXPECT_FALSE(std::filesystem::exists(folder.path("trap")));
    unsetenv("FMON_PATH");
}

TEST(CliExec, a_failing_command_is_the_users_business)
{
    std::string error;
    EXPECT_TRUE(Executor("exit 3").run(event_of("/a", FMON_CREATE), never, error));
    EXPECT_TRUE(Executor("kill -9 $$").run(event_of("/a", FMON_CREATE), never, error));
    EXPECT_TRUE(error.empty());
}

TEST_F(Reporting, shows_what_was_asked_for)
{
    open({"-e", "create"});
    reporter->event(event_of("/root/a", FMON_CREATE | FMON_ATTRIB));
    reporter->event(event_of("/root/b", FMON_ATTRIB));
    EXPECT_EQ(written(), "create /root/a\n");
    EXPECT_EQ(reporter->shown(), 1u);
}

TEST_F(Reporting, ends_after_the_count)
{
    open({"-n", "2", "--exclude", "x$"});
    for (const char *path : {"/root/1", "/root/x", "/root/2", "/root/3"})
        reporter->event(event_of(path, FMON_CREATE));
    EXPECT_EQ(written(), "create /root/1\ncreate /root/2\n");
    EXPECT_TRUE(reporter->finished());
    EXPECT_EQ(reporter->status(), 0);
}

TEST_F(Reporting, keeps_the_limit_of_depth)
{
    open({"-r", "--max-depth", "1"});
    for (const char *path : {"/root", "/root/a", "/root/a/b", "/root/a/b/c", "/elsewhere"})
        reporter->event(event_of(path, FMON_CREATE));
    EXPECT_EQ(written(), "create /root\ncreate /root/a\ncreate /root/a/b\n");
}

TEST_F(Reporting, does_not_show_its_own_file)
{
    open({});
    reporter->event(event_of(folder.path("out"), FMON_MODIFY));
    reporter->event(event_of(folder.path("out2"), FMON_MODIFY));
    EXPECT_EQ(written(), "modify " + folder.path("out2") + "\n");
}

TEST_F(Reporting, records_beside_events_are_for_json_only)
{
    open({});
    reporter->begin();
    reporter->established({{"/root"}, {}, 1});
    reporter->loss("inotify", 1);
    reporter->ended("/root", "deleted");
    EXPECT_EQ(written(), "");
}

TEST(CliReporter, refuses_before_anything_is_opened)
{
    const Folder folder;
    const std::vector<std::vector<std::string>> cases = {
        {"--include", "("}, {"--exclude", "[a"}, {"--format", "%q"}, {"-o", folder.path("no/out")}};
    for (std::vector<std::string> arguments : cases) {
        arguments.insert(arguments.end(), {"/root"});
        const auto parsed = parse(arguments);
        ASSERT_TRUE(parsed.ok) << parsed.error;
        Reporter reporter(parsed.options);
        std::string error;
        EXPECT_FALSE(reporter.open(error));
        EXPECT_FALSE(error.empty());
    }
}
