/* Tests of format.h: every format, whatever a name holds. */

#include "output/format.h"

#include <ctime>

#include "agent/escape.h"
#include "agent/time_format.h"
#include "orx_fmon.h"
#include "output/formats.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using namespace output;
using agent_testing::event_of;
using agent_testing::kTime;

namespace
{

const ProcessInfo kCat = {"cat", "/usr/bin/cat", "cat x", 1000, 7, 1};

std::string line_of(Formatter &formatter, const Event &event)
{
    std::string out;
    formatter.event(event, out);
    return out;
}

std::string loss_of(Formatter &formatter, std::string_view path)
{
    std::string out;
    formatter.loss(kTime, "inotify", 1234, path, out);
    return out;
}

FormatStyle plain()
{
    FormatStyle style;
    style.sources = {"watch"};
    return style;
}

rapidjson::Document json_of(const std::string &line)
{
    rapidjson::Document document;
    EXPECT_FALSE(document.Parse<rapidjson::kParseValidateEncodingFlag>(line.c_str(), line.size()).HasParseError())
        << line;
    EXPECT_TRUE(document.IsObject());
    return document;
}

std::string template_line(const std::string &pattern, const Event &event, FormatStyle style = plain())
{
    std::string error;
    const auto formatter = make_template_formatter(style, pattern, error);
    return formatter ? line_of(*formatter, event) : "error: " + error;
}

}  // namespace

TEST(CliJson, ContainerIsTheMountsOrTheProcesss)
{
    ProcessInfo inside = kCat;
    inside.container = "c1";
    const auto formatter = make_json_formatter(plain());
    Event event = event_of("/a", FMON_MODIFY, 42, &inside);
    EXPECT_STREQ("c1", json_of(line_of(*formatter, event))["container"].GetString());
    event.container = "host";
    EXPECT_STREQ("host", json_of(line_of(*formatter, event))["container"].GetString());
    event = event_of("/a", FMON_MODIFY, 42, &kCat);
    EXPECT_FALSE(json_of(line_of(*formatter, event)).HasMember("container"));
    event.process = nullptr;
    EXPECT_FALSE(json_of(line_of(*formatter, event)).HasMember("container"));
}

TEST(CliJson, ContainersHaveNamesAndImagesWhereKnown)
{
    FormatStyle style = plain();
    style.container_name = [](std::string_view id) {
        return id == "c1" ? ContainerName{"web\xff", "team/nginx:1"} : ContainerName{};
    };
    const auto formatter = make_json_formatter(style);
    Event event = event_of("/a", FMON_MODIFY, 42, nullptr);
    event.container = "c1";
    const rapidjson::Document known = json_of(line_of(*formatter, event));
    EXPECT_STREQ("c1", known["container"].GetString());
    EXPECT_STREQ("web\xef\xbf\xbd", known["container_name"].GetString());
    EXPECT_STREQ("team/nginx:1", known["container_image"].GetString());
    event.container = "c2";
    const rapidjson::Document unknown = json_of(line_of(*formatter, event));
    EXPECT_STREQ("c2", unknown["container"].GetString());
    EXPECT_FALSE(unknown.HasMember("container_name") || unknown.HasMember("container_image"));
}

TEST(CliJson, EventHasAllFields)
{
    const auto formatter = make_json_formatter(plain());
    Event event = event_of("/a/b", FMON_MODIFY | FMON_CLOSE_WRITE, 42, &kCat);
    event.container = "host";
    EXPECT_EQ(
        "{\"type\":\"event\",\"time\":\"2024-02-29T12:34:56.789012345Z\",\"events\":[\"modify\",\"close_write\"],"
        "\"path\":\"/a/b\",\"pid\":42,\"process\":{\"name\":\"cat\",\"exe\":\"/usr/bin/cat\",\"cmdline\":\"cat "
        "x\",\"uid\":1000,\"ppid\":7},\"container\":\"host\",\"instance\":\"watch\"}\n",
        line_of(*formatter, event));
}

TEST(CliJson, ADirectoryIsSaidToBeOne)
{
    const auto formatter = make_json_formatter(plain());
    EXPECT_TRUE(formatter->wants_dir());
    Event event = event_of("/a", FMON_CREATE);
    event.dir = Known::kYes;
    EXPECT_TRUE(json_of(line_of(*formatter, event))["dir"].GetBool());
    for (const Known dir : {Known::kNo, Known::kUnknown}) {
        event.dir = dir;
        EXPECT_FALSE(json_of(line_of(*formatter, event)).HasMember("dir"));
    }
}

