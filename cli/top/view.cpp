#include "view.h"

#include <algorithm>

#include "columns.h"

namespace cli
{

namespace
{

constexpr size_t kHead = 7; /* lines above the rows, the heading included */

constexpr const char *kHelp[] = {
    "1 2 3 4, Tab   files, directories, processes, containers",
    "s              sort by rate, total, latest, name",
    "/              filter: only where path, process or container has a text",
    "Enter          into the row: its directory, or only that process or container",
    "Backspace      out again: first the filter goes, then one directory",
    "p, Blank       pause, and go on; events are counted meanwhile",
    "Up Down PgUp PgDn Home End   choose a row",
    "q, Ctrl-C      end",
};

std::string parent_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

size_t page_of(const Size &size) { return size.height > kHead + 1 ? size.height - kHead - 1 : 0; }

/* The one that comes so many later, of four. */
template <typename E>
E next(E value, int steps)
{
    return static_cast<E>((static_cast<int>(value) + steps) % 4);
}

}  // namespace

// What was chosen stays so; the first row, which nobody has chosen, is the first.
void View::take(Seen seen)
{
    seen_ = std::move(seen);
    const auto found = std::find_if(seen_.rows.begin(), seen_.rows.end(), [&](const Row &row) {
        return row.name == followed_ && row.rest == followed_rest_;
    });
    if (followed_.empty())
        selected_ = 0;
    else if (found != seen_.rows.end())
        selected_ = static_cast<size_t>(found - seen_.rows.begin());
    selected_ = std::min(selected_, seen_.rows.empty() ? 0 : seen_.rows.size() - 1);
}

void View::press(int key, const Size &size)
{
    if (editing_)
        return edit(key);
    helps_ = !helps_ && (key == 'h' || key == '?');
    command(key, static_cast<ptrdiff_t>(std::max<size_t>(1, page_of(size))));
}

void View::edit(int key)
{
    if (key == kKeyEscape || key == kKeyEnter) {
        if (key == kKeyEnter)
            query_.filter = edited_;
        editing_ = false;
    } else if (key == kKeyBackspace) {
        while (!edited_.empty() && (edited_.back() & 0xc0) == 0x80)
            edited_.pop_back();
        if (!edited_.empty())
            edited_.pop_back();
    } else if (key >= ' ' && key < 0x100 && key != 0x7f && edited_.size() < 200) {
        edited_.push_back(static_cast<char>(key));
    }
}

void View::command(int key, ptrdiff_t page)
{
    struct Command {
        int key;
        void (*act)(View &view, ptrdiff_t page);
    };
    static constexpr Command kCommands[] = {
        {'q', [](View &v, ptrdiff_t) { v.quits_ = true; }},
        {'p', [](View &v, ptrdiff_t) { v.paused_ = !v.paused_; }},
        {' ', [](View &v, ptrdiff_t) { v.paused_ = !v.paused_; }},
        {'s', [](View &v, ptrdiff_t) { v.query_.sort = next(v.query_.sort, 1); }},
        {'1', [](View &v, ptrdiff_t) { v.choose(By::kFile); }},
        {'2', [](View &v, ptrdiff_t) { v.choose(By::kDirectory); }},
        {'3', [](View &v, ptrdiff_t) { v.choose(By::kProcess); }},
        {'4', [](View &v, ptrdiff_t) { v.choose(By::kContainer); }},
        {'/', [](View &v, ptrdiff_t) { v.edit_filter(); }},
        {kKeyTab, [](View &v, ptrdiff_t) { v.choose(next(v.query_.by, 1)); }},
        {kKeyBackTab, [](View &v, ptrdiff_t) { v.choose(next(v.query_.by, 3)); }},
        {kKeyUp, [](View &v, ptrdiff_t) { v.move(-1); }},
        {kKeyDown, [](View &v, ptrdiff_t) { v.move(1); }},
        {kKeyPageUp, [](View &v, ptrdiff_t p) { v.move(-p); }},
        {kKeyPageDown, [](View &v, ptrdiff_t p) { v.move(p); }},
        {kKeyHome, [](View &v, ptrdiff_t) { v.move(-v.row_count()); }},
        {kKeyEnd, [](View &v, ptrdiff_t) { v.move(v.row_count()); }},
        {kKeyEnter, [](View &v, ptrdiff_t) { v.zoom_in(); }},
        {kKeyBackspace, [](View &v, ptrdiff_t) { v.step_back(); }},
        {kKeyEscape, [](View &v, ptrdiff_t) { v.query_.filter.clear(); }},
    };
    for (const Command &command : kCommands)
        if (command.key == key)
            command.act(*this, page);
}

void View::edit_filter()
{
    editing_ = true;
    edited_ = query_.filter;
}

void View::move(ptrdiff_t by)
{
    if (seen_.rows.empty())
        return;
    const auto last = static_cast<ptrdiff_t>(seen_.rows.size()) - 1;
    selected_ = static_cast<size_t>(std::clamp<ptrdiff_t>(static_cast<ptrdiff_t>(selected_) + by, 0, last));
    followed_ = selected_ == 0 ? "" : seen_.rows[selected_].name;
    followed_rest_ = seen_.rows[selected_].rest;
}

void View::choose(By by)
{
    query_.by = by;
    followed_.clear();
    selected_ = 0;
}

void View::zoom_in()
{
    if (seen_.rows.empty())
        return;
    const Row &row = seen_.rows[selected_];
    if (query_.by == By::kProcess || query_.by == By::kContainer) {
        query_.filter = row.name;
        return choose(By::kFile);
    }
    query_.zoom = query_.by == By::kDirectory || row.rest ? row.name : parent_of(row.name);
    choose(query_.by);
}

void View::step_back()
{
    if (!query_.filter.empty())
        query_.filter.clear();
    else if (query_.zoom == "/")
        query_.zoom.clear();
    else if (!query_.zoom.empty())
        query_.zoom = parent_of(query_.zoom);
    choose(query_.by);
}

// The selected row is always seen.
size_t View::first_row(size_t page) const { return selected_ < page ? 0 : selected_ - page + 1; }

std::string View::state_text() const
{
    std::string text;
    for (int by = 0; by < 4; by++) {
        const bool chosen = static_cast<By>(by) == query_.by;
        const std::string name = std::to_string(by + 1) + " " + name_of(static_cast<By>(by));
        text += (chosen ? "[" : " ") + name + (chosen ? "] " : "  ");
    }
    return text + " by " + name_of(query_.sort) + (paused_ ? "  PAUSED" : "");
}

// Of a directory the end says most.
std::string View::limits_text(size_t width) const
{
    std::string text;
    if (!query_.filter.empty())
        text = "with \"" + cut(printable(query_.filter), width / 3) + "\"  ";
    if (!query_.zoom.empty())
        text += "in " + cut(printable(query_.zoom), width - std::min(width, width_of(text) + 3), Keep::kEnd);
    return cut(text, width);
}

std::string View::bottom_text() const
{
    if (editing_)
        return "filter: " + printable(edited_) + "_";
    if (!seen_.status.message.empty())
        return printable(seen_.status.message);
    return "q end  1-4 Tab table  s sort  / filter  Enter in  Backspace out  p pause  h help";
}

void View::add_head(size_t width, std::vector<Line> &lines) const
{
    const bool lost = !seen_.status.losses.empty();
    lines.push_back({cut(title_text(seen_), width), Look::kTitle});
    lines.push_back({cut(events_text(seen_), width)});
    lines.push_back({cut(kinds_text(seen_), width)});
    lines.push_back({cut(losses_text(seen_), width), lost ? Look::kWarning : Look::kPlain});
    lines.push_back({cut(state_text(), width), paused_ ? Look::kTitle : Look::kPlain});
    lines.push_back({limits_text(width)});
    lines.push_back({heading_text(query_.by, width), Look::kHeading});
}

std::vector<Line> View::lines(const Size &size) const
{
    std::vector<Line> lines;
    if (size.height == 0 || size.width == 0)
        return lines;
    add_head(size.width, lines);
    if (helps_) {
        lines.resize(kHead - 1);
        for (const char *text : kHelp)
            lines.push_back({cut(text, size.width)});
    }
    const size_t page = page_of(size), first = first_row(page);
    for (size_t i = first; !helps_ && i < seen_.rows.size() && i < first + page; i++)
        lines.push_back({row_text(seen_.rows[i], query_.by, seen_.now_ms, size.width),
                         i == selected_ ? Look::kSelected : Look::kPlain});
    lines.resize(size.height - 1);
    lines.push_back({cut(bottom_text(), size.width), editing_ ? Look::kTitle : Look::kPlain});
    return lines;
}

}  // namespace cli
