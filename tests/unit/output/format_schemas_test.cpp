/* The forms whose members others have named: ECS and OCSF. */
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <functional>

#include "agent/ancestors.h"
#include "agent/event_names.h"
#include "agent/paths.h"
#include "orx_fmon.h"
#include "output/activity.h"
#include "output/formats.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using namespace output;
using agent_testing::event_of;
using agent_testing::kTime;

namespace
{

class SchemaForms : public testing::Test
{
protected:
    SchemaForms()
    {
        style.sources = {"watch"};
        style.host = "web1";
        style.container_name = [](std::string_view) { return ContainerName{"web", "registry/web:1"}; };
        cat.container = "c1";
        cat.loginuid = 1001;
        cat.start_ns = kTime;
        cat.parent = make_ancestor("sh", 7, kTime, make_ancestor("init", 1, 0, nullptr));
    }

    using Make = std::function<void(Formatter &, std::string &)>;
    std::string line(const char *form, const Make &make) const
    {
        std::string out, error;
        make(*make_formatter(form, style, error), out);
        EXPECT_EQ('\n', out.back());
        out.pop_back();
        return out;
    }
    std::string line(const char *form, const Event &event) const
    {
        return line(form, [&](Formatter &formatter, std::string &out) { formatter.event(event, out); });
    }

    FormatStyle style;
    ProcessInfo cat = {"cat", "/usr/bin/cat", "cat x", 1000, 7, 1};
};

constexpr char kEcsHead[] =
    "{\"@timestamp\":\"2024-02-29T12:34:56.789012345Z\",\"ecs\":{\"version\":\"8.11.0\"},\"event\":";
constexpr char kOcsfTail[] =
    "\"metadata\":{\"version\":\"1.3.0\",\"product\":{\"name\":\"fmon\",\"vendor_name\":\"fmon\"},\"profiles\":["
    "\"container\","
    "\"host\"]},\"device\":{\"type_id\":0,\"hostname\":\"web1\"},";

std::string ecs(const std::string &what, const std::string &rest)
{
    return kEcsHead + what + ",\"module\":\"fmon\",\"dataset\":\"fmon.file\"},\"host\":{\"hostname\":\"web1\"}," + rest;
}

std::string ocsf(const std::string &what, const std::string &rest)
{
    return "{\"time\":1709210096789," + what + "," + kOcsfTail + rest;
}

}  // namespace

TEST_F(SchemaForms, EcsEventWithAllThatIsKnown)
{
    style.ancestors = true;
    EXPECT_EQ(
        ecs("{\"kind\":\"event\",\"category\":[\"file\"],\"type\":[\"creation\"],\"action\":\"create\"",
            "\"file\":{\"path\":\"/data/x\",\"name\":\"x\",\"directory\":\"/data\"},"
            "\"process\":{\"pid\":42,\"name\":\"cat\",\"executable\":\"/usr/bin/cat\",\"command_line\":\"cat x\","
            "\"start\":\"2024-02-29T12:34:56.789012345Z\",\"parent\":{\"pid\":7,\"name\":\"sh\"}},"
            "\"user\":{\"id\":\"1000\"},"
            "\"container\":{\"id\":\"c1\",\"name\":\"web\",\"image\":{\"name\":\"registry/web:1\"}},"
            "\"fmon\":{\"events\":[\"modify\",\"create\"],\"loginuid\":1001,\"ancestors\":[{\"pid\":7,\"name\":\"sh\","
            "\"start\":\"2024-02-29T12:34:56.789012345Z\"},{\"pid\":1,\"name\":\"init\"}],\"instance\":\"watch\"}}"),
        line("ecs", event_of("/data/x", FMON_CREATE | FMON_MODIFY, 42, &cat)));
}

TEST_F(SchemaForms, EcsEventOfWhichLittleIsKnown)
{
    EXPECT_EQ(ecs("{\"kind\":\"event\",\"category\":[\"file\"],\"type\":[\"deletion\"],\"action\":\"delete\"",
                  "\"file\":{\"path\":\"/\xEF\xBF\xBD\",\"name\":\"\xEF\xBF\xBD\",\"directory\":\"/\"},"
                  "\"fmon\":{\"events\":[\"delete\"],\"path_bytes\":\"L/8=\",\"instance\":\"watch\"}}"),
              line("ecs", event_of("/\xff", FMON_DELETE)));
}

