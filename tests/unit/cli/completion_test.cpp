/* The completion of each shell: what its tables say, and where the shell is installed, what it makes of them. */
#include "cli/front/completion.h"

#include "agent/event_names.h"
#include "agent/settings.h"
#include "cli/front/verbs.h"
#include "source_tree.h"
#include "testlib/tree.h"
#include "unit/agent/agent_testing.h"

namespace
{

std::string script(const std::string &shell)
{
    return cli::completion_script(shell, cli_testing::text_of("packaging/completion/fmon." + shell));
}

bool is_installed(const std::string &shell)
{
    return system(("command -v " + shell + " >/dev/null 2>&1").c_str()) == 0;
}

/* What a command writes, its lines joined by blanks. */
std::string output_of(const std::string &command)
{
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    for (int c; pipe && (c = fgetc(pipe)) != EOF;)
        text += c == '\n' ? ' ' : static_cast<char>(c);
    EXPECT_TRUE(pipe && pclose(pipe) == 0) << command << ": " << text;
    text.resize(text.find_last_not_of(' ') + 1);
    return text;
}

std::string long_names(const std::vector<cli::Option> &options)
{
    std::string names;
    for (const cli::Option &option : options)
        names += (names.empty() ? "--" : " --") + std::string(option.name);
    return names;
}

class Completion : public testing::Test
{
protected:
    agent_testing::Directory directory;
};

/* bash with the completion. */
class BashCompletion : public Completion
{
protected:
    BashCompletion()
    {
        directory.file("bash.script", script("bash") +
                                          "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _fmon\n"
                                          "echo \"${COMPREPLY[*]}\"\n");
    }

    /* What the words, the last of them unfinished, are completed to. */
    std::string replies(const std::string &words) const
    {
        return output_of("bash " + directory.path("bash.script") + " " + words);
    }
};

/* fish with the completion; the words are one text. */
class FishCompletion : public Completion
{
protected:
    FishCompletion()
    {
        directory.file("fish.script",
                       script("fish") + "complete -C \"$argv\" | string replace -r '\\t.*' ''; or true\n");
    }

    std::string replies(const std::string &words) const
    {
        return output_of("HOME=" + directory.root() + " fish --no-config " + directory.path("fish.script") + " '" +
                         words + "'");
    }
};

/* zsh, where what _arguments gets is shown instead of completed. */
class ZshCompletion : public Completion
{
protected:
    std::string specs(const std::string &verb) const
    {
        directory.file("zsh.script", "_arguments() { :; }\n" + script("zsh") + "_fmon_verb_table " + verb +
                                         "\nprint -rl -- $specs\n");
        return output_of("zsh -f " + directory.path("zsh.script"));
    }
};

}  // namespace

TEST_F(BashCompletion, Verbs)
{
    std::string all;
    for (const cli::Verb *verb : cli::verbs())
        all += std::string(verb->text().name) + " ";
    EXPECT_EQ(all + "help", replies("fmon ''"));
    EXPECT_EQ("watch", replies("fmon wat"));
    EXPECT_EQ("watch", replies("fmon help wat"));
    EXPECT_EQ("--version", replies("fmon --v"));
}

TEST_F(BashCompletion, EveryOptionOfEachVerb)
{
    for (const cli::Verb *verb : cli::verbs())
        EXPECT_EQ(long_names(verb->options()), replies(std::string("fmon ") + verb->text().name + " --"));
    EXPECT_EQ("--recursive", replies("fmon watch /tmp --rec"));
}

TEST_F(BashCompletion, EveryEvent)
{
    EXPECT_EQ(cli::names_of(agent::kEventTable), replies("fmon watch -e ''"));
    EXPECT_EQ("moved_from moved_to", replies("fmon watch --events moved_"));
    EXPECT_EQ("moved_from moved_to", replies("fmon watch --events = moved_"));
    EXPECT_EQ("create,attrib", replies("fmon watch -e create,att"));
}

TEST_F(BashCompletion, Values)
{
    EXPECT_EQ("text json csv ecs ocsf", replies("fmon watch --format ''"));
    EXPECT_EQ("on off", replies("fmon watch --probes o"));
    EXPECT_EQ("auto marks filesystem", replies("fmon watch --source ''"));
    EXPECT_EQ("stderr", replies("fmon watch --log s"));
    std::string all;
    for (const agent::Setting &setting : agent::kSettingTable)
        all += (all.empty() ? "" : " ") + std::string(setting.name) + "=";
    EXPECT_EQ(all, replies("fmon watch --set ''"));
}

TEST_F(BashCompletion, Dump)
{
    EXPECT_EQ("--type --hold --help", replies("fmon dump --"));
    EXPECT_EQ("all instances waiting dentries events backend files losses", replies("fmon dump -t ''"));
    EXPECT_EQ("waiting", replies("fmon dump --type = wa"));
    EXPECT_EQ("", replies("fmon dump --hold ''"));
    EXPECT_EQ("", replies("fmon dump nothing"));
}

TEST_F(BashCompletion, DoctorAndOffsets)
{
    EXPECT_EQ("--format --help", replies("fmon doctor --"));
    EXPECT_EQ("text json", replies("fmon doctor -f ''"));
    EXPECT_EQ("", replies("fmon doctor bas"));
    EXPECT_EQ("--release --format --help", replies("fmon offsets --"));
    EXPECT_EQ("json", replies("fmon offsets --format = j"));
    EXPECT_EQ("", replies("fmon offsets --release ''"));
    EXPECT_EQ(directory.path("bash.script"), replies("fmon offsets " + directory.path("bas")));
}

