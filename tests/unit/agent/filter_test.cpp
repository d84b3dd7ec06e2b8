/* Tests of filter.h: patterns and depths of what is shown. */

#include "agent/filter.h"

#include "unit/agent/agent_testing.h"

using namespace agent;

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

TEST(CliFilter, without_patterns_all_is_shown) { EXPECT_TRUE(Filter({}, {}).shows("/a")); }

TEST(CliFilter, one_of_those_to_include)
{
    const Filter filter({"\\.c$", "\\.h$"}, {});
    EXPECT_TRUE(filter.shows("/a.c"));
    EXPECT_TRUE(filter.shows("/a.h"));
    EXPECT_FALSE(filter.shows("/a.o"));
}

TEST(CliFilter, exclusion_wins)
{
    const Filter filter({"^/a/"}, {"~$", "/[.][^/]*[.]swp$"});
    EXPECT_TRUE(filter.shows("/a/b"));
    EXPECT_FALSE(filter.shows("/a/b~"));
    EXPECT_FALSE(filter.shows("/a/.b.swp"));
    EXPECT_FALSE(filter.shows("/b"));
}

TEST(CliFilter, works_on_bytes)
{
    EXPECT_FALSE(Filter({}, {"\xff$"}).shows("/a\xff"));
    EXPECT_FALSE(Filter({}, {"^/a.b$"}).shows("/a\nb"));
    EXPECT_TRUE(Filter({"^/(x|y)+$"}, {}).shows("/xyx"));
}

TEST(CliFilter, a_broken_pattern_is_told)
{
    PathFilter filter;
    std::string error;
    EXPECT_FALSE(filter.include("(", error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(filter.exclude("[a", error));
}

TEST(CliFilter, a_hidden_path_is_not_shown_but_its_neighbours_are)
{
    Filter filter({}, {});
    filter.filter.hide("/a/out");
    EXPECT_FALSE(filter.shows("/a/out"));
    EXPECT_TRUE(filter.shows("/a/out2"));
    EXPECT_TRUE(filter.shows("/a"));
}

TEST(CliFilter, depth_below_a_root)
{
    EXPECT_EQ(folder_depth("/a", "/a"), 0);
    EXPECT_EQ(folder_depth("/a", "/a/b"), 0);
    EXPECT_EQ(folder_depth("/a", "/a/b/c"), 1);
    EXPECT_EQ(folder_depth("/a", "/ab"), -1);
    EXPECT_EQ(folder_depth("/", "/a"), 0);
    EXPECT_EQ(folder_depth("/", "/a/b"), 1);
    EXPECT_EQ(folder_depth("/a/b", "/a"), -1);
}

TEST(CliFilter, below)
{
    EXPECT_TRUE(is_below("/a", "/a"));
    EXPECT_TRUE(is_below("/a", "/a/b"));
    EXPECT_FALSE(is_below("/a", "/ab"));
    EXPECT_TRUE(is_below("/", "/ab"));
    EXPECT_FALSE(is_below("/", ""));
}
