/* Each row of each verb's table: what it sets, that it is found by both its names, and that `--help` shows it. */
#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <set>
#include <sstream>

#include "cli/doctor/doctor_options.h"
#include "cli/dump/dump_options.h"
#include "cli/front/verbs.h"
#include "cli/offsets/offsets_options.h"
#include "cli/run/run_options.h"
#include "cli/stats/stats_options.h"
#include "cli/top/top_options.h"
#include "orx_fmon.h"
#include "parse.h"

namespace
{

using cli_testing::parse;
using Strings = std::vector<std::string>;

template <typename O>
struct Row {
    const char *name, *value; /* null: takes none */
    bool (*is_set)(const O &);
};

/* `rows` are all of the verb's, in the table's order. */
template <typename O>
void expect_rows(const cli::VerbOf<O> &verb, const std::vector<Row<O>> &rows)
{
    const std::vector<cli::Option> options = verb.options();
    ASSERT_EQ(options.size(), rows.size());
    for (size_t i = 0; i < rows.size(); i++) {
        const auto &[name, value, is_set] = rows[i];
        EXPECT_STREQ(options[i].name, name);
        EXPECT_FALSE(is_set(parse(verb, {}).options)) << name;
        std::vector<Strings> ways = {{std::string("--") + name}};
        if (options[i].letter)
            ways.push_back({std::string("-") + options[i].letter});
        for (Strings &way : ways) {
            if (value)
                way.emplace_back(value);
            EXPECT_TRUE(is_set(parse(verb, way).options)) << way[0];
        }
    }
}

using WatchRows = std::vector<Row<cli::WatchOptions>>;

/* What is watched; what of that is shown, and how; the rest. */
WatchRows watch_rows()
{
    using O = cli::WatchOptions;
    return {{"recursive", nullptr, [](const O &o) { return o.recursive; }},
            {"fromfile", "/proc/self/comm", [](const O &o) { return o.listed.size() == 1; }},
            {"events", "create", [](const O &o) { return o.events == FMON_CREATE; }},
            {"pid", nullptr, [](const O &o) { return o.pid; }},
            {"mount", nullptr, [](const O &o) { return o.mount; }},
            {"delay", nullptr, [](const O &o) { return o.delay; }},
            {"no-found", nullptr, [](const O &o) { return o.no_found; }},
            {"sync", nullptr, [](const O &o) { return o.sync; }},
            {"wait", nullptr, [](const O &o) { return o.wait; }},
            {"max-depth", "3", [](const O &o) { return o.max_depth == 3; }},
            {"max-subdirs", "9", [](const O &o) { return o.max_subdirs == 9; }},
            {"system", nullptr, [](const O &o) { return o.system; }}};
}

WatchRows shown_rows()
{
    using O = cli::WatchOptions;
    using Texts = std::vector<std::string>;
    return {{"include", "a", [](const O &o) { return o.include == Texts{"a"}; }},
            {"exclude", "a", [](const O &o) { return o.exclude == Texts{"a"}; }},
            {"iinclude", "a", [](const O &o) { return o.include_any_case == Texts{"a"}; }},
            {"iexclude", "a", [](const O &o) { return o.exclude_any_case == Texts{"a"}; }},
            {"process", "cat", [](const O &o) { return o.processes == Texts{"cat"}; }},
            {"process-id", "12", [](const O &o) { return o.process_ids == Texts{"12"}; }},
            {"user", "!root", [](const O &o) { return o.users == Texts{"!root"}; }},
            {"format", "csv", [](const O &o) { return o.format == "csv"; }},
            {"pair-renames", nullptr, [](const O &o) { return o.pair_renames; }},
            {"as-given", nullptr, [](const O &o) { return o.as_given; }},
            {"time-format", "%F", [](const O &o) { return o.time_format == "%F"; }},
            {"ancestors", nullptr, [](const O &o) { return o.ancestors; }},
            {"stat", nullptr, [](const O &o) { return o.stat; }},
            {"null", nullptr, [](const O &o) { return o.null_end; }}};
}

WatchRows other_rows()
{
    using O = cli::WatchOptions;
    return {{"output", "/out", [](const O &o) { return o.output == "/out"; }},
            {"append", nullptr, [](const O &o) { return o.append; }},
            {"quiet", nullptr, [](const O &o) { return o.quiet; }},
            {"exec", "true", [](const O &o) { return o.exec == "true"; }},
            {"count", "5", [](const O &o) { return o.count == 5; }},
            {"timeout", "1.5", [](const O &o) { return o.timeout_ms == 1500; }},
            {"keep-going", nullptr, [](const O &o) { return o.keep_going; }},
            {"set", "rate_limit=7",
             [](const O &o) {
                 return o.settings.size() == 1 && o.settings[0].first + o.settings[0].second == "rate_limit7";
             }},
            {"source", "marks", [](const O &o) { return o.source == agent::Source::kMarks; }},
            {"probes", "off", [](const O &o) { return o.probes == agent::Probes::kOff; }},
            {"log", "stderr", [](const O &o) { return o.log_to_stderr && o.log_level == -1; }},
            {"log-level", "3", [](const O &o) { return o.log_level == 3 && !o.log_to_stderr; }},
            {"verbose", nullptr, [](const O &o) { return o.log_level == 4 && o.log_to_stderr; }},
            {"help", nullptr, [](const O &o) { return o.help; }}};
}

}  // namespace

