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
    EXPECT_EQ(line(ORX_LOG_ERROR, "lost"), "2025-11-21T08:08:35.123456Z error fmon.c:42 [7] lost\n");
    EXPECT_EQ(line(ORX_LOG_WARNING, "x"), "2025-11-21T08:08:35.123456Z warning fmon.c:42 [7] x\n");
    EXPECT_EQ(line(ORX_LOG_INFO, "x"), "2025-11-21T08:08:35.123456Z info fmon.c:42 [7] x\n");
    EXPECT_EQ(line(ORX_LOG_DEBUG, "x"), "2025-11-21T08:08:35.123456Z debug fmon.c:42 [7] x\n");
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
    EXPECT_EQ(text, "1970-01-01T00:00:00.000000Z error a\\nb:1 [1] x\n");
    EXPECT_NE(host::log_line({{0, 0}, 1, nullptr, 1, 1}, "x").find(" ?:1 "), std::string::npos);
}

TEST(LogLine, KeepsOrdinaryText)
{
    EXPECT_EQ(escaped(""), "");
    EXPECT_EQ(escaped("watch /a b/%n*~"), "watch /a b/%n*~");
    EXPECT_EQ(escaped("gr\u00fc\u00dfe \u65e5\u672c \U0001f600"), "gr\u00fc\u00dfe \u65e5\u672c \U0001f600");
}

TEST(LogLine, EscapesControlsAndTheBackslash)
{
    EXPECT_EQ(escaped("a\nb\rc\td"), "a\\nb\\rc\\td");
    EXPECT_EQ(escaped("a\\nb"), "a\\\\nb");
    EXPECT_EQ(escaped("\x1b[31m\x7f\x01"), "\\x1b[31m\\x7f\\x01");
    EXPECT_EQ(escaped(std::string("\0", 1)), "\\x00");
}

/* Terminals obey U+009B as they obey escape; U+2028 ends a line in viewers; U+202E turns text around. */
TEST(LogLine, EscapesUnsafeCharacters)
{
    EXPECT_EQ(escaped("\u009b2J"), "\\xc2\\x9b2J");
    EXPECT_EQ(escaped("\u2028"), "\\xe2\\x80\\xa8");
    EXPECT_EQ(escaped("\u202e"), "\\xe2\\x80\\xae");
    EXPECT_EQ(escaped("\u2069"), "\\xe2\\x81\\xa9");
    EXPECT_EQ(escaped("\u00a0\u2027\u202f"), "\u00a0\u2027\u202f");
}

TEST(LogLine, EscapesWhatIsNotUtf8)
{
    EXPECT_EQ(escaped("a\xff"
                      "b"),
              "a\\xffb");
    EXPECT_EQ(escaped("\x80"), "\\x80");
    EXPECT_EQ(escaped("\xc0\xaf"), "\\xc0\\xaf") << "overlong";
    EXPECT_EQ(escaped("\xe0\x80\x8a"), "\\xe0\\x80\\x8a") << "an overlong newline";
    EXPECT_EQ(escaped("\xed\xa0\x80"), "\\xed\\xa0\\x80") << "surrogate";
    EXPECT_EQ(escaped("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond Unicode";
    EXPECT_EQ(escaped("\xe6\x97"), "\\xe6\\x97") << "cut character";
    EXPECT_EQ(escaped("\xe6\x97x"), "\\xe6\\x97x");
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