TEST(CliJson, EventWithoutProcessOrContainer)
{
    const auto formatter = make_json_formatter(plain());
    const auto document = json_of(line_of(*formatter, event_of("/a", FMON_CREATE)));
    EXPECT_FALSE(document.HasMember("process") || document.HasMember("container") || document.HasMember("path_bytes"));
    EXPECT_EQ(0u, document["pid"].GetUint());
}

TEST(CliJson, ContainerWithHostileBytes)
{
    const auto formatter = make_json_formatter(plain());
    Event event = event_of("/a", FMON_CREATE);
    event.container = "a\"b\n\xff";
    EXPECT_STREQ("a\"b\n\xef\xbf\xbd", json_of(line_of(*formatter, event))["container"].GetString());
}

TEST(CliJson, OtherRecords)
{
    const auto formatter = make_json_formatter(plain());
    std::string out;
    formatter->established(kTime, {{"/a", "/b\xff"}, {}, 12}, out);
    formatter->loss(kTime, "inotify", 3, "", out);
    formatter->ended(kTime, "/a", "deleted", out);
    EXPECT_EQ(
        "{\"type\":\"established\",\"time\":\"2024-02-29T12:34:56.789012345Z\",\"paths\":[\"/a\",\"/b\xef\xbf\xbd"
        "\"],\"directories\":12,\"source\":\"marks\"}\n"
        "{\"type\":\"loss\",\"time\":\"2024-02-29T12:34:56.789012345Z\",\"source\":\"inotify\",\"count\":3}\n"
        "{\"type\":\"ended\",\"time\":\"2024-02-29T12:34:56.789012345Z\",\"path\":\"/a\",\"reason\":\"deleted\"}"
        "\n",
        out);
}

TEST(CliJson, OtherRecordsWithPaths)
{
    const auto formatter = make_json_formatter(plain());
    std::string out;
    formatter->established(kTime, {{"/a"}, {"/c"}, 1, "both"}, out);
    EXPECT_STREQ("/c", json_of(out)["missing"][0].GetString());
    EXPECT_STREQ("both", json_of(out)["source"].GetString());
    EXPECT_FALSE(json_of(out).HasMember("left_out"));
    out.clear();
    formatter->established(kTime, {{}, {}, 0, "filesystem", 2}, out);
    EXPECT_EQ(2u, json_of(out)["left_out"].GetUint());
    out.clear();
    formatter->loss(kTime, "path", 1, "/d", out);
    EXPECT_STREQ("/d", json_of(out)["path"].GetString());
    out.clear();
    formatter->appeared(kTime, "/c", out);
    EXPECT_STREQ("appeared", json_of(out)["type"].GetString());
    EXPECT_STREQ("/c", json_of(out)["path"].GetString());
}

TEST(CliJson, ValidForEveryByteOfAName)
{
    const auto formatter = make_json_formatter(plain());
    for (int byte = 1; byte < 256; byte++) {
        const std::string path = std::string("/x") + static_cast<char>(byte) + "y";
        const std::string line = line_of(*formatter, event_of(path, FMON_CREATE));
        const auto document = json_of(line);
        EXPECT_EQ(document.HasMember("path_bytes"), byte >= 0x80);
        if (byte < 0x80) {
            EXPECT_EQ(document["path"].GetString(), path);
        }
        EXPECT_EQ(line.find('\n'), line.size() - 1);
    }
}

TEST(CliJson, ValidForRandomBytesEverywhere)
{
    const auto formatter = make_json_formatter(plain());
    std::mt19937 random(3);
    for (int i = 0; i < 20000; i++) {
        ProcessInfo process;
        process.name = agent_testing::random_bytes(random, 15);
        process.exe = agent_testing::random_bytes(random, 30);
        process.cmdline = agent_testing::random_bytes(random, 60);
        const std::string path = "/" + agent_testing::random_bytes(random, 40);
        const auto document = json_of(line_of(*formatter, event_of(path, FMON_CREATE, 5, &process)));
        ASSERT_TRUE(document.HasMember("path_bytes") || document["path"].GetString() == path);
    }
}

TEST(CliJson, RecordsCanEndInNul)
{
    FormatStyle style = plain();
    style.end = '\0';
    const std::string line = line_of(*make_json_formatter(style), event_of("/a", FMON_CREATE));
    EXPECT_EQ('\0', line.back());
    EXPECT_EQ(line.find('\n'), std::string::npos);
}

