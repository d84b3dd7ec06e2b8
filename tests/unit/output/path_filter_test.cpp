/* Tests of path_filter.h: patterns of what is shown. */

#include "output/path_filter.h"

#include "unit/agent/agent_testing.h"

using namespace output;

namespace
{

struct Filter {
    Filter(std::vector<std::string> include, std::vector<std::string> exclude)
    {
        std::string error;
        for (const std::string &pattern : include)
            EXPECT_TRUE(filter.include(pattern, error)) << error;
        for (const std::string &pattern : exclude)
            EXPECT_TRUE(filter.exclude(pattern, error)) << error;
    }
    bool shows(const std::string &path) const { return filter.shows(path); }
    PathFilter filter;
};

}  // namespace

TEST(CliFilter, WithoutPatternsAllIsShown) { EXPECT_TRUE(Filter({}, {}).shows("/a")); }

TEST(CliFilter, OneOfThoseToInclude)
{
    const Filter filter({"\\.c$", "\\.h$"}, {});
    EXPECT_TRUE(filter.shows("/a.c"));
    EXPECT_TRUE(filter.shows("/a.h"));
    EXPECT_FALSE(filter.shows("/a.o"));
}

TEST(CliFilter, ExclusionWins)
{
    const Filter filter({"^/a/"}, {"~$", "/[.][^/]*[.]swp$"});
    EXPECT_TRUE(filter.shows("/a/b"));
    EXPECT_FALSE(filter.shows("/a/b~"));
    EXPECT_FALSE(filter.shows("/a/.b.swp"));
    EXPECT_FALSE(filter.shows("/b"));
}

TEST(CliFilter, WorksOnBytes)
{
    EXPECT_FALSE(Filter({}, {"\xff$"}).shows("/a\xff"));
    EXPECT_FALSE(Filter({}, {"^/a.b$"}).shows("/a\nb"));
    EXPECT_TRUE(Filter({"^/(x|y)+$"}, {}).shows("/xyx"));
}

TEST(CliFilter, ABrokenPatternIsTold)
{
    PathFilter filter;
    std::string error;
    EXPECT_FALSE(filter.include("(", error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(filter.exclude("[a", error));
}

TEST(CliFilter, AHiddenPathIsNotShownButItsNeighboursAre)
{
    Filter filter({}, {});
    filter.filter.hide("/a/out");
    EXPECT_FALSE(filter.shows("/a/out"));
    EXPECT_TRUE(filter.shows("/a/out2"));
    EXPECT_TRUE(filter.shows("/a"));
}
