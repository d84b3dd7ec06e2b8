/*
 * screen.h: a terminal as a whole. All calls by one thread.
 */
#ifndef CLI_TOP_SCREEN_H
#define CLI_TOP_SCREEN_H

#include <memory>
#include <string>
#include <vector>

#include "view.h"

namespace cli
{

class Screen
{
public:
    /* Whether a terminal that has_screen() is of a kind that is known; false, with the reason in `error`. */
    static bool check(std::string &error);
    /* Takes the terminal of stdin and stdout. Null, with the reason in `error`. */
    static std::unique_ptr<Screen> open(std::string &error);

    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;
    virtual ~Screen() = default; /* gives the terminal back as it was */

    virtual Size size() const = 0;
    virtual void draw(const std::vector<Line> &lines) = 0;
    virtual int key() = 0; /* the next that was pressed, as View takes it; kKeyNone: none was. Ctrl-C is "q". */

protected:
    Screen() = default;
};

/* Whether this program can take a terminal, and stdin and stdout are one on which a cursor moves. */
bool has_screen();

}  // namespace cli

#endif
