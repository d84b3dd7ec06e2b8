/*
 * view.h: the screen of `fmon top` as lines, and what keys do to it. Knows no terminal.
 */
#ifndef CLI_TOP_VIEW_H
#define CLI_TOP_VIEW_H

#include <cstddef>
#include <string>
#include <vector>

#include "board.h"

namespace cli
{

/* Keys that are no characters; the others are their byte. */
enum Key : int {
    kKeyNone = -1,
    kKeyTab = '\t',
    kKeyEnter = '\n',
    kKeyEscape = 27,
    kKeyUp = 0x100,
    kKeyDown,
    kKeyPageUp,
    kKeyPageDown,
    kKeyHome,
    kKeyEnd,
    kKeyBackTab,
    kKeyBackspace,
};

enum class Look { kPlain, kTitle, kHeading, kSelected, kWarning };

struct Line {
    std::string text; /* printable, and not wider than the screen */
    Look look = Look::kPlain;
};

struct Size {
    size_t width, height;
};

class View
{
public:
    explicit View(const Query &query) : query_(query) {}

    const Query &query() const { return query_; }
    bool paused() const { return paused_; }
    bool quits() const { return quits_; }

    /* What is to be shown from now on. */
    void take(Seen seen);
    void press(int key, const Size &size);
    /* As many as the screen has, at most. */
    std::vector<Line> lines(const Size &size) const;

private:
    void edit(int key);
    void command(int key, ptrdiff_t page);
    void edit_filter();
    ptrdiff_t row_count() const { return static_cast<ptrdiff_t>(seen_.rows.size()); }
    void move(ptrdiff_t by);
    void choose(By by);
    void zoom_in();
    void step_back();
    size_t first_row(size_t page) const;
    void add_head(size_t width, std::vector<Line> &lines) const;
    std::string state_text() const;
    std::string limits_text(size_t width) const;
    std::string bottom_text() const;

    Query query_;
    Seen seen_;
    size_t selected_ = 0;  /* row */
    std::string followed_; /* its name, once it was chosen: it stays selected wherever it goes; empty: the first */
    bool followed_rest_ = false;
    bool paused_ = false, quits_ = false, helps_ = false;
    bool editing_ = false; /* the filter */
    std::string edited_;
};

/* The table alone: heading and rows, `width` columns each; 0: as wide as they are. */
std::string heading_text(By by, size_t width);
std::string row_text(const Row &row, By by, uint64_t now_ms, size_t width);

/* The lines above it. */
std::string title_text(const Seen &seen);
std::string events_text(const Seen &seen);
std::string kinds_text(const Seen &seen);
std::string losses_text(const Seen &seen);

const char *name_of(By by);
const char *name_of(Sort sort);

}  // namespace cli

#endif
