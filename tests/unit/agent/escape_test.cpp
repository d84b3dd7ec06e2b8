/* Tests of escape.h: bytes of names in text, JSON and CSV. */

#include "agent/escape.h"

#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

// What the well-formed sequences are, by decoding: an oracle that shares nothing with the table of lead bytes.
size_t decoded_length(std::string_view s)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    if (byte(0) < 0x80)
        return 1;
    const size_t n = byte(0) >> 5 == 6 ? 2 : byte(0) >> 4 == 14 ? 3 : byte(0) >> 3 == 30 ? 4 : 0;
    if (n == 0 || s.size() < n)
        return 0;
    uint32_t code = byte(0) & (0xff >> (n + 1));
    for (size_t i = 1; i < n; i++) {
        if (byte(i) >> 6 != 2)
            return 0;
        code = code << 6 | (byte(i) & 0x3f);
    }
    const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    return code < least[n] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff) ? 0 : n;
}

bool is_safe_for_a_terminal(std::string_view text)
{
    if (!is_utf8(text))
        return false;
    for (size_t i = 0; i < text.size(); i++) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7f || (c == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0))
            return false;
    }
    return true;
}

// Takes the escapes back.
std::string unescaped(std::string_view text)
{
    const std::string_view letters = "abtnvfr";
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '\\') {
            out.push_back(text[i]);
        } else if (text[++i] == '\\') {
            out.push_back('\\');
        } else if (letters.find(text[i]) != std::string_view::npos) {
            out.push_back(static_cast<char>(7 + letters.find(text[i])));
        } else {
            out.push_back(static_cast<char>(std::stoi(std::string(text.substr(i, 3)), nullptr, 8)));
            i += 2;
        }
    }
    return out;
}

}  // namespace

TEST(CliEscape, Utf8OfAllShortSequences)
{
    for (unsigned a = 0; a < 256; a++)
        for (unsigned b = 0; b < 256; b++) {
            for (const unsigned tail : {0x00u, 0x7fu, 0x80u, 0xbfu, 0xc0u}) {
                const char bytes[] = {static_cast<char>(a), static_cast<char>(b), static_cast<char>(tail),
                                      static_cast<char>(0x80)};
                for (size_t n = 1; n <= 4; n++)
                    ASSERT_EQ(utf8_length({bytes, n}), decoded_length({bytes, n})) << a << " " << b << " " << tail;
            }
        }
}

TEST(CliEscape, ReplacementMakesValidUtf8AndKeepsWhatIsValid)
{
    std::string out;
    append_utf8("a\xff\xc3\xa9\xed\xa0\x80z", out);
    EXPECT_EQ("a\xef\xbf\xbd\xc3\xa9\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbdz", out);
    std::mt19937 random(1);
    for (int i = 0; i < 20000; i++) {
        const std::string bytes = agent_testing::random_bytes(random, 40);
        out.clear();
        append_utf8(bytes, out);
        ASSERT_TRUE(is_utf8(out));
        if (is_utf8(bytes)) {
            ASSERT_EQ(out, bytes);
        }
    }
}

TEST(CliEscape, AsciiRunIsFollowedByWhateverComes)
{
    EXPECT_TRUE(is_utf8("12345678"));
    EXPECT_TRUE(
        is_utf8("1234567\xc3\xa9"
                "0123456789"));
    EXPECT_FALSE(is_utf8("12345678\xff"));
    EXPECT_FALSE(is_utf8("12345678901234567\xc3"));
    EXPECT_TRUE(is_utf8(""));
}

TEST(CliEscape, EveryByteIsSafeForATerminal)
{
    EXPECT_EQ("a\\nb\\t\\033[31m\\\\ \\177\\001", escaped("a\nb\t\033[31m\\ \x7f\x01"));
    for (unsigned byte = 0; byte < 256; byte++) {
        const char c = static_cast<char>(byte);
        EXPECT_TRUE(is_safe_for_a_terminal(escaped({&c, 1}))) << byte;
    }
    std::mt19937 random(2);
    for (int i = 0; i < 20000; i++) {
        const std::string bytes = agent_testing::random_bytes(random, 40);
        ASSERT_TRUE(is_safe_for_a_terminal(escaped(bytes)));
        ASSERT_EQ(unescaped(escaped(bytes)), bytes);
    }
}

TEST(CliEscape, CharactersThatTurnOrEndALineAreEscaped)
{
    for (const std::string text :
         {"\xe2\x80\xae", "\xe2\x80\xa8", "\xe2\x81\xa6", "\xe2\x80\x8f", "\xc2\x9b", "\xd8\x9c", "\xef\xbb\xbf"})
        EXPECT_EQ('\\', escaped(text)[0]) << text;
    for (const std::string text : {"\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xc2\xa0"})
        EXPECT_EQ(escaped(text), text);
}

TEST(CliEscape, AnOctalEscapeDoesNotRunIntoADigit)
{
    EXPECT_EQ("\\0017", escaped("\x01"
                                "7"));
}

TEST(CliEscape, AMessageKeepsItsBackslashes)
{
    std::string out;
    append_safe("Unmatched ( or \\( in \n", out);
    EXPECT_EQ("Unmatched ( or \\( in \\n", out);
}

TEST(CliEscape, CsvFields)
{
    const auto csv = [](std::string_view field) {
        std::string out;
        append_csv(field, out);
        return out;
    };
    EXPECT_EQ("plain name", csv("plain name"));
    EXPECT_EQ("", csv(""));
    EXPECT_EQ("\"a,b\"", csv("a,b"));
    EXPECT_EQ("\"a\"\"b\"", csv("a\"b"));
    EXPECT_EQ("\"a\nb\r\"", csv("a\nb\r"));
}

TEST(CliEscape, Base64)
{
    const char *pairs[][2] = {{"", ""},
                              {"f", "Zg=="},
                              {"fo", "Zm8="},
                              {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="},
                              {"fooba", "Zm9vYmE="},
                              {"foobar", "Zm9vYmFy"},
                              {"\xff\xfe", "//4="}};
    for (const auto &pair : pairs) {
        std::string out;
        append_base64(pair[0], out);
        EXPECT_EQ(out, pair[1]);
    }
}
