/* Which events are shown: by kind, by depth, by path. */
#include "output/selection.h"

#include "orx_fmon.h"
#include "output/output_options.h"
#include "unit/agent/agent_testing.h"

using namespace output;
using agent_testing::event_of;

namespace
{

agent::Plan plan_of(std::vector<uint32_t> shown, const std::string &root)
{
    agent::Plan plan;
    for (const uint32_t kinds : shown)
        plan.instances.push_back({"watch", kinds});
    plan.roots.emplace_back().path = root;
    return plan;
}

}  // namespace

TEST(Selection, ByTheKindsOfTheInstance)
{
    Selection selection(0);
    selection.set_plan(plan_of({FMON_CREATE | FMON_DELETE, FMON_MODIFY}, "/a"));
    agent::Event event = event_of("/a/b", FMON_CREATE | FMON_MODIFY);
    EXPECT_EQ(uint32_t{FMON_CREATE}, selection.shown_kinds(event));
    event.source = 1;
    EXPECT_EQ(uint32_t{FMON_MODIFY}, selection.shown_kinds(event));
    event.mask = FMON_ATTRIB;
    EXPECT_EQ(0u, selection.shown_kinds(event));
}

TEST(Selection, ByDepthBelowAnyRoot)
{
    Selection selection(1);
    selection.set_plan(plan_of({FMON_CREATE}, "/a"));
    EXPECT_NE(selection.shown_kinds(event_of("/a/b", FMON_CREATE)), 0u);
    EXPECT_NE(selection.shown_kinds(event_of("/a/b/c", FMON_CREATE)), 0u);
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/a/b/c/d", FMON_CREATE)));
    selection.add_root("/a/b/c");
    EXPECT_NE(selection.shown_kinds(event_of("/a/b/c/d", FMON_CREATE)), 0u);
}

TEST(Selection, ByPath)
{
    Selection selection(0);
    OutputOptions options;
    options.include = {"^/a/"};
    options.exclude = {"~$"};
    std::string error;
    ASSERT_TRUE(selection.set_filter(options, error)) << error;
    selection.set_plan(plan_of({FMON_CREATE}, "/a"));
    selection.hide("/a/out");
    EXPECT_NE(selection.shown_kinds(event_of("/a/b", FMON_CREATE)), 0u);
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/a/b~", FMON_CREATE)));
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/b/a", FMON_CREATE)));
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/a/out", FMON_CREATE)));
}

TEST(Selection, ByPathInAnyCase)
{
    Selection selection(0);
    OutputOptions options;
    options.include = {"^/a/"};
    options.include_any_case = {"[.]TXT$"};
    options.exclude_any_case = {"/readme"};
    std::string error;
    ASSERT_TRUE(selection.set_filter(options, error)) << error;
    selection.set_plan(plan_of({FMON_CREATE}, "/"));
    EXPECT_NE(selection.shown_kinds(event_of("/b/c.txt", FMON_CREATE)), 0u);
    EXPECT_NE(selection.shown_kinds(event_of("/b/c.Txt", FMON_CREATE)), 0u);
    EXPECT_NE(selection.shown_kinds(event_of("/a/c", FMON_CREATE)), 0u);
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/A/c", FMON_CREATE)));
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/a/ReadMe.txt", FMON_CREATE)));
}

TEST(Selection, ARenameByEitherPath)
{
    Selection selection(0);
    OutputOptions options;
    options.exclude = {"[.]tmp$"};
    std::string error;
    ASSERT_TRUE(selection.set_filter(options, error)) << error;
    selection.set_plan(plan_of({FMON_MOVED_TO}, "/a"));
    agent::Event event = event_of("/a/b", FMON_MOVED_TO);
    event.from = "/a/b.tmp";
    EXPECT_NE(selection.shown_kinds(event), 0u);
    std::swap(event.path, event.from);
    EXPECT_NE(selection.shown_kinds(event), 0u);
    event.from = "/a/c.tmp";
    EXPECT_EQ(0u, selection.shown_kinds(event));
}

TEST(Selection, NothingBelowWhatIsSpared)
{
    Selection selection(0);
    agent::Plan plan = plan_of({FMON_CREATE}, "/a");
    plan.spared = {"/a/s"};
    selection.set_plan(plan);
    EXPECT_NE(selection.shown_kinds(event_of("/a/s", FMON_CREATE)), 0u);
    EXPECT_NE(selection.shown_kinds(event_of("/a/s2", FMON_CREATE)), 0u);
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/a/s/b", FMON_CREATE)));
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/a/s/b/c", FMON_CREATE)));
}

TEST(Selection, ByWhoCausedIt)
{
    Selection selection(0);
    OutputOptions options;
    options.processes = {"cat"};
    std::string error;
    ASSERT_TRUE(selection.set_filter(options, error)) << error;
    selection.set_plan(plan_of({FMON_CREATE}, "/a"));
    agent::ProcessInfo process;
    process.name = "cat";
    EXPECT_NE(selection.shown_kinds(event_of("/a/b", FMON_CREATE, 1, &process)), 0u);
    process.name = "dog";
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/a/b", FMON_CREATE, 1, &process)));
    EXPECT_EQ(0u, selection.shown_kinds(event_of("/a/b", FMON_CREATE)));
}

TEST(Selection, AnIdThatIsNoneIsNamed)
{
    OutputOptions options;
    options.process_ids = {"first"};
    std::string error;
    EXPECT_FALSE(Selection(0).set_filter(options, error));
    EXPECT_EQ("--process-id 'first' is no number of a process", error);
}

TEST(Selection, APatternThatIsNoneIsNamed)
{
    for (const bool include : {true, false}) {
        OutputOptions options;
        (include ? options.include : options.exclude) = {"a("};
        std::string error;
        EXPECT_FALSE(Selection(0).set_filter(options, error));
        EXPECT_EQ(0u, error.find(include ? "--include 'a(' is no regular" : "--exclude 'a(' is no regular")) << error;
    }
    for (const bool include : {true, false}) {
        OutputOptions options;
        (include ? options.include_any_case : options.exclude_any_case) = {"a("};
        std::string error;
        EXPECT_FALSE(Selection(0).set_filter(options, error));
        EXPECT_EQ(0u, error.find(include ? "--iinclude 'a(' is no regular" : "--iexclude 'a(' is no regular")) << error;
    }
}
