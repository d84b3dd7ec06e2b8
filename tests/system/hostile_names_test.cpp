/*
 * Names are bytes: whatever stands in them arrives whole, and drives neither a terminal nor a JSON reader.
 */
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "harness.h"
#include "orx_fmon.h"

using namespace systest;
using testlib::TempTree;

namespace
{

const std::vector<std::string> &hostile()
{
    static const std::vector<std::string> list = {
        "new\nline",
        "{\"type\":\"event\"}\n{\"type\":\"loss\"}",
        "escape\x1b[31m\x1b]0;title\x07",
        "carriage\rreturn\ttab\bback",
        "invalid\xff\xfeutf8\xc3",
        "overlong\xc0\xaf",
        "surrogate\xed\xa0\x80",
        "c1\xc2\x9b"
        "31m",
        "turned\xe2\x80\xae"
        "around",
        "*",
        "%n%s%1000000d",
        "quote\"back\\slash",
        "\xc3\xa4\xe6\x97\xa5\xf0\x9f\x98\x80",
        " blanks ",
        "-r",
        "nul\\0",
        std::string(longest_name(), 'x'),
        std::string(longest_name(), '\xff'),
    };
    return list;
}

TEST(HostileNames, AreWholeInCallbacks)
{
    TempTree tree;
    Agent agent(tree.root());
    std::set<std::string> want, seen;
    for (const std::string &name : hostile()) {
        make_file(tree.path(name));
        want.insert(tree.path(name));
    }
    for (int64_t deadline = now_ms() + kPatienceMs; seen != want && now_ms() < deadline;)
        if (auto line = agent.line(200))
            if (auto delivery = parse_delivery(*line);
                delivery && delivery->client == "fast" && delivery->mask & FMON_CREATE)
                seen.insert(delivery->path);
    EXPECT_EQ(want, seen);
}

TEST(HostileNames, AreValidJsonAndCanBeTakenBack)
{
    TempTree tree;
    Watch watch(tree.root(), {"-r", "-e", "create"});
    watch.established();
    for (const std::string &name : hostile())
        make_file(tree.path(name));
    watch.barrier(tree.root(), {"create"});
    std::vector<std::string> want, seen;
    for (const std::string &name : hostile())
        want.push_back(tree.path(name));
    for (const Json &event : watch.events())
        seen.push_back(path_of(event));
    EXPECT_EQ(want, seen);
    EXPECT_EQ(0, watch.stop());
}

/* The bytes field stands where the name is no UTF-8, and there only. */
TEST(HostileNames, HaveABytesFieldWhereNeeded)
{
    TempTree tree;
    Watch watch(tree.root(), {"-e", "create"});
    watch.established();
    make_file(tree.path("\xc3\xa4\n"));
    make_file(tree.path("\xff"));
    watch.barrier(tree.root(), {"create"});
    ASSERT_EQ(2U, watch.events().size());
    EXPECT_FALSE(watch.events()[0].contains("path_bytes"));
    EXPECT_TRUE(watch.events()[1].contains("path_bytes"));
    EXPECT_EQ(watch.events()[1]["path"], tree.path("\xef\xbf\xbd"));
}

/* In text: one line an event, and no byte that a terminal acts on. */
TEST(HostileNames, AreEscapedInText)
{
    TempTree tree;
    Process fmon(
        {{std::string(FMON_TEST_BIN) + "/fmon", "watch", "-r", "-e", "create", "--format", "text", tree.root()}});
    for (int i = 0; i < 100 && !fmon.line(200); i++) /* nothing in text says that the watch stands */
        make_file(tree.path("start" + std::to_string(i)));
    while (fmon.line(300)) {
    }
    for (const std::string &name : hostile())
        make_file(tree.path(name));
    for (size_t i = 0; i < hostile().size(); i++) {
        auto line = fmon.line();
        ASSERT_TRUE(line) << i << " lines; " << fmon.errors();
        EXPECT_NE(line->find(tree.root()), std::string::npos) << *line;
        EXPECT_TRUE(std::all_of(line->begin(), line->end(), [](char c) {
            return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f;
        })) << testing::PrintToString(*line);
        EXPECT_EQ(line->find("\xc2\x9b"), std::string::npos);
        EXPECT_EQ(line->find("\xe2\x80\xae"), std::string::npos);
    }
    EXPECT_EQ(std::nullopt, fmon.line(300));
    EXPECT_EQ(0, fmon.interrupt());
}

/* A path of the greatest length that the monitor can build. */
TEST(HostileNames, LongPathsArrive)
{
    TempTree tree;
    std::string below;
    constexpr size_t kLongest = 1022, kName = 100;
    while (tree.path(below).size() + 2 * (kName + 1) < kLongest)
        below += (below.empty() ? "" : "/") + std::string(kName, 'd');
    below += "/" + std::string(kLongest - tree.path(below).size() - kName - 2, 'd');
    std::string dir = tree.dir(below);
    Watch watch(tree.root(), {"-r", "-e", "create"});
    watch.established();
    std::string longest = dir + "/" + std::string(kName, 'f');
    ASSERT_EQ(kLongest, longest.size());
    make_file(longest);
    make_file(longest + "f"); /* one byte more: cannot be built, must harm nothing */
    watch.barrier(tree.root(), {"create"});
    ASSERT_GE(watch.events().size(), 1U);
    EXPECT_EQ(watch.events()[0]["path"], longest);
    EXPECT_EQ(0, watch.stop());
}

}  // namespace
