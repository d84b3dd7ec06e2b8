/* Tests of options.h: what the arguments of `fmon watch` mean, and what is refused. */

#include "cli/watch/options.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "agent/event_names.h"
#include "cli/front/verbs.h"
#include "orx_fmon.h"
#include "unit/cli/parse.h"

using cli_testing::parse;

TEST(CliOptions, Defaults)
{
    const auto parsed = parse({"/a", "b"});
    ASSERT_TRUE(parsed.ok) << parsed.error;
    EXPECT_EQ((std::vector<std::string>{"/a", "b"}), parsed.options.paths);
    EXPECT_EQ(0u, parsed.options.events);
    EXPECT_EQ("text", parsed.options.format);
    EXPECT_FALSE(parsed.options.recursive || parsed.options.pid || parsed.options.keep_going);
}

TEST(CliOptions, EveryFlag)
{
    const auto o = parse({"-r", "--pid", "--delay", "--sync", "--wait", "-0", "-q", "-k", "/a"});
    ASSERT_TRUE(o.ok) << o.error;
    EXPECT_TRUE(o.options.recursive && o.options.pid && o.options.delay && o.options.sync && o.options.wait &&
                o.options.null_end && o.options.quiet && o.options.keep_going);
}

namespace
{

/* As parse, with blanks between the arguments. */
cli_testing::Parsed<cli::WatchOptions> parse_words(const std::string &line)
{
    std::istringstream words(line);
    return parse({std::istream_iterator<std::string>(words), {}});
}

}  // namespace

TEST(CliOptions, EveryValue)
{
    const auto o = parse_words(
        "-r -e create,delete --events=attrib --max-depth 3 --max-subdirs 9 --include a --include b --exclude c -o /out "
        "-n 5 "
        "-t 1.5 --exec true --set rate_limit=7 --probes off --log stderr --log-level 3 -f csv /a");
    ASSERT_TRUE(o.ok) << o.error;
    EXPECT_EQ(uint32_t{FMON_CREATE | FMON_DELETE | FMON_ATTRIB}, o.options.events);
    EXPECT_EQ(3u, o.options.max_depth);
    EXPECT_EQ(9u, o.options.max_subdirs);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), o.options.include);
    EXPECT_EQ((std::vector<std::string>{"c"}), o.options.exclude);
    EXPECT_EQ("/out", o.options.output);
    EXPECT_EQ(5u, o.options.count);
    EXPECT_EQ(1500u, o.options.timeout_ms);
    EXPECT_EQ("true", o.options.exec);
    ASSERT_EQ(1u, o.options.settings.size());
    EXPECT_EQ("rate_limit=7", o.options.settings[0].first + "=" + o.options.settings[0].second);
    EXPECT_EQ(agent::Probes::kOff, o.options.probes);
    EXPECT_TRUE(o.options.log_to_stderr);
    EXPECT_EQ(3, o.options.log_level);
    EXPECT_EQ("csv", o.options.format);
}

TEST(CliOptions, WhatIsLeftUnwatched)
{
    const auto o = parse_words("-r @/a/b /a @c/");
    ASSERT_TRUE(o.ok) << o.error;
    EXPECT_EQ(std::vector<std::string>{"/a"}, o.options.paths);
    EXPECT_EQ((std::vector<std::string>{"/a/b", "c/"}), o.options.spare);
    EXPECT_TRUE(parse_words("-r ./@a").ok) << "which has that name";
    EXPECT_TRUE(parse_words("--system @/proc").ok);
}

TEST(CliOptions, WhoCausedIt)
{
    const auto o = parse_words("--process cat --process !/bin/dog --process-id 12 --user root --user !0 /a");
    ASSERT_TRUE(o.ok) << o.error;
    EXPECT_EQ((std::vector<std::string>{"cat", "!/bin/dog"}), o.options.processes);
    EXPECT_EQ(std::vector<std::string>{"12"}, o.options.process_ids);
    EXPECT_EQ((std::vector<std::string>{"root", "!0"}), o.options.users);
}

TEST(CliOptions, OptionsMayFollowPathsUntilTwoDashes)
{
    const auto o = parse({"/a", "-r", "--", "-b"});
    ASSERT_TRUE(o.ok) << o.error;
    EXPECT_TRUE(o.options.recursive);
    EXPECT_EQ((std::vector<std::string>{"/a", "-b"}), o.options.paths);
}

