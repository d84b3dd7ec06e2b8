/* Tests of option_parser.h: the edges of command lines, for each verb alike. */

#include "cli/front/option_parser.h"

#include <gtest/gtest.h>

#include "cli/front/verbs.h"
#include "parse.h"

namespace
{

using Strings = std::vector<std::string>;

/* What the parser finds in the arguments of a verb: each option as "name" or "name=value". */
struct Reading {
    Strings taken, arguments;
    std::string error;
};

Reading read(const cli::Verb &verb, const Strings &words)
{
    cli_testing::Argv argv(verb.text().name, words);
    const std::vector<cli::Option> options = verb.options();
    Reading reading;
    const auto take = [&](size_t row, const char *value) {
        reading.taken.push_back(options[row].name + (value ? std::string("=") + value : ""));
        return true;
    };
    const cli::CommandLine line = {verb.text().name, verb.text().wording, argv.count(), argv.words()};
    const int first = cli::parse_options(line, options, take, reading.error);
    EXPECT_EQ(first > 0, reading.error.empty()) << reading.error;
    if (first > 0)
        reading.arguments.assign(argv.words() + first, argv.words() + argv.count());
    return reading;
}

Strings taken(const cli::Verb &verb, const Strings &words)
{
    const Reading reading = read(verb, words);
    EXPECT_EQ("", reading.error);
    return reading.taken;
}

std::string dashed(const cli::Option &option) { return std::string("--") + option.name; }

std::string letter(const cli::Option &option) { return std::string("-") + option.letter; }

/* Each verb with each of its options; flags and options with a value have cases of their own. */
struct Case {
    const cli::Verb *verb;
    cli::Option option;
};

std::vector<Case> cases(bool with_value)
{
    std::vector<Case> cases;
    for (const cli::Verb *verb : cli::verbs())
        for (const cli::Option &option : verb->options())
            if (with_value == (option.argument != nullptr))
                cases.push_back({verb, option});
    return cases;
}

/* The name that "--START" stands for; empty when none does, or several do. */
std::string name_beginning_with(const cli::Verb &verb, const std::string &start)
{
    std::string found;
    int count = 0;
    for (const cli::Option &option : verb.options()) {
        if (start == option.name)
            return start;
        if (std::string_view(option.name).substr(0, start.size()) == start) {
            found = option.name;
            count++;
        }
    }
    return count == 1 ? found : "";
}

std::string unknown(const cli::Verb &verb, const std::string &word, bool is_letter)
{
    const bool in_full = verb.text().wording == cli::Wording::kFull && !is_letter;
    return std::string("unknown ") + (in_full ? "or ambiguous " : "") + "option '" + word + "': see fmon " +
           verb.text().name + " --help";
}

}  // namespace

TEST(CliParser, FlagsByNameAndLetter)
{
    for (const auto &[verb, option] : cases(false)) {
        EXPECT_EQ(Strings{option.name}, taken(*verb, {dashed(option)}));
        if (option.letter) {
            EXPECT_EQ(Strings{option.name}, taken(*verb, {letter(option)}));
            EXPECT_EQ((Strings{option.name, option.name}), taken(*verb, {letter(option) + option.letter}));
        }
    }
}

TEST(CliParser, ValuesBehindNames)
{
    for (const auto &[verb, option] : cases(true)) {
        EXPECT_EQ(Strings{option.name + std::string("=x=y")}, taken(*verb, {dashed(option) + "=x=y"}));
        EXPECT_EQ(Strings{option.name + std::string("=-x")}, taken(*verb, {dashed(option), "-x"}));
        EXPECT_EQ(Strings{option.name + std::string("=--")}, taken(*verb, {dashed(option), "--"}));
        EXPECT_EQ(Strings{option.name + std::string("=")}, taken(*verb, {dashed(option) + "="}));
        EXPECT_EQ(Strings{option.name + std::string("=")}, taken(*verb, {dashed(option), ""}));
    }
}

TEST(CliParser, ValuesBehindLetters)
{
    for (const auto &[verb, option] : cases(true)) {
        if (!option.letter)
            continue;
        EXPECT_EQ(Strings{option.name + std::string("=x")}, taken(*verb, {letter(option), "x"}));
        EXPECT_EQ(Strings{option.name + std::string("=x")}, taken(*verb, {letter(option) + "x"}));
        EXPECT_EQ(Strings{option.name + std::string("==x")}, taken(*verb, {letter(option) + "=x"}));
        EXPECT_EQ((Strings{"help", option.name + std::string("=h")}),
                  taken(*verb, {"-h" + letter(option).substr(1) + "h"}));
    }
}

TEST(CliParser, ValuesThatAreMissing)
{
    for (const auto &[verb, option] : cases(true)) {
        const bool in_full = verb->text().wording == cli::Wording::kFull;
        const std::string wanted =
            dashed(option) + " needs a value" + (in_full ? std::string(": ") + option.argument : "");
        EXPECT_EQ(wanted, read(*verb, {dashed(option)}).error);
        if (option.letter) {
            EXPECT_EQ(wanted, read(*verb, {"-h" + letter(option).substr(1)}).error);
        }
    }
}

