/* What forms say of the file itself: JSON and templates; those of others are in format_schemas_test.cpp. */
#include "output/file_facts.h"

#include <sys/sysmacros.h>

#include "orx_fmon.h"
#include "output/formats.h"
#include "unit/agent/agent_testing.h"

using namespace output;
using agent_testing::event_of;

namespace
{

class FileFacts : public testing::Test
{
protected:
    FileFacts()
    {
        file.dev = makedev(8, 1);
        file.ino = 7;
        file.gid = 3;
        event.file = &file;
        style.stat = true;
    }
    std::unique_ptr<Formatter> form(const std::string &format)
    {
        std::string error;
        std::unique_ptr<Formatter> made = make_formatter(format, style, error);
        EXPECT_NE(nullptr, made) << error;
        return made;
    }
    std::string line(const std::string &format)
    {
        std::string out;
        form(format)->event(event, out);
        return out;
    }

    agent::Identity file;
    agent::Event event = event_of("/a", FMON_CREATE);
    FormatStyle style;
};

}  // namespace

TEST_F(FileFacts, JsonHasThemWhereTheyAreAskedFor)
{
    const std::string all = "\"path\":\"/a\",\"inode\":7,\"device\":\"8:1\",\"group\":3,\"pid\":0";
    EXPECT_NE(std::string::npos, line("json").find(all)) << line("json");
    EXPECT_TRUE(form("json")->wants_file());
    event.file = nullptr;
    EXPECT_EQ(std::string::npos, line("json").find("inode"));
    event.file = &file;
    style.stat = false;
    EXPECT_FALSE(form("json")->wants_file());
    EXPECT_EQ(std::string::npos, line("json").find("inode"));
}

TEST_F(FileFacts, ATemplateAsksForThemByItself)
{
    style.stat = false;
    EXPECT_EQ("7 8:1 3\n", line("%i %D %g"));
    event.file = nullptr;
    EXPECT_EQ("[]\n", line("[%i%D%g]"));
    for (const char *const pattern : {"%i", "%p %D", "%g"})
        EXPECT_TRUE(form(pattern)->wants_file()) << pattern;
    EXPECT_FALSE(form("%p %d")->wants_file());
}
