/* The screen of `fmon top` as lines, its keys, and texts in columns. */
#include <gtest/gtest.h>

#include "cli/top/columns.h"
#include "cli/top/display.h"
#include "cli/top/view.h"
#include "orx_fmon.h"

using namespace cli;
using Strings = std::vector<std::string>;

namespace
{

constexpr Size kSmall = {80, 24}, kLarge = {200, 60};

class TopView : public testing::Test
{
protected:
    TopView() { choose_widths(); }

    void happens(const std::string &path, int times, const char *process = "cat", const char *container = "")
    {
        for (int i = 0; i < times; i++)
            board.add({path, FMON_MODIFY, 7, process, container}, now);
    }
    void look() { view.take(board.look(view.query(), now)); }
    void press(int key)
    {
        view.press(key, kSmall);
        look();
    }
    void type(const std::string &text)
    {
        for (const char c : text)
            press(static_cast<unsigned char>(c));
    }

    Strings texts(const Size &size = kSmall)
    {
        look();
        Strings all;
        for (const Line &line : view.lines(size)) {
            EXPECT_LE(width_of(line.text), size.width) << line.text;
            all.push_back(line.text);
        }
        return all;
    }
    std::string row(size_t number, const Size &size = kSmall) { return texts(size)[7 + number]; }
    std::string selected()
    {
        for (const Line &line : view.lines(kSmall))
            if (line.look == Look::kSelected)
                return line.text;
        return "";
    }

    uint64_t now = 1'005'000;
    Board board{1'000'000};
    View view{Query()};
};

bool ends_with(const std::string &text, const std::string &end) { return text.ends_with(end); }
bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
std::string trimmed(std::string text) { return text.substr(0, text.find_last_not_of(' ') + 1); }

}  // namespace

TEST_F(TopView, FillsTheScreenAndNoMore)
{
    for (int i = 0; i < 100; i++)
        happens("/srv/" + std::to_string(i), 1);
    for (const Size &size : {kSmall, kLarge, Size{20, 5}, Size{1, 1}, Size{40, 9}})
        EXPECT_EQ(std::max<size_t>(size.height, 1), texts(size).size());
    EXPECT_TRUE(view.lines({0, 0}).empty());
}

TEST_F(TopView, ShowsRatesTotalsWhoAndWhere)
{
    happens("/srv/data/a", 40);
    happens("/srv/data/b", 4);
    board.established("/srv", "filesystem", 0);
    EXPECT_TRUE(has(texts()[0], "up 0:00:05  /srv"));
    EXPECT_EQ("events   11.0/s, 44 in all; from filesystem", texts()[1]);
    EXPECT_EQ("kinds/s  modify 11.0", texts()[2]);
    EXPECT_EQ("losses   none", texts()[3]);
    EXPECT_EQ("    EV/S      EVENTS PROCESS            FILE", trimmed(texts()[6]));
    EXPECT_EQ("    10.0          40 cat[7]             /srv/data/a", trimmed(row(0)));
    EXPECT_EQ("     1.0           4 cat[7]             /srv/data/b", trimmed(row(1)));
    EXPECT_EQ("    10.0          40   now modify                 cat[7]             /srv/data/a",
              trimmed(row(0, {120, 24})));
}

TEST_F(TopView, LossesAndMessagesAreSaid)
{
    board.lost("inotify", 3);
    board.lost("filesystem", 1);
    board.lost("inotify", 2);
    board.say("not watched any more (deleted): /srv\033[2J");
    EXPECT_EQ("losses   filesystem 1, inotify 5", texts()[3]);
    EXPECT_EQ(Look::kWarning, view.lines(kSmall)[3].look);
    EXPECT_EQ("not watched any more (deleted): /srv\\033[2J", texts()[23]);
}

TEST_F(TopView, KeysChooseTables)
{
    happens("/srv/a", 2, "cat", "web");
    EXPECT_TRUE(has(texts()[4], "[1 files]"));
    press('2');
    EXPECT_TRUE(ends_with(trimmed(row(0)), " /srv"));
    press(kKeyTab);
    EXPECT_TRUE(has(texts()[4], "[3 processes]"));
    EXPECT_TRUE(has(texts()[6], "BUSIEST DIRECTORY"));
    EXPECT_TRUE(has(row(0), "cat[7]"));
    press('4');
    EXPECT_TRUE(has(row(0), "web"));
    press(kKeyTab);
    EXPECT_TRUE(has(texts()[4], "[1 files]"));
    press(kKeyBackTab);
    EXPECT_TRUE(has(texts()[4], "[4 containers]"));
}