TEST(CliParser, ValuesThatNobodyTakes)
{
    for (const auto &[verb, option] : cases(false))
        EXPECT_EQ(dashed(option) + " takes no value", read(*verb, {dashed(option) + "=1"}).error);
}

TEST(CliParser, UnknownOptions)
{
    for (const cli::Verb *verb : cli::verbs()) {
        EXPECT_EQ(unknown(*verb, "--nothing", false), read(*verb, {"--nothing"}).error);
        EXPECT_EQ(unknown(*verb, "--nothing=1", false), read(*verb, {"x", "--nothing=1", "y"}).error);
        EXPECT_EQ(unknown(*verb, "-Z", true), read(*verb, {"-Z"}).error);
        EXPECT_EQ(unknown(*verb, "-Z", true), read(*verb, {"-hZh"}).error);
    }
}

TEST(CliParser, NamesCutShort)
{
    int ambiguous = 0;
    for (const auto &[verb, option] : cases(true))
        for (std::string start = option.name; !start.empty(); start.pop_back()) {
            const std::string name = name_beginning_with(*verb, start), word = "--" + start + "=x";
            const Reading reading = read(*verb, {word});
            ambiguous += name.empty();
            EXPECT_EQ(name.empty() ? Strings{} : Strings{name + "=x"}, reading.taken) << word;
            EXPECT_EQ(name.empty() ? unknown(*verb, word, false) : "", reading.error);
        }
    EXPECT_GT(ambiguous, 5);
}

TEST(CliParser, AWholeNameWinsOverLongerOnes)
{
    EXPECT_EQ(Strings{"log=file"}, taken(cli::kWatch, {"--log=file"}));
    EXPECT_EQ(Strings{"log-level=2"}, taken(cli::kWatch, {"--log-=2"}));
    EXPECT_EQ(unknown(cli::kWatch, "--lo", false), read(cli::kWatch, {"--lo", "file"}).error);
}

TEST(CliParser, ArgumentsAmongOptions)
{
    for (const cli::Verb *verb : cli::verbs()) {
        const Reading mixed = read(*verb, {"a", "-h", "-", "--help", "", "b"});
        EXPECT_EQ((Strings{"help", "help"}), mixed.taken);
        EXPECT_EQ((Strings{"a", "-", "", "b"}), mixed.arguments);
        const Reading ended = read(*verb, {"a", "-h", "--", "--help", "--", "-Z"});
        EXPECT_EQ(Strings{"help"}, ended.taken);
        EXPECT_EQ((Strings{"a", "--help", "--", "-Z"}), ended.arguments);
        EXPECT_EQ(Strings{}, read(*verb, {}).arguments);
    }
}

TEST(CliParser, ArgumentsEndTheOptionsByPosix)
{
    setenv("POSIXLY_CORRECT", "1", 1);
    for (const cli::Verb *verb : cli::verbs()) {
        const Reading reading = read(*verb, {"-h", "a", "--help"});
        EXPECT_EQ(Strings{"help"}, reading.taken);
        EXPECT_EQ((Strings{"a", "--help"}), reading.arguments);
    }
    unsetenv("POSIXLY_CORRECT");
}

TEST(CliParser, StopsAtWhatIsRefused)
{
    for (const cli::Verb *verb : cli::verbs()) {
        cli_testing::Argv argv(verb->text().name, {"-h", "-h", "a"});
        int asked = 0;
        std::string error;
        const auto refuse = [&](size_t, const char *) {
            asked++;
            return false;
        };
        const cli::CommandLine line = {verb->text().name, verb->text().wording, argv.count(), argv.words()};
        EXPECT_EQ(0, cli::parse_options(line, verb->options(), refuse, error));
        EXPECT_EQ(1, asked);
    }
}

TEST(CliParser, NumbersAndSeconds)
{
    uint64_t number = 0;
    EXPECT_TRUE(cli::parse_number("7", 7, 7, number));
    EXPECT_EQ(7u, number);
    for (const char *bad : {"", "6", "8", "+7", " 7", "7 ", "7.0", "0x7", "-7", "18446744073709551623"})
        EXPECT_FALSE(cli::parse_number(bad, 7, 7, number)) << bad;
    EXPECT_TRUE(cli::parse_seconds("0.0015", 0.001, 2, number));
    EXPECT_EQ(2u, number);
    for (const char *bad : {"", "0", "0.0009", "2.001", "nan", "inf", "1s", "1e0", "-1", "0x1"})
        EXPECT_FALSE(cli::parse_seconds(bad, 0.001, 2, number)) << bad;
}

TEST(CliParser, Words)
{
    const cli::Words words = cli::one_of("text json csv");
    EXPECT_EQ(0, cli::find_word(words, "text"));
    EXPECT_EQ(2, cli::find_word(words, "csv"));
    for (const char *other : {"", " ", "tex", "texts", "text json", "sv"})
        EXPECT_EQ(-1, cli::find_word(words, other)) << other;
    EXPECT_EQ(-1, cli::find_word({}, ""));
    const cli::Option option = {'f', "form", "FORM", "", words};
    std::string error;
    EXPECT_EQ(1, cli::parse_choice({option, "json"}, error));
    EXPECT_EQ("", error);
    EXPECT_EQ(-1, cli::parse_choice({option, "xml"}, error));
    EXPECT_EQ("--form takes text, json or csv, not 'xml'", error);
}
