#include "cli/front/option_parser.h"

#include <gtest/gtest.h>

TEST(CliParser, NumbersAndSeconds)
{
    uint64_t number = 0;
    EXPECT_TRUE(cli::parse_number("7", 7, 7, number));
    EXPECT_EQ(number, 7u);
    for (const char *bad : {"", "6", "8", "+7", " 7", "7 ", "7.0", "0x7", "-7", "18446744073709551623"})
        EXPECT_FALSE(cli::parse_number(bad, 7, 7, number)) << bad;
    EXPECT_TRUE(cli::parse_seconds("0.0015", 0.001, 2, number));
    EXPECT_EQ(number, 2u);
    for (const char *bad : {"", "0", "0.0009", "2.001", "nan", "inf", "1s", "1e0", "-1", "0x1"})
        EXPECT_FALSE(cli::parse_seconds(bad, 0.001, 2, number)) << bad;
}

TEST(CliParser, Words)
{
    const cli::Words words = cli::one_of("text json csv");
    EXPECT_EQ(cli::find_word(words, "text"), 0);
    EXPECT_EQ(cli::find_word(words, "csv"), 2);
    for (const char *other : {"", " ", "tex", "texts", "text json", "sv"})
        EXPECT_EQ(cli::find_word(words, other), -1) << other;
    EXPECT_EQ(cli::find_word({}, ""), -1);
    const cli::Option option = {'f', "form", "FORM", "", words};
    std::string error;
    EXPECT_EQ(cli::parse_choice({option, "json"}, error), 1);
    EXPECT_EQ(error, "");
    EXPECT_EQ(cli::parse_choice({option, "xml"}, error), -1);
    EXPECT_EQ(error, "--form takes text, json or csv, not 'xml'");
}
