/* The table of forms. */
#include "output/formats.h"

#include <gtest/gtest.h>

using namespace output;

TEST(Formats, EachIsFoundByItsNameAndMakesAFormatter)
{
    for (const FormatRow &row : kFormats) {
        EXPECT_EQ(&row, find_format(row.name));
        std::string error;
        EXPECT_NE(make_formatter(row.name, {}, error), nullptr) << row.name;
        EXPECT_EQ("", error);
    }
    EXPECT_EQ(nullptr, find_format("xml"));
}

TEST(Formats, NamesAreListedInOrder)
{
    EXPECT_EQ(0u, format_names().find("text, json, csv")) << format_names();
    EXPECT_EQ(0u, format_names(" ").find("text json csv"));
}

TEST(Formats, ATemplateAsksForWhatItShows)
{
    EXPECT_TRUE(asks_for("%p %o", 'o') && asks_for("%o", 'o') && asks_for("%%%o", 'o'));
    EXPECT_FALSE(asks_for("json", 'o') || asks_for("o%%o", 'o') || asks_for("%p%", 'o') || asks_for("", 'o'));
}

TEST(Formats, WhatIsNoNameIsATemplate)
{
    std::string error;
    EXPECT_NE(make_formatter("%e %p", {}, error), nullptr) << error;
    EXPECT_EQ(nullptr, make_formatter("%q", {}, error));
    EXPECT_NE(error, "");
}