TEST(CliOptions, LongNamesMayBeCutShort)
{
    EXPECT_TRUE(parse({"--rec", "/a"}).options.recursive);
    EXPECT_NE(parse({"--m", "/a"}).error.find("ambiguous option '--m'"), std::string::npos);
}

namespace
{

struct Bad {
    std::vector<std::string> arguments;
    std::string complaint; /* part of it */
};

const Bad kBad[] = {
    {{}, "no PATH to watch"},
    {{"-Z", "/a"}, "unknown option '-Z'"},
    {{"--foo", "/a"}, "option '--foo'"},
    {{"-e"}, "--events needs a value: LIST"},
    {{"--count"}, "--count needs a value"},
    {{"--recursive=1", "/a"}, "--recursive takes no value"},
    {{"-e", "create,bogus", "/a"}, "unknown event 'bogus'"},
    {{"-e", "Create", "/a"}, "unknown event 'Create'"},
    {{"-e", " create", "/a"}, "unknown event ' create'"},
    {{"-e", ",", "/a"}, "--events takes"},
    {{"-e", "", "/a"}, "--events takes"},
    {{"-r", "--max-depth", "0", "/a"}, "--max-depth takes"},
    {{"-r", "--max-depth", "65536", "/a"}, "--max-depth takes"},
    {{"-r", "--max-depth", "x", "/a"}, "--max-depth takes"},
    {{"-r", "--max-depth", "1x", "/a"}, "--max-depth takes"},
    {{"-r", "--max-depth", "-1", "/a"}, "--max-depth takes"},
    {{"--max-depth", "1", "/a"}, "need --recursive"},
    {{"-r", "--max-subdirs", "2147483648", "/a"}, "--max-subdirs takes"},
    {{"--format", "xml", "/a"}, "--format takes"},
    {{"--format", "", "/a"}, "--format takes"},
    {{"--pair-renames", "-e", "moved_to", "/a"}, "ask for both (-e move)"},
    {{"-f", "%o", "-e", "moved_from,create", "/a"}, "ask for both (-e move)"},
    {{"--pair-renames", "--mount", "/a"}, "without --mount"},
    {{"--time-format", "", "/a"}, "--time-format takes"},
    {{"--time-format", std::string(129, 'a'), "/a"}, "--time-format takes"},
    {{"--time-format", "%T", "-f", "json", "/a"}, "json, ecs and ocsf have times of one form"},
    {{"/a", "@/a/b"}, "add --recursive, or leave it out"},
    {{"-r", "/a", "@"}, "is a path without \"*\", and not all there is"},
    {{"-r", "/a", "@//"}, "is a path without \"*\", and not all there is"},
    {{"-r", "/a", "@/a/*"}, "is a path without \"*\", and not all there is"},
    {{"-r", "@/a"}, "no PATH to watch"},
    {{"--stat", "/a"}, "a template says %i, %D or %g"},
    {{"--stat", "-f", "csv", "/a"}, "a template says %i, %D or %g"},
    {{"--fromfile", ""}, "--fromfile takes"},
    {{"--fromfile", "/nonexistent/list"}, "--fromfile /nonexistent/list cannot be read: No such file"},
    {{"--fromfile", "/"}, "--fromfile / cannot be read: Is a directory"},
    {{"--fromfile", "/dev/null"}, "no PATH to watch"},
    {{"--fromfile", "/dev/zero"}, "line 1 holds a NUL"},
    {{"-n", "0", "/a"}, "--count takes"},
    {{"-n", "18446744073709551616", "/a"}, "--count takes"},
    {{"-t", "0", "/a"}, "--timeout takes"},
    {{"-t", "-1", "/a"}, "--timeout takes"},
    {{"-t", "nan", "/a"}, "--timeout takes"},
    {{"-t", "inf", "/a"}, "--timeout takes"},
    {{"-t", "1s", "/a"}, "--timeout takes"},
    {{"-t", "", "/a"}, "--timeout takes"},
    {{"--set", "foo=1", "/a"},
     "max_events, max_dentries, tbd_interval, rate_limit, rate_interval, rate_log, hardened, "
     "fs_directories, fs_memory, fs_memory_kib, fs_queue, fs_rest, fs_ignore"},
    {{"--set", "max_events", "/a"}, "max_events=NUMBER"},
    {{"--set", "max_events=0", "/a"}, "1 to 2147483647"},
    {{"--set", "max_dentries=2097153", "/a"}, "1 to 2097152"},
    {{"--set", "tbd_interval=999", "/a"}, "1000 to"},
    {{"--set", "rate_interval=9", "/a"}, "10 to 1000"},
    {{"--set", "rate_log=2", "/a"}, "0 to 1"},
    {{"--set", "fs_directories=0", "/a"}, "1 to 2147483647"},
    {{"--set", "fs_memory=2049", "/a"}, "1 to 2048"},
    {{"--set", "fs_ignore=1025", "/a"}, "0 to 1024"},
    {{"--set", "fs_events=1", "/a"}, "unknown key 'fs_events'"},
    {{"--probes", "maybe", "/a"}, "auto, on or off"},
    {{"--log", "disk", "/a"}, "file or stderr"},
    {{"--log-level", "5", "/a"}, "--log-level takes"},
    {{"-o", "", "/a"}, "--output takes"},
    {{"--exec", "", "/a"}, "--exec takes"},
    {{"--mount", "-e", "create", "/a"}, "--mount sees"},
    {{"--mount", "--sync", "/a"}, "leave out --sync"},
    {{"--mount", "--wait", "/a"}, "leave out --sync"},
    {{"--pid", "-e", "create", "--source", "marks", "/a"}, "is about open, access"},
    {{"--pid", "-e", "create", "-r", "--max-depth=2", "/a"}, "is about open, access"},
    {{"--source", "both", "/a"}, "auto, marks or filesystem"},
    {{"--source=filesystem", "--mount", "/a"}, "leave out --mount"},
    {{"--source=filesystem", "-r", "--max-depth=2", "/a"}, "leave out --mount and --max-depth"},
    {{"--system", "/a"}, "leave out the PATH"},
    {{"--system", "-r"}, "--system goes with none"},
    {{"--system", "--as-given"}, "--system goes with none"},
    {{"--system", "-e", "create,open"}, "--system knows create, delete"},
    {{"--system", "--probes", "off", "--source", "marks"}, "leave out --probes off"},
    {{"--system", "--probes", "on", "--source", "filesystem"}, "leave out --probes on"},
};

}  // namespace