TEST(CliJson, ANameThatWasGone)
{
    Event event = event_of("/a/b", FMON_MODIFY, 42);
    EXPECT_FALSE(json_of(line_of(*make_json_formatter(plain()), event)).HasMember("deleted"));
    event.deleted = true;
    const auto document = json_of(line_of(*make_json_formatter(plain()), event));
    EXPECT_TRUE(document["deleted"].IsTrue());
    EXPECT_STREQ("/a/b", document["path"].GetString());
    EXPECT_NE(line_of(*make_text_formatter(plain()), event).find(" /a/b (deleted)  ?[42]"), std::string::npos);
}

TEST(CliFormat, WhatWasFoundSaysSo)
{
    Event event = event_of("/a/b", FMON_CREATE);
    std::string error;
    const auto pattern = make_template_formatter(plain(), "%e %p [%f]", error);
    EXPECT_FALSE(json_of(line_of(*make_json_formatter(plain()), event)).HasMember("found"));
    EXPECT_EQ("create /a/b []\n", line_of(*pattern, event));
    event.found = true;
    EXPECT_TRUE(json_of(line_of(*make_json_formatter(plain()), event))["found"].IsTrue());
    EXPECT_NE(line_of(*make_text_formatter(plain()), event).find(" /a/b (found)\n"), std::string::npos);
    EXPECT_NE(line_of(*make_csv_formatter(plain()), event).find(",create,/a/b,0,(found)\n"), std::string::npos);
    EXPECT_EQ("create /a/b [found]\n", line_of(*pattern, event));
}

TEST(CliFormat, ATreeThatIsWholeAgain)
{
    const std::vector<std::string> one = {"/a b"}, two = {"/a", "/b"};
    std::string out;
    make_json_formatter(plain())->resynced(kTime, two, 3, out);
    EXPECT_EQ(
        "{\"type\":\"resynced\",\"time\":\"2024-02-29T12:34:56.789012345Z\",\"paths\":[\"/a\",\"/b\"],"
        "\"directories\":3}\n",
        out);
    out.clear();
    make_text_formatter(plain())->resynced(kTime, one, 0, out);
    EXPECT_NE(out.find(" resynced                 /a b  directories: 0\n"), std::string::npos) << out;
    out.clear();
    make_text_formatter(plain())->resynced(kTime, two, 3, out);
    EXPECT_NE(out.find(" resynced                 directories: 3\n"), std::string::npos) << out;
    out.clear();
    make_csv_formatter(plain())->resynced(kTime, one, 1, out);
    EXPECT_NE(out.find(",resynced,/a b,0,directories: 1\n"), std::string::npos) << out;
}

/* The same JSON, in which nothing drives the terminal or turns its lines. */
TEST(CliJson, AtATerminal)
{
    FormatStyle style = plain();
    const std::string path =
        "/\x7f\xc2\x9b\xd8\x9c\xe2\x80\xae\xe2\x80\xa8\xe2\x81\xa6\xef\xbb\xbf\xc3\xa4\xf0\x9f\x90\xb1";
    const std::string piped = line_of(*make_json_formatter(style), event_of(path, FMON_CREATE));
    style.terminal = true;
    const std::string seen = line_of(*make_json_formatter(style), event_of(path, FMON_CREATE));
    EXPECT_NE(piped.find(path), std::string::npos);
    EXPECT_NE(seen.find("/\\u007f\\u009b\\u061c\\u202e\\u2028\\u2066\\ufeff\xc3\xa4\xf0\x9f\x90\xb1\""),
              std::string::npos)
        << seen;
    EXPECT_EQ(json_of(seen)["path"], json_of(piped)["path"]);
    EXPECT_NE(loss_of(*make_json_formatter(style), path).find("\\u202e"), std::string::npos);
}

TEST(CliJson, AtATerminalWhateverTheName)
{
    FormatStyle style = plain();
    style.terminal = true;
    const auto formatter = make_json_formatter(style), piped = make_json_formatter(plain());
    std::mt19937 random(7);
    for (int i = 0; i < 2000; i++) {
        const std::string path = "/" + agent_testing::random_bytes(random, 40);
        const std::string line = line_of(*formatter, event_of(path, FMON_CREATE));
        EXPECT_EQ(json_of(line)["path"], json_of(line_of(*piped, event_of(path, FMON_CREATE)))["path"]);
        EXPECT_EQ(escaped(line.substr(0, line.size() - 1)).find("\\3"), std::string::npos) << "a byte was hidden";
        EXPECT_EQ(line.find('\x7f'), std::string::npos);
    }
}

