/* From a session's reports to what a file holds, and when nothing more is to be shown. */
#include "output/reporter.h"

#include "agent/message.h"
#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using namespace output;
using agent_testing::Directory;
using agent_testing::event_of;

namespace
{

class ReporterTest : public testing::Test
{
protected:
    ReporterTest()
    {
        options.output = directory.path("out");
        options.format = "%e %p";
        plan.instances.push_back({"watch", FMON_CREATE | FMON_DELETE});
        plan.roots.emplace_back().path = "/a";
    }

    /* A reporter that has begun. */
    Reporter &begin()
    {
        reporter = std::make_unique<Reporter>(request, options);
        std::string error;
        EXPECT_TRUE(reporter->prepare(error)) << error;
        reporter->set_plan(plan);
        EXPECT_TRUE(reporter->begin(error)) << error;
        return *reporter;
    }

    std::string written()
    {
        reporter->flush();
        std::ifstream file(options.output);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    Directory directory;
    agent::Request request;
    OutputOptions options;
    agent::Plan plan;
    std::unique_ptr<Reporter> reporter;
};

}  // namespace

TEST_F(ReporterTest, WhatIsSelectedIsWritten)
{
    begin();
    reporter->event(event_of("/a/1", FMON_CREATE | FMON_MODIFY));
    reporter->event(event_of("/a/2", FMON_MODIFY));
    reporter->event(event_of("/a/3", FMON_DELETE));
    EXPECT_EQ("create /a/1\ndelete /a/3\n", written());
    EXPECT_EQ(2u, reporter->shown());
    EXPECT_FALSE(reporter->finished());
}

TEST_F(ReporterTest, ACountEndsIt)
{
    options.count = 2;
    begin();
    for (const char *path : {"/a/1", "/a/2", "/a/3"})
        reporter->event(event_of(path, FMON_CREATE));
    EXPECT_EQ("create /a/1\ncreate /a/2\n", written());
    EXPECT_TRUE(reporter->finished());
    EXPECT_EQ(agent::kDone, reporter->status());
}

TEST_F(ReporterTest, ItsOwnFileAndHiddenOnesAreNotShown)
{
    begin();
    reporter->hide({"/a/log"});
    reporter->event(event_of("/a/log", FMON_CREATE));
    reporter->event(event_of(options.output.c_str(), FMON_CREATE));
    EXPECT_EQ("", written());
}

TEST_F(ReporterTest, PathsAreShownAsGivenAndSelectedAsTheyAre)
{
    plan.roots[0].given = "typed";
    request.as_given = true;
    options.include = {"^/a/"};
    begin();
    reporter->event(event_of("/a/1", FMON_CREATE));
    EXPECT_EQ("create typed/1\n", written());
}

TEST_F(ReporterTest, ARenameHasBothPathsAsGiven)
{
    plan.roots[0].given = "typed";
    plan.instances[0].shown = FMON_MOVED_TO;
    request.as_given = true;
    options.format = "%o -> %p";
    begin();
    agent::Event event = event_of("/a/new", FMON_MOVED_TO);
    event.from = "/a/old";
    reporter->event(event);
    reporter->event(event_of("/a/other", FMON_MOVED_TO));
    EXPECT_EQ("typed/old -> typed/new\n -> typed/other\n", written());
}

TEST_F(ReporterTest, WhatTheSourceDoesNotSayIsLookedAt)
{
    plan.roots[0].path = directory.root();
    options.format = "%d|";
    begin();
    reporter->event(event_of(directory.dir("d"), FMON_CREATE));
    reporter->event(event_of(directory.file("f"), FMON_CREATE));
    reporter->event(event_of(directory.dir("d"), FMON_CREATE | FMON_MOVED_FROM)); /* of which a part is shown */
    EXPECT_EQ("dir|\n|\n|\n", written());
}

TEST_F(ReporterTest, FormsOfJsonHaveARecordForEverything)
{
    for (const auto &[format, has] :
         {std::pair("json", true), {"ecs", true}, {"ocsf", true}, {"text", false}, {"csv", false}, {"%p", false}}) {
        options.format = format;
        EXPECT_EQ(has, begin().has_records()) << format;
    }
}

TEST_F(ReporterTest, RecordsBesideEventsKeepTheirPlace)
{
    options.format = "csv";
    begin();
    reporter->loss("inotify", 3, "");
    reporter->event(event_of("/a/1", FMON_CREATE));
    const std::string text = written();
    EXPECT_LT(text.find("inotify: 3"), text.find("/a/1")) << text;
}

TEST_F(ReporterTest, AnOutputThatTakesNothingEndsItWithAnError)
{
    options.output = "/dev/full";
    begin();
    reporter->event(event_of("/a/1", FMON_CREATE));
    testing::internal::CaptureStderr();
    reporter->flush();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("cannot write the output"), std::string::npos);
    EXPECT_TRUE(reporter->finished());
    EXPECT_EQ(agent::kError, reporter->status());
}

TEST_F(ReporterTest, WhatCannotBeHadIsSaidBeforeAnythingIsOpened)
{
    const auto refusal = [&] {
        std::string error;
        EXPECT_FALSE(Reporter(request, options).prepare(error));
        return error;
    };
    options.output = directory.path("none/out");
    EXPECT_NE(refusal().find("cannot write to"), std::string::npos);
    options.format = "%q";
    EXPECT_NE(refusal(), "");
    options.include = {"a("};
    EXPECT_NE(refusal().find("--include"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(directory.path("none")));
}