TEST(CliOptions, EachBadInputIsNamed)
{
    for (const Bad &bad : kBad) {
        const auto parsed = parse(bad.arguments);
        EXPECT_FALSE(parsed.ok) << bad.complaint;
        EXPECT_NE(parsed.error.find(bad.complaint), std::string::npos) << parsed.error;
        EXPECT_EQ(parsed.error.find('\n'), std::string::npos) << parsed.error;
    }
}

TEST(CliOptions, LimitsAreAccepted)
{
    EXPECT_TRUE(parse({"-r", "--max-depth", "65535", "--max-subdirs", "2147483647", "/a"}).ok);
    EXPECT_TRUE(parse({"--set", "max_dentries=2097152", "--set", "tbd_interval=1000", "/a"}).ok);
    EXPECT_EQ(1u, parse({"-t", "0.001", "/a"}).options.timeout_ms);
    EXPECT_TRUE(parse({"--mount", "-e", "all", "/a"}).ok);
    EXPECT_TRUE(parse({"--mount", "-e", "close,open", "/a"}).ok);
    EXPECT_TRUE(parse({"--set", "fs_memory=2048", "--set", "fs_memory_kib=64", "--set", "fs_queue=1", "/a"}).ok);
}

TEST(CliOptions, APercentSignMakesATemplate)
{
    const auto o = parse({"--format", "%e %p", "/a"});
    EXPECT_EQ("%e %p", o.options.format);
}

TEST(CliOptions, ATemplateWithAncestorsAsksForThem)
{
    EXPECT_TRUE(parse({"--ancestors", "/a"}).options.ancestors);
    EXPECT_TRUE(parse({"--format", "%p %a", "/a"}).options.ancestors);
    EXPECT_FALSE(parse({"--format", "%p", "/a"}).options.ancestors);
}

TEST(CliOptions, HelpWantsNoPath)
{
    const auto help = parse({"--help"}), events = parse({"-e", "help"});
    EXPECT_TRUE(help.ok && help.options.help && !help.options.list_events);
    EXPECT_TRUE(events.ok && events.options.list_events && !events.options.help);
}

