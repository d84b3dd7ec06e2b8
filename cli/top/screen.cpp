#include "screen.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

#ifdef FMON_NCURSES
#define NCURSES_NOMACROS 1
#include <curses.h>
#include <term.h>
#undef lines  // a macro for a terminal

#include <csignal>
#include <map>

#include "output/print.h"
#endif

namespace cli
{

bool has_screen()
{
#ifdef FMON_NCURSES
    const char *const kind = getenv("TERM");
    return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1 && kind && *kind && std::string_view(kind) != "dumb";
#else
    return false;
#endif
}

#ifdef FMON_NCURSES

namespace
{

enum : short { kHeadingPair = 1, kSelectedPair, kWarningPair };
constexpr int kInterrupt = 3, kSuspend = 26, kDelete = 127; /* raw: Ctrl-C, Ctrl-Z and DEL come as they are */
constexpr int kEscapeMs = 25;                               /* after which an escape is a key of its own */

int key_of(int code)
{
    static const std::map<int, int> kKeys = {
        {ERR, kKeyNone},          {KEY_UP, kKeyUp},          {KEY_DOWN, kKeyDown},
        {KEY_PPAGE, kKeyPageUp},  {KEY_NPAGE, kKeyPageDown}, {KEY_HOME, kKeyHome},
        {KEY_END, kKeyEnd},       {KEY_BTAB, kKeyBackTab},   {KEY_BACKSPACE, kKeyBackspace},
        {kDelete, kKeyBackspace}, {'\b', kKeyBackspace},     {'\r', kKeyEnter},
        {KEY_ENTER, kKeyEnter},   {kInterrupt, 'q'},         {KEY_RIGHT, kKeyTab},
        {KEY_LEFT, kKeyBackTab},
    };
    const auto found = kKeys.find(code);
    return found != kKeys.end() ? found->second : code < 0x100 ? code : 0;
}

class CursesScreen : public Screen
{
public:
    explicit CursesScreen(SCREEN *screen) : screen_(screen)
    {
        raw();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        set_escdelay(kEscapeMs);
        curs_set(0);
        has_colours_ = output::wants_colours() && has_colors() && start_color() == OK && use_default_colors() == OK;
        if (!has_colours_)
            return;
        init_pair(kHeadingPair, COLOR_BLACK, COLOR_GREEN);
        init_pair(kSelectedPair, COLOR_BLACK, COLOR_CYAN);
        init_pair(kWarningPair, COLOR_RED, -1);
    }
    ~CursesScreen() override
    {
        endwin();
        delscreen(screen_);
    }

    Size size() const override { return {static_cast<size_t>(getmaxx(stdscr)), static_cast<size_t>(getmaxy(stdscr))}; }

    void draw(const std::vector<Line> &lines) override
    {
        werase(stdscr);
        for (size_t i = 0; i < lines.size(); i++) {
            const attr_t look = attributes(lines[i].look);
            wattrset(stdscr, static_cast<int>(look));
            mvwaddstr(stdscr, static_cast<int>(i), 0, lines[i].text.c_str());
        }
        wattrset(stdscr, 0);
        wrefresh(stdscr);
    }

    int key() override
    {
        const int code = wgetch(stdscr);
        if (code != kSuspend && code != KEY_SUSPEND)
            return key_of(code);
        endwin();
        raise(SIGSTOP);
        wrefresh(stdscr);
        return key();
    }

private:
    attr_t attributes(Look look) const
    {
        const auto pair = [&](short number, attr_t without) { return has_colours_ ? COLOR_PAIR(number) : without; };
        switch (look) {
            case Look::kTitle:
                return A_BOLD;
            case Look::kHeading:
                return pair(kHeadingPair, A_REVERSE);
            case Look::kSelected:
                return pair(kSelectedPair, A_REVERSE);
            case Look::kWarning:
                return pair(kWarningPair, A_NORMAL) | A_BOLD;
            default:
                return A_NORMAL;
        }
    }

    SCREEN *const screen_;
    bool has_colours_ = false;
};

}  // namespace

bool Screen::check(std::string &error)
{
    int found = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &found) == OK)
        return true;
    error = std::string("the terminal '") + getenv("TERM") + "' is not known: set TERM, or use --batch";
    return false;
}

std::unique_ptr<Screen> Screen::open(std::string &error)
{
    SCREEN *const screen = newterm(nullptr, stdout, stdin);
    if (screen)
        return std::make_unique<CursesScreen>(screen);
    error = "the terminal cannot be taken: use --batch";
    return nullptr;
}

#else

bool Screen::check(std::string &) { return false; }

std::unique_ptr<Screen> Screen::open(std::string &error)
{
    error = "this build has no full-screen display: use --batch";
    return nullptr;
}

#endif

}  // namespace cli
