/* Tests of event_map.cpp: names of kinds and flags, both directions. */

#include <gtest/gtest.h>

#include <string>

#include "event.h"

namespace
{

const char kAllNames[] =
    "open,access,modify,create,delete,moved_from,moved_to,attrib,close_write,close_nowrite,move_self,delete_self";

uint32_t parse_events(std::string text) { return event_mask(text.data()); }
uint32_t parse_flags(std::string text) { return flags_mask(text.data()); }

TEST(EventMap, RowsAreInOrder)
{
    const struct bits_row expected[] = {
        {"open", 0x20},       {"access", 0x1},        {"modify", 0x2}, {"create", 0x100},    {"delete", 0x200},
        {"moved_from", 0x40}, {"moved_to", 0x80},     {"attrib", 0x4}, {"close_write", 0x8}, {"close_nowrite", 0x10},
        {"move_self", 0x800}, {"delete_self", 0x400}, {"all", 0xfff},  {"close", 0x18},
    };
    ASSERT_EQ(14u, std::size(expected));
    for (int i = 0; i < EVENT_MAP_ROWS; i++) {
        EXPECT_STREQ(expected[i].name, event_map[i].name);
        EXPECT_EQ(expected[i].mask, event_map[i].mask) << expected[i].name;
    }
}

TEST(EventMap, FlagRowsAreInOrder)
{
    const struct bits_row expected[] = {
        {"file", 0x1},   {"dir", 0x2},         {"mount", 0x4},        {"recursive", 0x8},
        {"delay", 0x10}, {"pid", 0x20},        {"symbolic", 0x40},    {"deleted", 0x80},
        {"sync", 0x100}, {"dynamic", 0x10000}, {"asterisk", 0x20000},
    };
    ASSERT_EQ(11u, std::size(expected));
    for (int i = 0; i < FLAGS_MAP_ROWS; i++) {
        EXPECT_STREQ(expected[i].name, flags_map[i].name);
        EXPECT_EQ(expected[i].mask, flags_map[i].mask) << expected[i].name;
    }
}

TEST(EventMap, EveryRowParsesAndSingleRowsPrint)
{
    for (int i = 0; i < EVENT_MAP_ROWS; i++) {
        EXPECT_EQ(event_map[i].mask, parse_events(event_map[i].name));
        if (i < 12) {
            EXPECT_STREQ(event_map[i].name, event_str(event_map[i].mask));
        }
    }
    for (const struct bits_row &row : flags_map) {
        EXPECT_EQ(row.mask, parse_flags(row.name));
        EXPECT_STREQ(row.name, flags_str(row.mask));
    }
}

TEST(EventMap, EveryMaskSurvivesPrintingAndParsing)
{
    for (uint32_t mask = 0; mask <= 0xfff; mask++)
        ASSERT_EQ(mask, parse_events(event_str(mask))) << mask;
    for (uint32_t i = 0; i < 1U << 11; i++) {
        uint32_t flags = (i & 0x1ff) | (i & 0x600) << 7;
        ASSERT_EQ(flags, parse_flags(flags_str(flags))) << flags;
    }
}

TEST(EventMap, CloseIsSpelledOut) { EXPECT_STREQ("close_write,close_nowrite", event_str(0x18)); }

TEST(EventMap, AllIsSpelledOut) { EXPECT_STREQ(kAllNames, event_str(0xfff)); }

TEST(EventMap, NamesComeInTableOrder) { EXPECT_STREQ("open,access", event_str(0x21)); }

TEST(EventMap, UnknownBitsPrintAsNothing)
{
    EXPECT_STREQ("", event_str(0x4000));
    EXPECT_STREQ("", event_str(0x1000));
    EXPECT_STREQ("", event_str(0));
    EXPECT_STREQ("modify", event_str(0xf0000002));
    EXPECT_STREQ("", flags_str(0x40000));
    EXPECT_STREQ(kAllNames, event_str(0xffffffff));
}

TEST(EventMap, CombinationsParse)
{
    EXPECT_EQ(0xfffu, parse_events("all"));
    EXPECT_EQ(0x18u, parse_events("close"));
    EXPECT_EQ(0x1au, parse_events("modify,close"));
}

TEST(EventMap, EmptyAndUnknownPiecesAddNothing)
{
    EXPECT_EQ(0x22u, parse_events("modify,bogus,,open"));
    EXPECT_EQ(0x22u, parse_events(",,modify,,open,,"));
    EXPECT_EQ(0u, parse_events(""));
    EXPECT_EQ(0u, parse_events(",,,"));
    EXPECT_EQ(0u, parse_events("bogus"));
}

TEST(EventMap, NamesAreExact)
{
    EXPECT_EQ(0u, parse_events("Modify"));
    EXPECT_EQ(0u, parse_events(" modify"));
    EXPECT_EQ(0u, parse_events("modify "));
    EXPECT_EQ(0x20u, parse_events("open, modify"));
    EXPECT_EQ(0u, parse_events("mod"));
    EXPECT_EQ(0u, parse_events("modifyx"));
    EXPECT_EQ(0u, parse_events("modify;open"));
    EXPECT_EQ(0u, parse_events("4096"));
}

TEST(EventMap, RepeatedNamesCountOnce) { EXPECT_EQ(0x2u, parse_events("modify,modify,modify")); }

TEST(EventMap, ParsingCutsTheTextUp)
{
    char text[] = "modify,open";
    EXPECT_EQ(0x22u, event_mask(text));
    EXPECT_STREQ("modify", text);
}

TEST(EventMap, InternalFlagsPrint)
{
    EXPECT_STREQ("dir,asterisk", flags_str(0x20002));
    EXPECT_STREQ("mount,pid", flags_str(0x24));
    EXPECT_STREQ("dynamic,asterisk", flags_str(0x30000));
}

TEST(EventMap, ThreeBuffersAreIndependent)
{
    const char *a = event_str(0x2), *b = event_str2(0x8), *c = flags_str(0x2);
    EXPECT_STREQ("modify", a);
    EXPECT_STREQ("close_write", b);
    EXPECT_STREQ("dir", c);
    EXPECT_EQ(a, event_str(0x20));
    EXPECT_STREQ("open", a);
}

TEST(EventMap, ShortBuffersCutTheNames)
{
    const std::string whole = "open,access,modify";
    for (int size = 1; size <= 20; size++) {
        std::string storage(32, '#');
        EXPECT_EQ(storage.data(), bits_str(0x23, storage.data(), size, event_map, EVENT_MAP_ROWS));
        size_t kept = std::min(whole.size(), static_cast<size_t>(size - 1));
        EXPECT_STREQ(whole.substr(0, kept).c_str(), storage.c_str()) << size;
        for (size_t i = static_cast<size_t>(size); i < storage.size(); i++)
            ASSERT_EQ('#', storage[i]) << size << " " << i;
    }
}

TEST(EventMap, BufferWithoutRoomIsLeftAlone)
{
    char storage[] = "#";
    EXPECT_EQ(storage, bits_str(0x2, storage, 0, event_map, EVENT_MAP_ROWS));
    EXPECT_STREQ("#", storage);
}

TEST(EventMap, OnlyTheRowsGivenCount)
{
    char storage[64], text[] = "open,access";
    EXPECT_STREQ("open", bits_str(0x23, storage, sizeof storage, event_map, 1));
    EXPECT_EQ(0x20u, bits_mask(text, event_map, 1));
}

}  // namespace