TEST(CliOptions, HelpNamesEveryOptionAndFitsTheScreen)
{
    const std::string help = cli::kWatch.help();
    for (const cli::Option &row : cli::kWatch.options())
        EXPECT_NE(help.find(std::string("--") + row.name), std::string::npos) << row.name;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(line.size(), 119u) << line;
    EXPECT_NE(help.find("Examples:"), std::string::npos);
    EXPECT_NE(help.find("Status:"), std::string::npos);
}

TEST(CliOptions, LettersAndNamesAreUnique)
{
    const std::vector<cli::Option> options = cli::kWatch.options();
    for (const cli::Option &a : options)
        for (const cli::Option &b : options) {
            EXPECT_TRUE(&a == &b || a.letter == 0 || a.letter != b.letter) << a.name;
            EXPECT_TRUE(&a == &b || std::string(a.name) != b.name) << a.name;
        }
}

TEST(CliVerbs, TableIsFoundBothWays)
{
    for (const cli::Verb *verb : cli::verbs()) {
        EXPECT_EQ(cli::find_verb(verb->text().name), verb);
        EXPECT_NE(cli::main_help().find(verb->text().name), std::string::npos);
    }
    EXPECT_EQ(nullptr, cli::find_verb(""));
    EXPECT_EQ(nullptr, cli::find_verb("watc"));
}

TEST(CliEvents, EveryRowParsesToItsMask)
{
    for (const agent::EventName &row : agent::kEventTable) {
        uint32_t mask = 0;
        std::string unknown;
        EXPECT_TRUE(agent::parse_events(row.name, mask, unknown));
        EXPECT_EQ(mask, row.mask);
        EXPECT_NE(cli::event_list().find(row.name), std::string::npos);
    }
}

TEST(CliEvents, MoveIsBothHalvesOfARename)
{
    EXPECT_EQ(uint32_t{FMON_MOVED_FROM | FMON_MOVED_TO}, parse({"-e", "move", "/a"}).options.events);
    EXPECT_EQ("moved_from,moved_to", agent::events_text(FMON_MOVED_FROM | FMON_MOVED_TO));
}

TEST(CliEvents, MasksPrintSingleNamesInTableOrder)
{
    EXPECT_EQ("", agent::events_text(0));
    EXPECT_EQ("close_write,close_nowrite", agent::events_text(FMON_CLOSE));
    EXPECT_EQ(
        "open,access,modify,create,delete,moved_from,moved_to,attrib,close_write,close_nowrite,move_self,"
        "delete_self",
        agent::events_text(FMON_ALL_EVENTS));
    EXPECT_EQ("create,link", agent::events_text(FMON_CREATE | FMON_LINK));
    EXPECT_EQ("", agent::events_text(0x4000));
}

TEST(CliEvents, PrintedNamesParseBack)
{
    for (uint32_t mask = 1; mask <= FMON_ALL_EVENTS; mask++) {
        uint32_t again = 0;
        std::string unknown;
        ASSERT_TRUE(agent::parse_events(agent::events_text(mask), again, unknown));
        ASSERT_EQ(again, mask);
    }
}

TEST(CliOptions, SystemWithAllEventsMeansAllThatItCan)
{
    EXPECT_TRUE(parse({"--system"}).ok);
    EXPECT_TRUE(parse({"--system", "-e", "all"}).ok);
    EXPECT_TRUE(parse({"--system", "-e", "create,delete,moved_from,moved_to,close_write"}).ok);
}

// Marks of file systems name the process of every kind.
TEST(CliOptions, PidWithEveryKindUnlessOnlyMarksOfDirectoriesCanServe)
{
    EXPECT_TRUE(parse({"--pid", "-e", "create", "/a"}).ok);
    EXPECT_TRUE(parse({"--pid", "-e", "create", "--source=filesystem", "/a"}).ok);
    EXPECT_TRUE(parse({"--pid", "-e", "create,open", "--source=marks", "/a"}).ok);
}

TEST(CliOptions, SystemWithoutProbesIsServedByMarksOfFileSystems)
{
    EXPECT_TRUE(parse({"--system", "--probes", "off"}).ok);
    EXPECT_TRUE(parse({"--system", "--source=filesystem"}).ok);
    EXPECT_TRUE(parse({"--system", "--source=marks"}).ok);
}