TEST_F(TopView, SortsAndEnds)
{
    press('s');
    EXPECT_TRUE(has(texts()[4], " by total"));
    press('s');
    press('s');
    press('s');
    EXPECT_TRUE(has(texts()[4], " by rate"));
    EXPECT_FALSE(view.quits());
    press('q');
    EXPECT_TRUE(view.quits());
}

TEST_F(TopView, FilterIsTypedAndTakenBack)
{
    happens("/srv/apple", 2);
    happens("/srv/\xC3\xA4pfel", 1);
    press('/');
    type("pq\xC3\xA4");
    EXPECT_EQ("filter: pq\xC3\xA4_", texts()[23]);
    press(kKeyBackspace);
    press(kKeyBackspace);
    type("f");
    EXPECT_EQ("filter: pf_", texts()[23]);
    EXPECT_FALSE(view.quits());
    press(kKeyEnter);
    EXPECT_TRUE(has(texts()[5], "with \"pf\""));
    EXPECT_TRUE(has(row(0), "pfel"));
    EXPECT_EQ("", row(1));
    press(kKeyEscape);
    EXPECT_TRUE(has(row(0), "apple"));
    press('/');
    type("zzz");
    press(kKeyEscape);
    EXPECT_TRUE(has(row(0), "apple"));
}

TEST_F(TopView, EnterGoesIntoADirectoryAndBackspaceOut)
{
    happens("/srv/a/x", 9);
    happens("/srv/b", 5);
    press('2');
    press(kKeyEnter);
    EXPECT_TRUE(has(texts()[5], "in /srv/a"));
    EXPECT_EQ("", row(1));
    press(kKeyBackspace);
    EXPECT_TRUE(has(texts()[5], "in /srv"));
    EXPECT_TRUE(ends_with(trimmed(row(1)), " /srv"));
    press(kKeyBackspace);
    EXPECT_TRUE(has(texts()[5], "in /"));
    press(kKeyBackspace);
    EXPECT_FALSE(has(texts()[5], "in /"));
    press('1');
    press(kKeyEnter);
    EXPECT_TRUE(has(texts()[5], "in /srv/a"));
}

TEST_F(TopView, EnterOnAProcessShowsItsFilesOnly)
{
    happens("/srv/a", 2, "cat");
    happens("/srv/b", 1, "dog");
    press('3');
    press(kKeyDown);
    press(kKeyEnter);
    EXPECT_TRUE(has(texts()[4], "[1 files]") && has(texts()[5], "with \"dog[7]\""));
    EXPECT_TRUE(has(row(0), "/srv/b"));
    press(kKeyBackspace);
    EXPECT_TRUE(has(row(0), "/srv/a"));
}

TEST_F(TopView, WhatWasChosenStaysChosenWhereverItGoes)
{
    happens("/a", 3);
    happens("/b", 2);
    happens("/c", 1);
    look();
    press(kKeyDown);
    EXPECT_TRUE(has(selected(), "/b"));
    happens("/b", 5);
    look();
    EXPECT_EQ(row(0), selected());
    press(kKeyEnd);
    EXPECT_TRUE(has(selected(), "/c"));
    press(kKeyUp);
    press(kKeyHome);
    EXPECT_EQ(row(0), selected());
}

TEST_F(TopView, LongTablesScroll)
{
    for (int i = 0; i < 100; i++)
        happens("/f" + std::to_string(100 + i), 200 - i);
    look();
    press(kKeyPageDown);
    press(kKeyPageDown);
    EXPECT_TRUE(has(selected(), "/f132"));
    EXPECT_EQ(selected(), row(15));
    press(kKeyEnd);
    EXPECT_TRUE(has(selected(), "/f199"));
    press(kKeyPageUp);
    EXPECT_TRUE(has(selected(), "/f183"));
}

