/* Tests of log_line.h: a log line's text, whatever bytes it is given. */

#include "log_line.h"

#include "host_support.h"
#include "orx_base.h"

namespace
{

std::string escaped(const std::string &text)
{
    std::string out;
    host::append_escaped(out, text);
    return out;
}

std::string line(int level, const std::string &text)
{
    return host::log_line({{1763712515, 123456789}, level, "fmon.c", 42, 7}, text);
}

TEST(LogLine, NamesTimeLevelPlaceAndThread)
{
    EXPECT_EQ("2025-11-21T08:08:35.123456Z error fmon.c:42 [7] lost\n", line(ORX_LOG_ERROR, "lost"));
    EXPECT_EQ("2025-11-21T08:08:35.123456Z warning fmon.c:42 [7] x\n", line(ORX_LOG_WARNING, "x"));
    EXPECT_EQ("2025-11-21T08:08:35.123456Z info fmon.c:42 [7] x\n", line(ORX_LOG_INFO, "x"));
    EXPECT_EQ("2025-11-21T08:08:35.123456Z debug fmon.c:42 [7] x\n", line(ORX_LOG_DEBUG, "x"));
}

TEST(LogLine, TakesLevelsOutOfRange)
{
    EXPECT_NE(line(0, "x").find(" fatal "), std::string::npos);
    EXPECT_NE(line(-5, "x").find(" fatal "), std::string::npos);
    EXPECT_NE(line(99, "x").find(" debug "), std::string::npos);
}

TEST(LogLine, EscapesTheSourceNameToo)
{
    std::string text = host::log_line({{0, 0}, 1, "a\nb", 1, 1}, "x");
    EXPECT_EQ("1970-01-01T00:00:00.000000Z error a\\nb:1 [1] x\n", text);
    EXPECT_NE(host::log_line({{0, 0}, 1, nullptr, 1, 1}, "x").find(" ?:1 "), std::string::npos);
}

TEST(LogLine, KeepsOrdinaryText)
{
    EXPECT_EQ("", escaped(""));
    EXPECT_EQ("watch /a b/%n*~", escaped("watch /a b/%n*~"));
    EXPECT_EQ("gr\u00fc\u00dfe \u65e5\u672c \U0001f600", escaped("gr\u00fc\u00dfe \u65e5\u672c \U0001f600"));
}

TEST(LogLine, EscapesControlsAndTheBackslash)
{
    EXPECT_EQ("a\\nb\\rc\\td", escaped("a\nb\rc\td"));
    EXPECT_EQ("a\\\\nb", escaped("a\\nb"));
    EXPECT_EQ("\\x1b[31m\\x7f\\x01", escaped("\x1b[31m\x7f\x01"));
    EXPECT_EQ("\\x00", escaped(std::string("\0", 1)));
}

/* Terminals obey U+009B as they obey escape; U+2028 ends a line in viewers; U+202E turns text around. */
TEST(LogLine, EscapesUnsafeCharacters)
{
    EXPECT_EQ("\\xc2\\x9b2J", escaped("\u009b2J"));
    EXPECT_EQ("\\xe2\\x80\\xa8", escaped("\u2028"));
    EXPECT_EQ("\\xe2\\x80\\xae", escaped("\u202e"));
    EXPECT_EQ("\\xe2\\x81\\xa9", escaped("\u2069"));
    EXPECT_EQ("\u00a0\u2027\u202f", escaped("\u00a0\u2027\u202f"));
}

TEST(LogLine, EscapesWhatIsNotUtf8)
{
    EXPECT_EQ("a\\xffb", escaped("a\xff"
                                 "b"));
    EXPECT_EQ("\\x80", escaped("\x80"));
    EXPECT_EQ("\\xc0\\xaf", escaped("\xc0\xaf")) << "overlong";
    EXPECT_EQ("\\xe0\\x80\\x8a", escaped("\xe0\x80\x8a")) << "an overlong newline";
    EXPECT_EQ("\\xed\\xa0\\x80", escaped("\xed\xa0\x80")) << "surrogate";
    EXPECT_EQ("\\xf4\\x90\\x80\\x80", escaped("\xf4\x90\x80\x80")) << "beyond Unicode";
    EXPECT_EQ("\\xe6\\x97", escaped("\xe6\x97")) << "cut character";
    EXPECT_EQ("\\xe6\\x97x", escaped("\xe6\x97x"));
}

TEST(LogLine, StaysOneLineForEveryByte)
{
    std::string all;
    for (int c = 0; c < 256; c++)
        all += static_cast<char>(c);
    std::string text = line(1, all + all);
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    for (char c : text.substr(0, text.size() - 1))
        EXPECT_TRUE(c >= 0x20 && c < 0x7f) << static_cast<int>(c);
}

}  // namespace
