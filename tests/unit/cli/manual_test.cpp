/* The manual pages against the tables of the verbs: nothing is missing in a page, and nothing in a page is made up. */
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "agent/dump_protocol.h"
#include "agent/event_names.h"
#include "agent/settings.h"
#include "cli/front/verbs.h"
#include "source_tree.h"

namespace
{

using cli_testing::lines_of;
using Strings = std::vector<std::string>;

std::string page_of(const char *verb) { return std::string("docs/fmon") + (*verb ? "-" : "") + verb + ".1"; }

/* The lines of a page that begin so. */
Strings lines_with(const std::string &page, const std::string &start)
{
    Strings found;
    for (const std::string &line : lines_of(page))
        if (line.substr(0, start.size()) == start)
            found.push_back(line);
    return found;
}

std::string lower(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(tolower(c));
    return text;
}

/* An option's argument as mdoc has it: "KEY=N" is "key Ns = Ns Ar n". */
std::string argument(const cli::Option &option)
{
    if (!option.argument)
        return "";
    std::string text = lower(option.argument);
    const size_t equals = text.find('=');
    if (equals != std::string::npos)
        text.replace(equals, 1, " Ns = Ns Ar ");
    return " Ar " + text;
}

std::string heading(const cli::Option &option)
{
    return ".It " + (option.letter ? std::string("Fl ") + option.letter + " , " : "") + "Fl Fl " + option.name +
           argument(option);
}

/* Each option that a page names anywhere, as "-x" or "--name". */
std::set<std::string> named_options(const std::string &page)
{
    std::set<std::string> names;
    for (const std::string &line : lines_of(page)) {
        std::istringstream words(line[0] == '.' ? line : "");
        for (std::string word; words >> word;) {
            if (word == "Fl" || word == ".Fl") {
                words >> word;
                const bool is_long = word == "Fl";
                if (is_long)
                    words >> word;
                names.insert((is_long ? "--" : "-") + word);
            } else if (word.size() > 2 && word.substr(0, 2) == "--") {
                names.insert(word.substr(0, word.find('=')));
            }
        }
    }
    return names;
}

std::set<std::string> names_of(const std::vector<cli::Option> &options)
{
    std::set<std::string> names;
    for (const cli::Option &option : options) {
        names.insert(std::string("--") + option.name);
        if (option.letter)
            names.insert(std::string("-") + option.letter);
    }
    return names;
}

}  // namespace

TEST(CliManual, EachPageHasTheOptionsOfItsTableInTheSameOrder)
{
    for (const cli::Verb *verb : cli::verbs()) {
        Strings headings;
        for (const cli::Option &option : verb->options())
            headings.push_back(heading(option));
        EXPECT_EQ(headings, lines_with(page_of(verb->text().name), ".It Fl ")) << verb->text().name;
    }
}

TEST(CliManual, NoPageNamesAnOptionThatIsUnknown)
{
    for (const cli::Verb *verb : cli::verbs()) {
        const std::set<std::string> known = names_of(verb->options()),
                                    named = named_options(page_of(verb->text().name));
        EXPECT_GE(named.size(), known.size());
        for (const std::string &name : named)
            EXPECT_EQ(1u, known.count(name)) << verb->text().name << " " << name;
    }
    const std::set<std::string> known = names_of(cli::main_options());
    for (const std::string &name : named_options(page_of("")))
        EXPECT_EQ(1u, known.count(name)) << name;
}

TEST(CliManual, NamesEachVerb)
{
    Strings verbs, see_also;
    for (const cli::Verb *verb : cli::verbs())
        verbs.push_back(std::string(".It Cm ") + verb->text().name);
    EXPECT_EQ(verbs, lines_with(page_of(""), ".It Cm "));
    for (const cli::Verb *verb : cli::verbs())
        EXPECT_EQ(Strings{std::string(".Nm fmon-") + verb->text().name},
                  lines_with(page_of(verb->text().name), ".Nm fmon-"));
}

TEST(CliManual, NamesEachEventAndSetting)
{
    const Strings kinds = lines_with(page_of("watch"), ".It Cm "), keys = lines_with(page_of("watch"), ".Cm ");
    for (const agent::EventName &row : agent::kEventTable)
        EXPECT_EQ(1, std::count(kinds.begin(), kinds.end(), std::string(".It Cm ") + row.name)) << row.name;
    for (const agent::Setting &setting : agent::kSettingTable)
        EXPECT_GE(std::count_if(keys.begin(), keys.end(),
                                [&](const std::string &line) { return line.find(setting.name) == 4; }),
                  1)
            << setting.name;
}

TEST(CliManual, NamesEachTypeOfDump)
{
    Strings types;
    for (const agent::DumpType &type : agent::kDumpTypeTable)
        types.push_back(std::string(".It Cm ") + type.name);
    EXPECT_EQ(types, lines_with(page_of("dump"), ".It Cm "));
}