TEST_F(SchemaForms, WhatTheFileIs)
{
    Event event = event_of("/x", FMON_MOVED_TO);
    const auto has = [&](const char *form, const std::string &part) {
        const std::string all = line(form, event);
        EXPECT_NE(std::string::npos, all.find(part)) << all;
    };
    has("ecs", "\"directory\":\"/\"},");
    has("ocsf", "\"type_id\":0},\"unmapped\"");
    event.dir = Known::kYes;
    has("ecs", "\"directory\":\"/\",\"type\":\"dir\"}");
    has("ocsf", "\"type_id\":2},\"unmapped\"");
    event.dir = Known::kNo;
    has("ecs", "\"type\":\"file\"}");
    has("ocsf", "\"type_id\":1},\"unmapped\"");
    Identity link;
    link.mode = S_IFLNK | 0777;
    link.ino = 7;
    link.gid = 3;
    link.dev = makedev(8, 1);
    event.file = &link;
    event.from = "/y";
    style.stat = true;
    has("ecs", "\"type\":\"symlink\",\"inode\":\"7\",\"gid\":\"3\"}");
    has("ecs", "\"fmon\":{\"events\":[\"moved_to\"],\"from\":\"/y\",\"device\":\"8:1\",");
    has("ocsf",
        "\"type_id\":7},\"unmapped\":{\"events\":[\"moved_to\"],\"from\":\"/"
        "y\",\"inode\":7,\"device\":\"8:1\",\"group\":3,");
    link.mode = S_IFMT;
    has("ocsf", "\"type_id\":0},\"unmapped\"");
}

TEST_F(SchemaForms, EcsRecordsBesideEvents)
{
    EXPECT_EQ(ecs("{\"kind\":\"pipeline_error\",\"type\":[\"error\"],\"action\":\"loss\"",
                  "\"error\":{\"message\":\"lost: inotify: 3\"},\"fmon\":{\"source\":\"inotify\",\"count\":3}}"),
              line("ecs", [](Formatter &form, std::string &out) { form.loss(kTime, "inotify", 3, "", out); }));
    const std::string state = "{\"kind\":\"state\",\"category\":[\"file\"],\"type\":[\"info\"],\"action\":";
    EXPECT_EQ(ecs(state + "\"established\"",
                  "\"fmon\":{\"paths\":[\"/a\"],\"missing\":[\"/b\"],\"directories\":2,\"source\":\"marks\"}}"),
              line("ecs", [](Formatter &form, std::string &out) {
                  form.established(kTime, {{"/a"}, {"/b"}, 2, "marks"}, out);
              }));
    EXPECT_EQ(ecs(state + "\"resynced\"", "\"fmon\":{\"paths\":[\"/a\"],\"directories\":1}}"),
              line("ecs", [](Formatter &form, std::string &out) { form.resynced(kTime, {"/a"}, 1, out); }));
    EXPECT_EQ(ecs(state + "\"ended\"",
                  "\"file\":{\"path\":\"/a\",\"name\":\"a\",\"directory\":\"/\"},\"fmon\":{\"reason\":\"gone\"}}"),
              line("ecs", [](Formatter &form, std::string &out) { form.ended(kTime, "/a", "gone", out); }));
}

TEST_F(SchemaForms, OcsfEventWithAllThatIsKnown)
{
    style.ancestors = true;
    EXPECT_EQ(
        ocsf(
            "\"category_uid\":1,\"class_uid\":1001,\"class_name\":\"File System Activity\",\"activity_id\":1,"
            "\"activity_name\":\"Create\",\"type_uid\":100101,\"severity_id\":1",
            "\"actor\":{\"process\":{\"pid\":42,\"name\":\"cat\",\"cmd_line\":\"cat x\",\"created_time\":1709210096789,"
            "\"file\":{\"name\":\"cat\",\"path\":\"/usr/bin/cat\",\"parent_folder\":\"/usr/bin\",\"type_id\":0},"
            "\"user\":{\"uid\":\"1000\"},\"parent_process\":{\"pid\":7,\"name\":\"sh\",\"created_time\":1709210096789,"
            "\"parent_process\":{\"pid\":1,\"name\":\"init\"}},"
            "\"container\":{\"uid\":\"c1\",\"name\":\"web\",\"image\":{\"name\":\"registry/web:1\"}}}},"
            "\"file\":{\"name\":\"x\",\"path\":\"/data/x\",\"parent_folder\":\"/data\",\"type_id\":0},"
            "\"unmapped\":{\"events\":[\"modify\",\"create\"],\"loginuid\":1001,\"instance\":\"watch\"}}"),
        line("ocsf", event_of("/data/x", FMON_CREATE | FMON_MODIFY, 42, &cat)));
}