TEST(CliTables, OfWatch)
{
    WatchRows rows = watch_rows();
    for (const WatchRows &more : {shown_rows(), other_rows()})
        rows.insert(rows.end(), more.begin(), more.end());
    expect_rows(cli::kWatch, rows);
}

TEST(CliTables, OfTop)
{
    using O = cli::TopOptions;
    expect_rows<O>(cli::kTop, {{"recursive", nullptr, [](const O &o) { return o.recursive; }},
                               {"events", "create", [](const O &o) { return o.events == FMON_CREATE; }},
                               {"pid", nullptr, [](const O &o) { return o.pid; }},
                               {"mount", nullptr, [](const O &o) { return o.mount; }},
                               {"wait", nullptr, [](const O &o) { return o.wait; }},
                               {"max-depth", "3", [](const O &o) { return o.max_depth == 3; }},
                               {"max-subdirs", "9", [](const O &o) { return o.max_subdirs == 9; }},
                               {"system", nullptr, [](const O &o) { return o.system; }},
                               {"include", "a", [](const O &o) { return o.include == Strings{"a"}; }},
                               {"exclude", "a", [](const O &o) { return o.exclude == Strings{"a"}; }},
                               {"by", "processes", [](const O &o) { return o.by == cli::By::kProcess; }},
                               {"sort", "latest", [](const O &o) { return o.sort == cli::Sort::kLatest; }},
                               {"interval", "0.5", [](const O &o) { return o.interval_ms == 500; }},
                               {"batch", nullptr, [](const O &o) { return o.batch; }},
                               {"count", "5", [](const O &o) { return o.tables == 5; }},
                               {"rows", "3", [](const O &o) { return o.rows == 3; }},
                               {"keep-going", nullptr, [](const O &o) { return o.keep_going; }},
                               {"set", "rate_limit=7", [](const O &o) { return o.settings.size() == 1; }},
                               {"source", "marks", [](const O &o) { return o.source == agent::Source::kMarks; }},
                               {"probes", "off", [](const O &o) { return o.probes == agent::Probes::kOff; }},
                               {"help", nullptr, [](const O &o) { return o.help; }}});
}

TEST(CliTables, TopNeedsNoPath)
{
    using cli::kTop;
    EXPECT_TRUE(parse(kTop, {}).ok);
    EXPECT_TRUE(parse(kTop, {"-r", "/a"}).ok);
    EXPECT_NE("", parse(kTop, {"-r"}).error);
    EXPECT_NE("", parse(kTop, {"--system", "/a"}).error);
    EXPECT_EQ("--count is about plain tables: add --batch", parse(kTop, {"-n", "2", "/a"}).error);
    EXPECT_TRUE(parse(kTop, {"-b", "-n", "2", "/a"}).ok);
    EXPECT_EQ("--interval takes seconds, 0.1 or more, not '0'", parse(kTop, {"-d", "0", "/a"}).error);
    EXPECT_TRUE(parse(kTop, {"-e", "help"}).options.list_events);
}

TEST(CliTables, OfStats)
{
    using O = cli::StatsOptions;
    expect_rows<O>(cli::kStats, {{"socket", "/s", [](const O &o) { return o.socket == "/s"; }},
                                 {"format", "json", [](const O &o) { return o.form == cli::StatsForm::kJson; }},
                                 {"help", nullptr, [](const O &o) { return o.help; }}});
    EXPECT_EQ("fmon stats takes no argument, not 'x'", parse(cli::kStats, {"x"}).error);
}

TEST(CliTables, OfDump)
{
    using O = cli::DumpOptions;
    expect_rows<O>(cli::kDump, {{"type", "events", [](const O &o) { return o.request.type == 4; }},
                                {"hold", "0.25", [](const O &o) { return o.request.hold_ms == 250; }},
                                {"help", nullptr, [](const O &o) { return o.help; }}});
}

TEST(CliTables, OfDoctor)
{
    using O = cli::DoctorOptions;
    expect_rows<O>(cli::kDoctor, {{"format", "json", [](const O &o) { return o.json; }},
                                  {"help", nullptr, [](const O &o) { return o.help; }}});
}

