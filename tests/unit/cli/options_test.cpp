/* Tests of options.h: what the arguments of `fmon watch` mean, and what is refused. */

#include "cli/watch/options.h"

#include <gtest/gtest.h>

#include "agent/event_names.h"
#include "cli/verbs.h"
#include "cli/watch/option_table.h"
#include "orx_fmon.h"
#include "unit/cli/parse.h"

using cli_testing::parse;

TEST(CliOptions, defaults)
{
    const auto parsed = parse({"/a", "b"});
    ASSERT_TRUE(parsed.ok) << parsed.error;
    EXPECT_EQ(parsed.options.paths, (std::vector<std::string>{"/a", "b"}));
    EXPECT_EQ(parsed.options.events, 0u);
    EXPECT_EQ(parsed.options.form, output::Form::kText);
    EXPECT_FALSE(parsed.options.recursive || parsed.options.pid || parsed.options.keep_going);
}

TEST(CliOptions, every_flag)
{
    const auto o = parse({"-r", "--pid", "--delay", "--sync", "--wait", "-0", "-q", "-k", "/a"});
    ASSERT_TRUE(o.ok) << o.error;
    EXPECT_TRUE(o.options.recursive && o.options.pid && o.options.delay && o.options.sync && o.options.wait &&
                o.options.null_end && o.options.quiet && o.options.keep_going);
}