TEST_F(SchemaForms, OcsfEventOfWhichLittleIsKnown)
{
    EXPECT_EQ(ocsf("\"category_uid\":1,\"class_uid\":1001,\"class_name\":\"File System Activity\",\"activity_id\":4,"
                   "\"activity_name\":\"Delete\",\"type_uid\":100104,\"severity_id\":1",
                   "\"actor\":{\"process\":{\"pid\":0}},\"file\":{\"name\":\"/\",\"path\":\"/\",\"type_id\":0},"
                   "\"unmapped\":{\"events\":[\"delete_self\"],\"instance\":\"watch\"}}"),
              line("ocsf", event_of("/", FMON_DELETE_SELF)));
}

TEST_F(SchemaForms, OcsfRecordsBesideEventsAreOfTheBaseClass)
{
    const auto base = [](const std::string &type, int severity) {
        return "\"category_uid\":0,\"class_uid\":0,\"class_name\":\"Base "
               "Event\",\"activity_id\":99,\"activity_name\":\"" +
               type + "\",\"type_uid\":99,\"severity_id\":" + std::to_string(severity);
    };
    EXPECT_EQ(ocsf(base("loss", 3),
                   "\"message\":\"lost: path: 1\",\"unmapped\":{\"source\":\"path\",\"count\":1,\"path\":\"/a\"}}"),
              line("ocsf", [](Formatter &form, std::string &out) { form.loss(kTime, "path", 1, "/a", out); }));
    EXPECT_EQ(ocsf(base("established", 1), "\"unmapped\":{\"paths\":[\"/a\"],\"directories\":0,\"source\":\"marks\"}}"),
              line("ocsf", [](Formatter &form, std::string &out) {
                  form.established(kTime, {{"/a"}, {}, 0}, out);
              }));
    EXPECT_EQ(ocsf(base("appeared", 1), "\"unmapped\":{\"path\":\"/a\"}}"),
              line("ocsf", [](Formatter &form, std::string &out) { form.appeared(kTime, "/a", out); }));
    EXPECT_EQ(ocsf(base("ended", 1), "\"unmapped\":{\"path\":\"/a\",\"reason\":\"gone\"}}"),
              line("ocsf", [](Formatter &form, std::string &out) { form.ended(kTime, "/a", "gone", out); }));
}

TEST_F(SchemaForms, ATimeInWhichNothingWasWatchedIsALoss)
{
    const std::string time = "2024-02-29T12:34:56.789012345Z",
                      gap = R"({"from":")" + time + R"(","until":")" + time + R"(","reason":"killed"}})",
                      said = R"("message":"not watched: killed, from )" + time + " until " + time + '"';
    const auto write = [](Formatter &form, std::string &out) { form.unwatched(kTime, {kTime, kTime, "killed"}, out); };
    EXPECT_EQ(ecs(R"({"kind":"pipeline_error","type":["error"],"action":"unwatched")",
                  R"("error":{)" + said + R"(},"fmon":)" + gap),
              line("ecs", write));
    const std::string text = line("ocsf", write);
    EXPECT_NE(text.find(R"("activity_name":"unwatched","type_uid":99,"severity_id":3)"), std::string::npos) << text;
    EXPECT_NE(text.find(said + R"(,"unmapped":)" + gap), std::string::npos) << text;
}

TEST_F(SchemaForms, WithoutANameTheMachinesOwnIsSaid)
{
    style.host.clear();
    EXPECT_EQ(std::string::npos, line("ocsf", event_of("/a", FMON_CREATE)).find("\"device\":{\"type_id\":0}"));
    EXPECT_NE(std::string::npos, line("ecs", event_of("/a", FMON_CREATE)).find("\"host\":{\"hostname\":\""));
}

TEST(Activity, IsThatOfTheKindWhichSaysMost)
{
    EXPECT_STREQ("create", main_activity(FMON_CREATE | FMON_MODIFY | FMON_CLOSE_WRITE | FMON_OPEN).action);
    EXPECT_STREQ("delete", main_activity(FMON_CREATE | FMON_DELETE).action);
    EXPECT_STREQ("moved_to", main_activity(FMON_MOVED_TO | FMON_ATTRIB).action);
    EXPECT_STREQ("close_write", main_activity(FMON_CLOSE_WRITE | FMON_ACCESS).action);
    EXPECT_STREQ("unknown", main_activity(0).action);
}

TEST(Activity, EveryKindHasOneWithItsName)
{
    for (size_t i = 0; i < kSingleEventNames; i++)
        EXPECT_STREQ(kEventTable[i].name, main_activity(kEventTable[i].mask).action);
    EXPECT_STREQ("link", main_activity(FMON_LINK).action);
}
