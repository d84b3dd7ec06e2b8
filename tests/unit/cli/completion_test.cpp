/* Tests of completion and manual pages against the tables of options. */

#include <sstream>

#include "agent/event_names.h"
#include "agent/settings.h"
#include "cli/doctor/doctor_options.h"
#include "cli/dump/dump_options.h"
#include "cli/offsets/offsets_options.h"
#include "cli/front/verbs.h"
#include "cli/watch/options.h"
#include "unit/agent/agent_testing.h"

namespace
{

std::filesystem::path in_source(const char *path) { return std::filesystem::path(FMON_TEST_SOURCE) / path; }

std::string content(const std::filesystem::path &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/* bash with the completion, and in place of the program a function that prints its texts. */
class Completion : public testing::Test
{
protected:
    Completion()
    {
        folder.file("main", cli::main_help());
        folder.file("watch", cli::kWatch.help());
        folder.file("dump", cli::kDump.help());
        folder.file("doctor", cli::kDoctor.help());
        folder.file("offsets", cli::kOffsets.help());
        folder.file("events", cli::event_list());
        folder.file("script",
                    "source " + in_source("packaging/completion/fmon").string() +
                        "\n"
                        "cd " +
                        folder.root() +
                        "\n"
                        "fmon() { case \"$*\" in --help) cat main ;; 'watch --help') cat watch ;;\n"
                        "'watch -e help') cat events ;; 'dump --help') cat dump ;;\n"
                        "'doctor --help') cat doctor ;; 'offsets --help') cat offsets ;; *) return 2 ;; esac; }\n"
                        "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _fmon; echo \"${COMPREPLY[*]}\"\n");
    }

    /* What the words, the last of them unfinished, are completed to. */
    std::string replies(const std::string &words) const
    {
        const std::string command = "bash " + folder.path("script") + " " + words + " 2>&1";
        FILE *pipe = popen(command.c_str(), "r");
        char line[4096] = {};
        const bool got = pipe && fgets(line, sizeof line, pipe);
        EXPECT_TRUE(pipe && pclose(pipe) == 0 && got) << words << ": " << line;
        std::string text = line;
        text.resize(text.find_last_not_of('\n') + 1);
        return text;
    }

    agent_testing::Folder folder;
};

}  // namespace

TEST_F(Completion, Verbs)
{
    std::string all;
    for (const cli::Verb *verb : cli::verbs())
        all += std::string(verb->text().name) + " ";
    EXPECT_EQ(replies("fmon ''"), all + "help");
    EXPECT_EQ("watch", replies("fmon wat"));
    EXPECT_EQ("watch", replies("fmon help wat"));
    EXPECT_EQ("--version", replies("fmon --v"));
}

TEST_F(Completion, EveryOptionOfWatch)
{
    std::string all;
    for (const cli::Option &row : cli::kWatch.options())
        all += (all.empty() ? "--" : " --") + std::string(row.name);
    EXPECT_EQ(replies("fmon watch --"), all);
    EXPECT_EQ("--recursive", replies("fmon watch /tmp --rec"));
}

TEST_F(Completion, EveryEvent)
{
    std::string all;
    for (const agent::EventName &row : agent::kEventTable)
        all += (all.empty() ? "" : " ") + std::string(row.name);
    EXPECT_EQ(replies("fmon watch -e ''"), all);
    EXPECT_EQ("moved_from moved_to", replies("fmon watch --events moved_"));
    EXPECT_EQ("moved_from moved_to", replies("fmon watch --events = moved_"));
    EXPECT_EQ("create,attrib", replies("fmon watch -e create,att"));
}

TEST_F(Completion, Values)
{
    EXPECT_EQ("text json csv", replies("fmon watch --format ''"));
    EXPECT_EQ("on off", replies("fmon watch --probes o"));
    EXPECT_EQ("stderr", replies("fmon watch --log s"));
    std::string all;
    for (const agent::Setting &setting : agent::kSettingTable)
        all += (all.empty() ? "" : " ") + std::string(setting.name) + "=";
    EXPECT_EQ(replies("fmon watch --set ''"), all);
}

TEST_F(Completion, Dump)
{
    EXPECT_EQ("--type --hold --help", replies("fmon dump --"));
    EXPECT_EQ("all instances waiting dentries events backend files losses", replies("fmon dump -t ''"));
    EXPECT_EQ("waiting", replies("fmon dump --type = wa"));
    EXPECT_EQ("", replies("fmon dump --hold ''"));
    EXPECT_EQ("", replies("fmon dump nothing"));
}

TEST_F(Completion, DoctorAndOffsets)
{
    EXPECT_EQ("--format --help", replies("fmon doctor --"));
    EXPECT_EQ("text json", replies("fmon doctor -f ''"));
    EXPECT_EQ("", replies("fmon doctor scr"));
    EXPECT_EQ("--release --format --help", replies("fmon offsets --"));
    EXPECT_EQ("json", replies("fmon offsets --format = j"));
    EXPECT_EQ("", replies("fmon offsets --release ''"));
    EXPECT_EQ(replies("fmon offsets " + folder.path("scr")), folder.path("script"));
}

TEST_F(Completion, Files)
{
    EXPECT_EQ(replies("fmon watch " + folder.path("scr")), folder.path("script"));
    EXPECT_EQ(replies("fmon watch -o " + folder.path("scr")), folder.path("script"));
    EXPECT_EQ("", replies("fmon watch -n ''"));
}
