/* Tests of below.h: which path lies below which. */

#include "agent/below.h"

#include <gtest/gtest.h>

using namespace agent;

TEST(Below, DepthBelowARoot)
{
    EXPECT_EQ(0, directory_depth("/a", "/a"));
    EXPECT_EQ(0, directory_depth("/a", "/a/b"));
    EXPECT_EQ(1, directory_depth("/a", "/a/b/c"));
    EXPECT_EQ(-1, directory_depth("/a", "/ab"));
    EXPECT_EQ(0, directory_depth("/", "/a"));
    EXPECT_EQ(1, directory_depth("/", "/a/b"));
    EXPECT_EQ(-1, directory_depth("/a/b", "/a"));
}

TEST(Below, IsTheRootItselfOrDeeper)
{
    EXPECT_TRUE(is_below("/a", "/a"));
    EXPECT_TRUE(is_below("/a", "/a/b"));
    EXPECT_FALSE(is_below("/a", "/ab"));
    EXPECT_TRUE(is_below("/", "/ab"));
    EXPECT_FALSE(is_below("/", ""));
}