TEST_F(BashCompletion, Top)
{
    EXPECT_EQ("files directories processes containers", replies("fmon top --by ''"));
    EXPECT_EQ("rate total latest name", replies("fmon top -s ''"));
    EXPECT_EQ("auto marks filesystem", replies("fmon top --source ''"));
    EXPECT_EQ(directory.path("bash.script"), replies("fmon top -r " + directory.path("bas")));
}

TEST_F(BashCompletion, Files)
{
    EXPECT_EQ(directory.path("bash.script"), replies("fmon watch " + directory.path("bas")));
    EXPECT_EQ(directory.path("bash.script"), replies("fmon watch -o " + directory.path("bas")));
    directory.dir("left");
    EXPECT_EQ("@" + directory.path("left") + "/", replies("fmon watch @" + directory.path("le")));
    EXPECT_EQ("@" + directory.path("left") + "/", replies("fmon top @" + directory.path("")));
    EXPECT_EQ("", replies("fmon watch -o @" + directory.path("le")));
    EXPECT_EQ("", replies("fmon watch -n ''"));
}

TEST_F(FishCompletion, CompletesAsBashDoes)
{
    NEED(is_installed("fish"), "fish is not installed");
    EXPECT_EQ("doctor dump help offsets run stats top watch", replies("fmon "));
    EXPECT_EQ("watch", replies("fmon help wat"));
    EXPECT_EQ("--version", replies("fmon --v"));
    EXPECT_EQ("--recursive", replies("fmon watch /tmp --rec"));
    EXPECT_EQ("--help --hold --type", replies("fmon dump --"));
    EXPECT_EQ("create,attrib", replies("fmon watch -e create,att"));
    EXPECT_EQ("--events=create,attrib", replies("fmon watch --events=create,att"));
    EXPECT_EQ("off on", replies("fmon watch --probes o"));
    EXPECT_EQ("max_events=", replies("fmon watch --set max_e"));
    EXPECT_EQ("json text", replies("fmon doctor -f "));
    EXPECT_EQ("", replies("fmon doctor "));
    EXPECT_EQ(directory.path("fish.script"), replies("fmon offsets " + directory.path("fis")));
    EXPECT_EQ(directory.path("fish.script"), replies("fmon watch -o " + directory.path("fis")));
    EXPECT_EQ(directory.path("fish.script"), replies("fmon watch " + directory.path("fis")));
    directory.dir("left");
    EXPECT_EQ("@" + directory.path("left") + "/", replies("fmon watch @" + directory.path("le")));
}

TEST_F(ZshCompletion, HandsTheTablesOn)
{
    NEED(is_installed("zsh"), "zsh is not installed");
    EXPECT_EQ(
        "*-f+[text (default) or json\\: one object a line]:FORM: _fmon_words text json "
        "*--format=[text (default) or json\\: one object a line]:FORM: _fmon_words text json "
        "(-h --help)-h[this text] (-h --help)--help[this text]",
        specs("doctor"));
    EXPECT_NE(specs("watch").find("*:argument: _fmon_paths"), std::string::npos);
    EXPECT_NE(specs("dump").find("*--hold=[let events gather in the monitor for S seconds first (at most 60)]:S: "),
              std::string::npos);
}

/* Whatever shells the machine has. */
TEST(CompletionTables, HaveEachOptionOfEachVerb)
{
    const std::string fish = cli::fish_tables(), zsh = cli::zsh_tables();
    for (const cli::Verb *verb : cli::verbs()) {
        const std::string name = verb->text().name;
        const size_t begin = zsh.find("    " + name + ")\n"), end = zsh.find(";;", begin);
        for (const cli::Option &option : verb->options()) {
            const std::string letter = option.letter ? std::string(" -s ") + option.letter : "";
            EXPECT_NE(fish.find("-n '__fmon_has_verb " + name + "'" + letter + " -l " + option.name + " "),
                      std::string::npos)
                << option.name;
            const size_t place = zsh.find(std::string("--") + option.name + (option.argument ? "=" : ""), begin);
            EXPECT_LT(place, end) << option.name;
        }
    }
}

TEST(CompletionTables, DescribeOptionsInOneLine)
{
    EXPECT_EQ("in two lines", cli::summary("in\ntwo lines; and more"));
    EXPECT_EQ("a sentence", cli::summary("a sentence. Another"));
    EXPECT_EQ("short: with a list, of words", cli::summary("short: with a list, of words"));
    EXPECT_EQ("a list", cli::summary("a list: " + std::string(80, 'x')));
    EXPECT_EQ("clauses, " + std::string(60, 'x'),
              cli::summary("clauses, " + std::string(60, 'x') + ", " + std::string(60, 'x')));
    for (const cli::Verb *verb : cli::verbs())
        for (const cli::Option &option : verb->options()) {
            EXPECT_LE(cli::summary(option.help).size(), 90u) << option.name;
            EXPECT_EQ(std::string::npos, cli::summary(option.help).find('\n'));
        }
}

TEST(CompletionTables, NeedAPlaceInTheScript)
{
    EXPECT_EQ("a\n" + cli::bash_tables() + "b\n", cli::completion_script("bash", "a\n@TABLES@\nb\n"));
    EXPECT_EQ("", cli::completion_script("bash", "a\nb\n"));
    EXPECT_EQ("", cli::completion_script("csh", "@TABLES@\n"));
}
