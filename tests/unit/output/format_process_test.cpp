/* Tests of format.h: who did it, and what made them, in every form that shows it. */
#include "agent/ancestors.h"
#include "orx_fmon.h"
#include "output/format.h"
#include "output/formats.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using namespace output;
using agent_testing::event_of;
using agent_testing::kTime;

namespace
{

class ProcessForms : public testing::Test
{
protected:
    ProcessForms()
    {
        cat.loginuid = 1000;
        cat.start_ns = kTime;
        cat.parent =
            make_ancestor("sh\033", 7, kTime, make_ancestor("", 3, 0, make_ancestor("init", 1, kTime, nullptr)));
        style.sources = {"watch"};
        style.ancestors = true;
    }
    std::string line(Formatter &formatter) const
    {
        std::string out;
        formatter.event(event_of("/a", FMON_MODIFY, 42, &cat), out);
        return out;
    }
    std::string line(const std::string &form)
    {
        std::string error;
        return line(*make_formatter(form, style, error));
    }

    ProcessInfo cat = {"cat", "/usr/bin/cat", "cat x", 1000, 7, 1};
    FormatStyle style;
};

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST_F(ProcessForms, JsonHasStartLoginUserAndAncestors)
{
    EXPECT_TRUE(has(line("json"),
                    "\"process\":{\"name\":\"cat\",\"exe\":\"/usr/bin/cat\",\"cmdline\":\"cat x\",\"uid\":1000,"
                    "\"loginuid\":1000,\"ppid\":7,\"start\":\"2024-02-29T12:34:56.789012345Z\",\"ancestors\":["
                    "{\"pid\":7,\"name\":\"sh\\u001B\",\"start\":\"2024-02-29T12:34:56.789012345Z\"},{\"pid\":3},"
                    "{\"pid\":1,\"name\":\"init\",\"start\":\"2024-02-29T12:34:56.789012345Z\"}]}"))
        << line("json");
}

TEST_F(ProcessForms, WithoutTheOptionNoAncestors)
{
    style.ancestors = false;
    EXPECT_FALSE(has(line("json"), "ancestors"));
    EXPECT_FALSE(has(line("text"), "init"));
}

TEST_F(ProcessForms, WhatIsNotKnownIsLeftOut)
{
    cat = {"", "", "", {}, 7, 0};
    EXPECT_TRUE(has(line("json"), "\"process\":{\"ppid\":7,\"ancestors\":[]}")) << line("json");
    EXPECT_TRUE(has(line("text"), "?[42]\n"));
    EXPECT_EQ(" <>\n", line("%n <%a>"));
}

TEST_F(ProcessForms, TextAndTemplatesShowAncestors)
{
    EXPECT_TRUE(has(line("text"), "cat[42] < sh\\033[7] < ?[3] < init[1]\n")) << line("text");
    EXPECT_EQ("cat: sh\033[7] < ?[3] < init[1]\n", line("%n: %a"));
    style.terminal = true;
    EXPECT_EQ("sh\\033[7] < ?[3] < init[1]\n", line("%a"));
}

TEST(Ancestors, ListsAreSharedAndBounded)
{
    AncestorPtr list;
    for (uint32_t pid = 1; pid <= 1000; pid++) {
        list = make_ancestor("p", pid, 0, list);
        EXPECT_LE(list->depth, kMostAncestors);
    }
    EXPECT_EQ(1000u, list->pid);
    EXPECT_EQ(999u, list->parent->pid);
    EXPECT_GE(list->depth, kMostAncestors / 2);
    EXPECT_EQ(list->parent, make_ancestor("q", 5, 0, list->parent)->parent);
}
