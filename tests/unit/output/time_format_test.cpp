/* Times by a format of the user's. */

#include "agent/time_format.h"

#include <cstdlib>
#include <ctime>

#include "unit/agent/agent_testing.h"

using agent::FormattedTime;
using agent_testing::kTime;

namespace
{

std::string time_of(const std::string &format, uint64_t ns = kTime)
{
    setenv("TZ", "UTC", 1);
    tzset();
    FormattedTime time(format);
    std::string out;
    time.append(ns, out);
    return out;
}

}  // namespace

TEST(CliTime, OfTheUsersFormat)
{
    EXPECT_EQ("2024-02-29 12:34:56", time_of("%F %T"));
    EXPECT_EQ("12:34:56.789", time_of("%T.%3N"));
    EXPECT_EQ("789012345", time_of("%N"));
    EXPECT_EQ("7|789012345|78 x", time_of("%1N|%9N|%2N x"));
    EXPECT_EQ("1709210096.789012", time_of("%s.%6N"));
    EXPECT_EQ("000000001", time_of("%N", 1000000001));
    EXPECT_EQ("plain", time_of("plain"));
}

TEST(CliTime, APercentSignAloneHidesNoFraction)
{
    EXPECT_EQ("%N", time_of("%%N"));
    EXPECT_EQ("%3N", time_of("%%3N"));
    EXPECT_EQ("%789012345", time_of("%%%N"));
    EXPECT_EQ("%0N", time_of("%0N").substr(0, 3)) << "what is not known is left to the C library";
    EXPECT_EQ("12", time_of("%H%")) << "at the end it stands for nothing";
}

TEST(CliTime, TheLongestFormatFits)
{
    std::string format;
    while (format.size() + 2 <= FormattedTime::kMaxFormat)
        format += "%c";
    const std::string one = time_of("%c");
    EXPECT_EQ(one.size() * (FormattedTime::kMaxFormat / 2), time_of(format).size());
}

TEST(CliTime, ASecondIsRenderedAnewWhenItChanges)
{
    FormattedTime time("%S.%1N");
    std::string out;
    for (const uint64_t ns : {kTime, kTime + 100000000, kTime + 1000000000, kTime})
        time.append(ns, out += ' ');
    EXPECT_EQ(" 56.7 56.8 57.7 56.7", out);
}