TEST(CliTables, OfOffsets)
{
    using O = cli::OffsetsOptions;
    expect_rows<O>(cli::kOffsets, {{"release", "6.1.0-1", [](const O &o) { return o.release == "6.1.0-1"; }},
                                   {"format", "json", [](const O &o) { return o.json; }},
                                   {"help", nullptr, [](const O &o) { return o.help; }}});
}

TEST(CliTables, OfRun)
{
    using O = cli::RunOptions;
    expect_rows<O>(cli::kRun, {{"config", "/x.toml", [](const O &o) { return o.config == "/x.toml"; }},
                               {"check", nullptr, [](const O &o) { return o.check; }},
                               {"help", nullptr, [](const O &o) { return o.help; }}});
    EXPECT_EQ("fmon run takes no argument: name the configuration with --config FILE", parse(cli::kRun, {"x"}).error);
}

TEST(CliTables, ChoicesReachEachOfTheirValues)
{
    using cli::kWatch;
    EXPECT_EQ(agent::Probes::kAuto, parse(kWatch, {"--probes=off", "--probes=auto"}).options.probes);
    EXPECT_EQ(agent::Probes::kOn, parse(kWatch, {"--probes=on"}).options.probes);
    EXPECT_EQ(agent::Source::kAuto, parse(kWatch, {"--source=marks", "--source=auto"}).options.source);
    EXPECT_EQ(agent::Source::kFilesystem, parse(kWatch, {"--source=filesystem"}).options.source);
    EXPECT_FALSE(parse(kWatch, {"--log=stderr", "--log=file"}).options.log_to_stderr);
    EXPECT_EQ("text", parse(kWatch, {"-fcsv", "-ftext"}).options.format);
    EXPECT_EQ("json", parse(kWatch, {"-fjson"}).options.format);
    EXPECT_FALSE(parse(cli::kDoctor, {"-fjson", "-ftext"}).options.json);
    EXPECT_FALSE(parse(cli::kOffsets, {"-fjson", "-ftext"}).options.json);
}

TEST(CliTables, LettersAndNamesAreUnique)
{
    for (const cli::Verb *verb : cli::verbs()) {
        std::set<std::string> names;
        for (const cli::Option &option : verb->options()) {
            EXPECT_TRUE(names.insert(option.name).second) << option.name;
            EXPECT_TRUE(!option.letter || names.insert(std::string(1, option.letter)).second) << option.letter;
        }
    }
}

/* "  fmon VERB WORD 'two words'   what it is for" in the verb's help text: the words, up to a pipe or a file. */
std::vector<Strings> examples_of(const cli::Verb &verb)
{
    std::vector<Strings> all;
    std::istringstream tail(verb.text().tail);
    const std::string begin = std::string("  fmon ") + verb.text().name;
    for (std::string line; std::getline(tail, line);) {
        if (!line.starts_with(begin))
            continue;
        const std::string command = line.substr(begin.size(), line.find("  ", begin.size()) - begin.size());
        Strings words;
        std::istringstream text(command.substr(0, command.find_first_of("|>")));
        for (std::string word; text >> std::quoted(word, '\'');)
            words.push_back(word);
        all.push_back(words);
    }
    return all;
}

TEST(CliTables, ExamplesOfHelpAreUnderstood)
{
    const auto expect_understood = [](const auto &verb) {
        EXPECT_FALSE(examples_of(verb).empty()) << verb.text().name;
        for (const Strings &words : examples_of(verb)) {
            const auto parsed = parse(verb, words);
            EXPECT_TRUE(parsed.ok) << verb.text().name << ": " << parsed.error;
        }
    };
    expect_understood(cli::kWatch);
    expect_understood(cli::kTop);
    expect_understood(cli::kStats);
    expect_understood(cli::kDump);
    expect_understood(cli::kDoctor);
    expect_understood(cli::kOffsets);
}

TEST(CliTables, HelpShowsEachRow)
{
    for (const cli::Verb *verb : cli::verbs())
        for (const cli::Option &option : verb->options()) {
            const std::string help = verb->help(),
                              first = std::string(option.help).substr(0, strcspn(option.help, "\n")),
                              names = (option.letter ? std::string("  -") + option.letter + ", --" : "      --") +
                                      option.name + (option.argument ? std::string(" ") + option.argument : "") + "  ";
            const size_t row = help.find("\n" + names);
            ASSERT_NE(row, std::string::npos) << names;
            EXPECT_EQ(first, help.substr(row + 27, first.size()));
        }
}

TEST(CliTables, HelpFitsTheScreen)
{
    for (const cli::Verb *verb : cli::verbs()) {
        std::istringstream lines(verb->help());
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), 127u) << line;
        EXPECT_NE(verb->help().find("\nExamples:\n"), std::string::npos);
        EXPECT_NE(verb->help().find("\nStatus: "), std::string::npos);
    }
}
