/* A rename as one record, in every form. */

#include "orx_fmon.h"
#include "output/formats.h"
#include "unit/agent/agent_testing.h"

using namespace output;

namespace
{

std::string line_of(const std::string &form, std::string_view from, bool pairs = true)
{
    setenv("TZ", "UTC", 1);
    tzset();
    FormatStyle style;
    style.sources = {"watch"};
    style.pairs = pairs;
    std::string error, out;
    agent::Event event = agent_testing::event_of("/a/new", FMON_MOVED_TO);
    event.from = from;
    make_formatter(form, style, error)->event(event, out);
    return out;
}

}  // namespace

TEST(FormatRename, TextSaysWhereItCameFrom)
{
    EXPECT_EQ("12:34:56.789 moved_to                 /a/new (from /a/o\\n)\n", line_of("text", "/a/o\n"));
    EXPECT_EQ(std::string::npos, line_of("text", "").find("from"));
}

TEST(FormatRename, JsonHasBothPaths)
{
    rapidjson::Document json;
    json.Parse(line_of("json", "/a/old").c_str());
    EXPECT_STREQ("/a/new", json["path"].GetString());
    EXPECT_STREQ("/a/old", json["from"].GetString());
    EXPECT_FALSE(json.HasMember("from_bytes"));
    json.Parse(line_of("json", "/a/o\xff").c_str());
    EXPECT_STREQ("/a/o\xef\xbf\xbd", json["from"].GetString());
    EXPECT_STREQ("L2Evb/8=", json["from_bytes"].GetString());
    EXPECT_FALSE(json.HasMember("path_bytes"));
    json.Parse(line_of("json", "").c_str());
    EXPECT_FALSE(json.HasMember("from"));
}

TEST(FormatRename, CsvHasAColumnWhereItIsAskedFor)
{
    EXPECT_EQ("2024-02-29T12:34:56.789012345Z,moved_to,/a/new,0,,\"/a,o\"\n", line_of("csv", "/a,o"));
    EXPECT_EQ("2024-02-29T12:34:56.789012345Z,moved_to,/a/new,0,,\n", line_of("csv", ""));
    EXPECT_EQ("2024-02-29T12:34:56.789012345Z,moved_to,/a/new,0,\n", line_of("csv", "", false));
    FormatStyle style;
    style.pairs = true;
    std::string out;
    const auto csv = make_csv_formatter(style);
    csv->begin(out);
    csv->loss(agent_testing::kTime, "inotify", 3, "/a", out);
    EXPECT_EQ("time,events,path,pid,process,from\n2024-02-29T12:34:56.789012345Z,loss,/a,0,inotify: 3,\n", out);
}

TEST(FormatRename, ATemplateHasBothPaths)
{
    EXPECT_EQ("/a/old>/a/new\n", line_of("%o>%p", "/a/old"));
    EXPECT_EQ(">/a/new\n", line_of("%o>%p", ""));
}