TEST_F(TopView, PauseKeepsWhatIsSeenAndGoesOnCounting)
{
    happens("/a", 1);
    press('p');
    board.pause(view.paused(), now);
    happens("/b", 5);
    EXPECT_TRUE(has(texts()[4], "PAUSED"));
    EXPECT_TRUE(has(row(0), "/a"));
    press('s');
    EXPECT_TRUE(has(row(0), "/a"));
    press(' ');
    board.pause(view.paused(), now);
    EXPECT_TRUE(has(row(0), "/b"));
    EXPECT_FALSE(has(texts()[4], "PAUSED"));
}

TEST_F(TopView, HelpCoversTheTableUntilTheNextKey)
{
    happens("/a", 1);
    press('h');
    EXPECT_TRUE(has(texts()[6], "1 2 3 4"));
    press('x');
    EXPECT_TRUE(has(row(0), "/a"));
}

TEST_F(TopView, HostileNamesStayInTheirColumns)
{
    happens("/x\033[2J\033]0;title\a\n\r\x9b", 5, "sh\033[31m");
    happens(std::string("/\xE6\xBC\xA2\xE5\xAD\x97") + std::string(300, 'w'), 4);
    happens(
        "/bad\xff\xfe/\xE2\x80\xAE"
        "evil",
        3);
    for (const Size &size : {kSmall, kLarge, Size{33, 12}})
        for (const std::string &text : texts(size))
            for (const char c : text)
                EXPECT_TRUE(static_cast<unsigned char>(c) >= ' ' && c != 0x7f) << text;
    EXPECT_TRUE(has(row(0, kLarge), "sh\\033[31m[7]"));
    EXPECT_TRUE(has(row(0, kLarge), "/x\\033[2J\\033]0;title\\a\\n\\r\\233"));
    EXPECT_TRUE(has(row(1), "...www"));
    EXPECT_TRUE(has(row(2, kLarge), "/bad\\377\\376/\\342\\200\\256evil")) << row(2, kLarge);
}

TEST_F(TopView, PlainTablesHaveEverythingWhole)
{
    const std::string path = "/srv/" + std::string(200, 'n');
    happens(path, 3, "cat", "web");
    TopOptions options;
    const std::string text = tables_text(board, options, now);
    EXPECT_TRUE(has(text, path + "\n"));
    for (const char *part : {"fmon top", "kinds/s", "losses", "files by rate\n", "directories by rate\n",
                             "processes by rate\n", "containers by rate\n"})
        EXPECT_TRUE(has(text, part)) << part;
    options.by = By::kProcess;
    options.sort = Sort::kTotal;
    happens("/other", 1, "dog");
    options.rows = 1;
    const std::string one = tables_text(board, options, now);
    EXPECT_TRUE(has(one, "processes by total\n") && !has(one, "files by") && !has(one, "dog")) << one;
}

TEST(TopColumns, CutsByColumnsAndNotByBytes)
{
    choose_widths();
    EXPECT_EQ("abc  ", fit("abc", 5));
    EXPECT_EQ("  abc", fit_right("abc", 5));
    EXPECT_EQ("ab...", fit("abcdefg", 5));
    EXPECT_EQ("...fg", fit("abcdefg", 5, Keep::kEnd));
    EXPECT_EQ("..", fit("abcdefg", 2));
    EXPECT_EQ("", fit("abcdefg", 0));
    const std::string wide = "\xE6\xBC\xA2\xE5\xAD\x97";  // two characters of two columns
    EXPECT_EQ(4u, width_of(wide));
    EXPECT_EQ(wide, cut(wide, 4));
    EXPECT_EQ("...", cut(wide, 3));
    EXPECT_EQ("... ", fit(wide + wide, 4));
    EXPECT_EQ("...\xE5\xAD\x97", cut(wide + wide, 5, Keep::kEnd));
    EXPECT_EQ(1u, width_of("e\xCC\x81"));  // with an accent that takes no column
}

TEST(TopColumns, WhatHasNoWidthIsShownAsNumbers)
{
    choose_widths();
    EXPECT_EQ("a\\033b", printable("a\033b"));
    EXPECT_EQ("\\377", printable("\xff"));
    EXPECT_EQ("\xC3\xA4", printable("\xC3\xA4"));
    EXPECT_EQ("\\364\\217\\277\\277", printable("\xF4\x8F\xBF\xBF"));  // U+10FFFF
}
