/* Sizes and times as people write them, and what a table's defaults stand for. */
#include "output/settings_text.h"

#include <gtest/gtest.h>

using namespace output;

namespace
{

/* -1: it is none. */
int64_t bytes_of(std::string_view text)
{
    uint64_t bytes = 0;
    return parse_bytes(text, bytes) ? static_cast<int64_t>(bytes) : -1;
}

int64_t ms_of(std::string_view text)
{
    uint64_t ms = 0;
    return parse_time(text, ms) ? static_cast<int64_t>(ms) : -1;
}

}  // namespace

TEST(SettingsText, SizesHaveUnits)
{
    EXPECT_EQ(512, bytes_of("512"));
    EXPECT_EQ(64 << 20, bytes_of("64 MiB"));
    EXPECT_EQ(64'000'000, bytes_of("64MB"));
    EXPECT_EQ(int64_t{2} << 30, bytes_of(" 2 GiB "));
    for (const char *text : {"", "MiB", "-1", "1.5 MiB", "1 mib", "1 MiB x", "99999999999 TiB", "99999999999999999999"})
        EXPECT_EQ(-1, bytes_of(text)) << text;
}

TEST(SettingsText, TimesHaveUnits)
{
    EXPECT_EQ(10'000, ms_of("10"));
    EXPECT_EQ(10'000, ms_of("10 s"));
    EXPECT_EQ(500, ms_of("0.5 s"));
    EXPECT_EQ(250, ms_of("250ms"));
    EXPECT_EQ(300'000, ms_of("5 min"));
    EXPECT_EQ(7 * 86'400'000, ms_of("7 d"));
    for (const char *text : {"", "s", "-1 s", "1 year", "1e300 s", "nan", "inf s", "1 s 2"})
        EXPECT_EQ(-1, ms_of(text)) << text;
}

TEST(SettingsText, DefaultsAreOfTheirType)
{
    constexpr Setting kRows[] = {
        {"text", SettingType::kText, "", "a b"},     {"texts", SettingType::kTexts, "", "a, b"},
        {"number", SettingType::kNumber, "", "5"},   {"bytes", SettingType::kBytes, "", "1 KiB"},
        {"time", SettingType::kTime, "", "2 s"},     {"flag", SettingType::kFlag, "", "true"},
        {"secret", SettingType::kSecret, "", "/s"},  {"none", SettingType::kText, "", nullptr},
        {"wrong", SettingType::kNumber, "", "many"}, {"said", SettingType::kNumber, "", "5"},
    };
    Settings settings;
    settings.set("said", uint64_t{6});
    set_defaults(kRows, settings);
    EXPECT_EQ("a b", settings.text("text"));
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), settings.texts("texts"));
    EXPECT_EQ(5u, settings.number("number"));
    EXPECT_EQ(1024u, settings.number("bytes"));
    EXPECT_EQ(2000u, settings.number("time"));
    EXPECT_TRUE(settings.flag("flag"));
    EXPECT_EQ("/s", settings.text("secret"));
    EXPECT_FALSE(settings.has("none"));
    EXPECT_FALSE(settings.has("wrong"));
    EXPECT_EQ(6u, settings.number("said"));
}