TEST(CliText, ColumnsAreAligned)
{
    setenv("TZ", "UTC", 1);
    tzset();
    const auto formatter = make_text_formatter(plain());
    EXPECT_EQ("12:34:56.789 close_write              /a/longer  cat[42]\n",
              line_of(*formatter, event_of("/a/longer", FMON_CLOSE_WRITE, 42, &kCat)));
    EXPECT_EQ("12:34:56.789 create                   /a         cat[42]\n",
              line_of(*formatter, event_of("/a", FMON_CREATE, 42, &kCat)));
    EXPECT_EQ("12:34:56.789 create                   /a         ?[9]\n",
              line_of(*formatter, event_of("/a", FMON_CREATE, 9)));
    EXPECT_EQ("12:34:56.789 create                   /a\n", line_of(*formatter, event_of("/a", FMON_CREATE)));
}

TEST(CliText, ALossIsALine)
{
    setenv("TZ", "UTC", 1);
    tzset();
    FormatStyle style = plain();
    EXPECT_EQ("12:34:56.789 loss                     inotify: 1234\n", loss_of(*make_text_formatter(style), ""));
    EXPECT_EQ("12:34:56.789 loss                     /a\\n  inotify: 1234\n",
              loss_of(*make_text_formatter(style), "/a\n"));
    style.colours = true;
    EXPECT_NE(loss_of(*make_text_formatter(style), "").find("\033[31mloss\033[0m"), std::string::npos);
}

TEST(CliText, ANameCannotForgeALine)
{
    const auto formatter = make_text_formatter(plain());
    const ProcessInfo evil = {"x\ny\033[2J", "", "", 0, 0, 0};
    const std::string line =
        line_of(*formatter, event_of("/a\n12:00:00.000 delete /etc/passwd\r\033[1A", FMON_CREATE, 1, &evil));
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_EQ(line.find('\033'), std::string::npos);
    EXPECT_EQ(line.find('\r'), std::string::npos);
}

TEST(CliText, ColoursOnlyWhenWanted)
{
    FormatStyle style = plain();
    const Event event = event_of("/a", FMON_DELETE, 42, &kCat);
    EXPECT_EQ(line_of(*make_text_formatter(style), event).find('\033'), std::string::npos);
    style.colours = true;
    EXPECT_NE(line_of(*make_text_formatter(style), event).find("\033[31mdelete\033[0m"), std::string::npos);
}

TEST(CliCsv, HeadingAndQuoting)
{
    const auto formatter = make_csv_formatter(plain());
    std::string out;
    formatter->begin(out);
    EXPECT_EQ("time,events,path,pid,process\n", out);
    const ProcessInfo odd = {"a,b", "", "", 0, 0, 0};
    EXPECT_EQ("2024-02-29T12:34:56.789012345Z,\"modify,close_write\",\"/x \"\"y\"\"\nz\",4,\"a,b\"\n",
              line_of(*formatter, event_of("/x \"y\"\nz", FMON_MODIFY | FMON_CLOSE_WRITE, 4, &odd)));
    EXPECT_EQ("2024-02-29T12:34:56.789012345Z,create,/x,0,\n", line_of(*formatter, event_of("/x", FMON_CREATE)));
}

TEST(CliCsv, ALossIsARow)
{
    FormatStyle style = plain();
    EXPECT_EQ("2024-02-29T12:34:56.789012345Z,loss,,0,inotify: 1234\n", loss_of(*make_csv_formatter(style), ""));
    EXPECT_EQ("2024-02-29T12:34:56.789012345Z,loss,\"/a,\n\",0,inotify: 1234\n",
              loss_of(*make_csv_formatter(style), "/a,\n"));
    style.terminal = true;
    EXPECT_EQ("2024-02-29T12:34:56.789012345Z,loss,\"/a,\\n\",0,inotify: 1234\n",
              loss_of(*make_csv_formatter(style), "/a,\n"));
}

TEST(CliTemplate, EveryLetterAndEscape)
{
    const Event event = event_of("/a", FMON_CREATE | FMON_ATTRIB, 42, &kCat);
    EXPECT_EQ("create,attrib|/a|42|cat|2024-02-29T12:34:56.789012345Z|%\n", template_line("%e|%p|%P|%n|%t|%%", event));
    EXPECT_EQ("\a\b\033\f\n\r\t\v\\AA\007x\n", template_line("\\a\\b\\e\\f\\n\\r\\t\\v\\\\\\101\\x41\\7x", event));
    EXPECT_EQ("0\n", template_line("%n%P", event_of("/a", FMON_CREATE)));
    EXPECT_EQ(std::string("x\0y\n", 4), template_line("x\\0y", event));
}