TEST(CliOptions, every_value)
{
    const auto o = parse({"-r",
                          "-e",
                          "create,delete",
                          "--events=attrib",
                          "--max-depth",
                          "3",
                          "--max-subdirs",
                          "9",
                          "--include",
                          "a",
                          "--include",
                          "b",
                          "--exclude",
                          "c",
                          "-o",
                          "/out",
                          "-n",
                          "5",
                          "-t",
                          "1.5",
                          "--exec",
                          "true",
                          "--set",
                          "rate_limit=7",
                          "--probes",
                          "off",
                          "--log",
                          "stderr",
                          "--log-level",
                          "3",
                          "-f",
                          "csv",
                          "/a"});
    ASSERT_TRUE(o.ok) << o.error;
    EXPECT_EQ(o.options.events, uint32_t{FMON_CREATE | FMON_DELETE | FMON_ATTRIB});
    EXPECT_EQ(o.options.max_depth, 3u);
    EXPECT_EQ(o.options.max_subdirs, 9u);
    EXPECT_EQ(o.options.include, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(o.options.exclude, (std::vector<std::string>{"c"}));
    EXPECT_EQ(o.options.output, "/out");
    EXPECT_EQ(o.options.count, 5u);
    EXPECT_EQ(o.options.timeout_ms, 1500u);
    EXPECT_EQ(o.options.exec, "true");
    ASSERT_EQ(o.options.settings.size(), 1u);
    EXPECT_EQ(o.options.settings[0].first + "=" + o.options.settings[0].second, "rate_limit=7");
    EXPECT_EQ(o.options.probes, agent::Probes::kOff);
    EXPECT_TRUE(o.options.log_to_stderr);
    EXPECT_EQ(o.options.log_level, 3);
    EXPECT_EQ(o.options.form, output::Form::kCsv);
}

TEST(CliOptions, options_may_follow_paths_until_two_dashes)
{
    const auto o = parse({"/a", "-r", "--", "-b"});
    ASSERT_TRUE(o.ok) << o.error;
    EXPECT_TRUE(o.options.recursive);
    EXPECT_EQ(o.options.paths, (std::vector<std::string>{"/a", "-b"}));
}

TEST(CliOptions, long_names_may_be_cut_short)
{
    EXPECT_TRUE(parse({"--rec", "/a"}).options.recursive);
    EXPECT_NE(parse({"--m", "/a"}).error.find("ambiguous option '--m'"), std::string::npos);
}

struct Bad {
    std::vector<std::string> arguments;
    std::string complaint; /* part of it */
};

TEST(CliOptions, each_bad_input_is_named)
{
    const Bad cases[] = {
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
        {{"-n", "0", "/a"}, "--count takes"},
        {{"-n", "18446744073709551616", "/a"}, "--count takes"},
        {{"-t", "0", "/a"}, "--timeout takes"},
        {{"-t", "-1", "/a"}, "--timeout takes"},
        {{"-t", "nan", "/a"}, "--timeout takes"},
        {{"-t", "inf", "/a"}, "--timeout takes"},
        {{"-t", "1s", "/a"}, "--timeout takes"},
        {{"-t", "", "/a"}, "--timeout takes"},
        {{"--set", "foo=1", "/a"},
         "max_events, max_dentries, tbd_interval, rate_limit, rate_interval, rate_log, hardened"},
        {{"--set", "max_events", "/a"}, "max_events=NUMBER"},
        {{"--set", "max_events=0", "/a"}, "1 to 2147483647"},
        {{"--set", "max_dentries=2097153", "/a"}, "1 to 2097152"},
        {{"--set", "tbd_interval=999", "/a"}, "1000 to"},
        {{"--set", "rate_interval=9", "/a"}, "10 to 1000"},
        {{"--set", "rate_log=2", "/a"}, "0 to 1"},
        {{"--probes", "maybe", "/a"}, "auto, on or off"},
        {{"--log", "disk", "/a"}, "file or stderr"},
        {{"--log-level", "5", "/a"}, "--log-level takes"},
        {{"-o", "", "/a"}, "--output takes"},
        {{"--exec", "", "/a"}, "--exec takes"},
        {{"--mount", "-e", "create", "/a"}, "--mount sees"},
        {{"--mount", "--sync", "/a"}, "leave out --sync"},
        {{"--mount", "--wait", "/a"}, "leave out --sync"},
        {{"--pid", "-e", "create", "/a"}, "--pid is about"},
        {{"--system", "/a"}, "leave out the PATH"},
        {{"--system", "-r"}, "--system goes with none"},
        {{"--system", "-e", "create,open"}, "--system knows create, delete"},
        {{"--system", "--probes", "off"}, "leave out --probes off"},
    };
    for (const Bad &bad : cases) {
        const auto parsed = parse(bad.arguments);
        EXPECT_FALSE(parsed.ok) << bad.complaint;
        EXPECT_NE(parsed.error.find(bad.complaint), std::string::npos) << parsed.error;
        EXPECT_EQ(parsed.error.find('\n'), std::string::npos) << parsed.error;
    }
}

TEST(CliOptions, limits_are_accepted)
{
    EXPECT_TRUE(parse({"-r", "--max-depth", "65535", "--max-subdirs", "2147483647", "/a"}).ok);
    EXPECT_TRUE(parse({"--set", "max_dentries=2097152", "--set", "tbd_interval=1000", "/a"}).ok);
    EXPECT_EQ(parse({"-t", "0.001", "/a"}).options.timeout_ms, 1u);
    EXPECT_TRUE(parse({"--mount", "-e", "all", "/a"}).ok);
    EXPECT_TRUE(parse({"--mount", "-e", "close,open", "/a"}).ok);
}

TEST(CliOptions, a_percent_sign_makes_a_template)
{
    const auto o = parse({"--format", "%e %p", "/a"});
    EXPECT_EQ(o.options.form, output::Form::kTemplate);
    EXPECT_EQ(o.options.pattern, "%e %p");
}

TEST(CliOptions, help_wants_no_path)
{
    EXPECT_EQ(parse({"--help"}).options.answer, cli::Answer::kHelp);
    EXPECT_EQ(parse({"-e", "help"}).options.answer, cli::Answer::kEventList);
}

TEST(CliOptions, help_names_every_option_and_fits_the_screen)
{
    const std::string help = cli::watch_help();
    for (const cli::OptionRow &row : cli::kOptionTable)
        EXPECT_NE(help.find(std::string("--") + row.name), std::string::npos) << row.name;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(line.size(), 119u) << line;
    EXPECT_NE(help.find("Examples:"), std::string::npos);
    EXPECT_NE(help.find("Status:"), std::string::npos);
}

TEST(CliOptions, letters_and_names_are_unique)
{
    for (const cli::OptionRow &a : cli::kOptionTable)
        for (const cli::OptionRow &b : cli::kOptionTable) {
            EXPECT_TRUE(&a == &b || a.letter == 0 || a.letter != b.letter) << a.name;
            EXPECT_TRUE(&a == &b || std::string(a.name) != b.name) << a.name;
        }
}

TEST(CliVerbs, table_is_found_both_ways)
{
    for (const cli::Verb &verb : cli::kVerbTable) {
        EXPECT_EQ(cli::find_verb(verb.name), &verb);
        EXPECT_NE(cli::main_help().find(verb.name), std::string::npos);
    }
    EXPECT_EQ(cli::find_verb(""), nullptr);
    EXPECT_EQ(cli::find_verb("watc"), nullptr);
}

TEST(CliEvents, every_row_parses_to_its_mask)
{
    for (const agent::EventName &row : agent::kEventTable) {
        uint32_t mask = 0;
        std::string unknown;
        EXPECT_TRUE(agent::parse_events(row.name, mask, unknown));
        EXPECT_EQ(mask, row.mask);
        EXPECT_NE(cli::event_list().find(row.name), std::string::npos);
    }
}

TEST(CliEvents, masks_print_single_names_in_table_order)
{
    EXPECT_EQ(agent::events_text(0), "");
    EXPECT_EQ(agent::events_text(FMON_CLOSE), "close_write,close_nowrite");
    EXPECT_EQ(agent::events_text(FMON_ALL_EVENTS),
              "open,access,modify,create,delete,moved_from,moved_to,attrib,close_write,close_nowrite,move_self,"
              "delete_self");
    EXPECT_EQ(agent::events_text(FMON_CREATE | FMON_LINK), "create,link");
    EXPECT_EQ(agent::events_text(0x4000), "");
}

TEST(CliEvents, printed_names_parse_back)
{
    for (uint32_t mask = 1; mask <= FMON_ALL_EVENTS; mask++) {
        uint32_t again = 0;
        std::string unknown;
        ASSERT_TRUE(agent::parse_events(agent::events_text(mask), again, unknown));
        ASSERT_EQ(again, mask);
    }
}

TEST(CliOptions, system_with_all_events_means_all_that_it_can)
{
    EXPECT_TRUE(parse({"--system"}).ok);
    EXPECT_TRUE(parse({"--system", "-e", "all"}).ok);
    EXPECT_TRUE(parse({"--system", "-e", "create,delete,moved_from,moved_to,close_write"}).ok);
}
