/* Paths as they were typed. */
#include "output/given_paths.h"

#include <gtest/gtest.h>

using output::GivenPaths;

namespace
{

/* What is shown for a path when these were watched, each with what was typed for it. */
std::string shown(const std::vector<std::pair<const char *, const char *>> &roots, const char *path)
{
    GivenPaths given;
    for (const auto &[root_path, typed] : roots) {
        agent::Root root;
        root.path = root_path;
        root.given = typed;
        given.add(root);
    }
    std::string storage;
    return std::string(given.of(path, storage));
}

}  // namespace

TEST(GivenPaths, WhatLiesBelowIsShownBelowWhatWasTyped)
{
    EXPECT_EQ("src/a.c", shown({{"/home/u/src", "src"}}, "/home/u/src/a.c"));
    EXPECT_EQ("src", shown({{"/home/u/src", "src"}}, "/home/u/src"));
    EXPECT_EQ("src/x/y", shown({{"/home/u/src", "src/"}}, "/home/u/src/x/y"));
    EXPECT_EQ("./a", shown({{"/home/u", "."}}, "/home/u/a"));
    EXPECT_EQ("./src/a", shown({{"/home/u/src", "./src"}}, "/home/u/src/a"));
    EXPECT_EQ("../u/a", shown({{"/home/u", "../u"}}, "/home/u/a"));
    EXPECT_EQ("/lib/a", shown({{"/usr/lib", "/lib"}}, "/usr/lib/a")) << "through a link";
}

TEST(GivenPaths, ARootIsNoPrefixToBeDoubled)
{
    EXPECT_EQ("/a", shown({{"/", "/"}}, "/a"));
    EXPECT_EQ("/", shown({{"/", "/"}}, "/"));
    EXPECT_EQ("../a", shown({{"/", ".."}}, "/a"));
    EXPECT_EQ("/a", shown({{"/usr", "/"}}, "/usr/a"));
    EXPECT_EQ("/usr/a", shown({{"/usr", "/usr/"}}, "/usr/a"));
}

TEST(GivenPaths, TheNearestCounts)
{
    EXPECT_EQ("in/x", shown({{"/u", "out"}, {"/u/a/in", "in"}}, "/u/a/in/x"));
    EXPECT_EQ("out/a/inner", shown({{"/u", "out"}, {"/u/a/in", "in"}}, "/u/a/inner"));
    EXPECT_EQ("first/x", shown({{"/u", "first"}, {"/u", "second"}}, "/u/x"));
}

TEST(GivenPaths, OfAPatternWhatStandsBeforeTheStar)
{
    EXPECT_EQ("conf.d/a", shown({{"/etc/*.d", "*.d"}}, "/etc/conf.d/a"));
    EXPECT_EQ("home/u/.ssh/k", shown({{"/home/*/.ssh", "home/*/.ssh"}}, "/home/u/.ssh/k"));
    EXPECT_EQ("/home/u/.ssh", shown({{"/home/*/.ssh", "/home/*/.ssh"}}, "/home/u/.ssh"));
    EXPECT_EQ("/a.d", shown({{"/*.d", "/*.d"}}, "/a.d"));
    EXPECT_EQ("/etc", shown({{"/etc/*.d", "*.d"}}, "/etc")) << "a path is never empty";
}

TEST(GivenPaths, OtherPathsStayAsTheyAre)
{
    EXPECT_EQ("/b/a", shown({{"/a", "x"}}, "/b/a"));
    EXPECT_EQ("/ab", shown({{"/a", "x"}}, "/ab"));
    EXPECT_EQ("/a", shown({}, "/a"));
}

TEST(GivenPaths, WhatIsMadeEndsInANul)
{
    GivenPaths given;
    agent::Root root;
    root.path = "/a";
    root.given = "x";
    given.add(root);
    std::string storage;
    EXPECT_STREQ("x/b", given.of("/a/b", storage).data());
}