TEST(CliTemplate, APathIsItsDirectoryAndItsName)
{
    for (const char *path : {"/a/b/c", "/a", "/", "/a b/%w\n"}) {
        const Event event = event_of(path, FMON_CREATE);
        EXPECT_EQ(std::string(path) + "\n", template_line("%w%F", event));
    }
    const Event event = event_of("/a/b/c", FMON_CREATE);
    EXPECT_EQ("/a/b/ c\n", template_line("%w %F", event));
    EXPECT_EQ("/ a\n", template_line("%w %F", event_of("/a", FMON_CREATE)));
    FormatStyle terminal = plain();
    terminal.terminal = true;
    EXPECT_EQ("/\\033a/ \\nb\n", template_line("%w %F", event_of("/\033a/\nb", FMON_CREATE), terminal));
}

TEST(CliTemplate, ADirectoryIsSaidToBeOne)
{
    std::string error;
    EXPECT_TRUE(make_template_formatter(plain(), "%p%d", error)->wants_dir());
    EXPECT_FALSE(make_template_formatter(plain(), "%p%%d", error)->wants_dir());
    Event event = event_of("/a", FMON_CREATE);
    EXPECT_EQ("[] /a\n", template_line("[%d] %p", event));
    event.dir = Known::kYes;
    EXPECT_EQ("[dir] /a\n", template_line("[%d] %p", event));
    event.dir = Known::kNo;
    EXPECT_EQ("[] /a\n", template_line("[%d] %p", event));
}

TEST(CliTemplate, WhatIsUnknownIsRefused)
{
    for (const char *pattern : {"%q", "%", "a%", "%E", "\\q", "a\\", "\\x", "\\xg", "%\n"})
        EXPECT_EQ("error: ", template_line(pattern, event_of("/a", FMON_CREATE)).substr(0, 7)) << pattern;
}

TEST(CliTemplate, BytesAreRawForAScriptAndSafeForATerminal)
{
    const Event event = event_of("/a\n\033[31m\xff", FMON_CREATE);
    EXPECT_EQ("/a\n\033[31m\xff\n", template_line("%p", event));
    FormatStyle terminal = plain();
    terminal.terminal = true;
    EXPECT_EQ("/a\\n\\033[31m\\377\n", template_line("%p", event, terminal));
}

TEST(CliTime, FormatsAreThoseOfTheCLibrary)
{
    setenv("TZ", "UTC", 1);
    tzset();
    UtcTime utc;
    LocalTime local;
    for (const uint64_t ns :
         {uint64_t{0}, uint64_t{999999999}, uint64_t{1000000000}, kTime, kTime + 1, kTime - kTime % 1000000000}) {
        const time_t t = static_cast<time_t>(ns / 1000000000);
        char expected[64], text[32];
        strftime(text, sizeof text, "%FT%T", gmtime(&t));
        snprintf(expected, sizeof expected, "%s.%09uZ", text, static_cast<unsigned>(ns % 1000000000));
        std::string out;
        utc.append(ns, out);
        EXPECT_EQ(expected, out);
        strftime(text, sizeof text, "%T", gmtime(&t));
        snprintf(expected, sizeof expected, "%s.%03u", text, static_cast<unsigned>(ns % 1000000000 / 1000000));
        out.clear();
        local.append(ns, out);
        EXPECT_EQ(expected, out);
    }
}

TEST(CliTime, FormsButJsonTakeTheUsersFormat)
{
    setenv("TZ", "UTC", 1);
    tzset();
    FormatStyle style = plain();
    style.time_format = "%d,%m";
    const Event event = event_of("/a", FMON_CREATE);
    EXPECT_EQ(0u, line_of(*make_text_formatter(style), event).find("29,02 create"));
    EXPECT_EQ("\"29,02\",create,/a,0,\n", line_of(*make_csv_formatter(style), event));
    EXPECT_EQ("29,02 /a\n", template_line("%t %p", event, style));
    EXPECT_STREQ("2024-02-29T12:34:56.789012345Z",
                 json_of(line_of(*make_json_formatter(style), event))["time"].GetString());
}
