#include "counts.h"

#include <algorithm>
#include <bit>
#include <map>

#include "agent/event_names.h"

namespace cli
{

namespace
{

constexpr int kLastLevel = 2;

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool has_text(std::string_view text, std::string_view wanted)
{
    const auto same = [](char a, char b) { return lower(a) == lower(b); };
    return std::search(text.begin(), text.end(), wanted.begin(), wanted.end(), same) != text.end();
}

std::string_view directory_of(std::string_view path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(0, slash ? slash : 1);
}

bool is_below(std::string_view path, std::string_view directory)
{
    return directory == "/" || (path.substr(0, directory.size()) == directory &&
                                (path.size() == directory.size() || path[directory.size()] == '/'));
}

// The directory itself, or the one below it that leads to `path`.
std::string_view branch_of(std::string_view path, std::string_view directory)
{
    const size_t begin = directory == "/" ? 1 : directory.size() + 1;
    const size_t end = begin > path.size() ? std::string_view::npos : path.find('/', begin);
    return path.substr(0, end == std::string_view::npos ? directory.size() : end);
}

bool goes_before(const Row &a, const Row &b, Sort sort)
{
    const auto key = [&](const Row &row) {
        const uint64_t first = sort == Sort::kTotal ? row.total : sort == Sort::kLatest ? row.latest_ms : row.recent;
        return std::make_pair(first, sort == Sort::kTotal ? row.recent : row.total);
    };
    return key(a) > key(b);
}

}  // namespace

std::string process_text(std::string_view name, uint32_t pid)
{
    std::string text(name.empty() ? "?" : name);
    if (pid)
        text += "[" + std::to_string(pid) + "]";
    return text;
}

/* What a cell is of. */
struct Counts::Parts {
    std::string_view path, process, container;
    uint32_t pid;
    int level;

    std::string_view directory() const { return level == 0 ? directory_of(path) : path; }
    std::string who() const { return process_text(process, pid); }

    bool matches(const Query &query) const
    {
        if (!query.zoom.empty() && !is_below(level == 0 ? path : directory(), query.zoom))
            return false;
        return query.filter.empty() || has_text(path, query.filter) || has_text(who(), query.filter) ||
               has_text(container, query.filter);
    }
    std::string name(const Query &query) const
    {
        if (query.by == By::kContainer)
            return std::string(container);
        if (query.by == By::kProcess)
            return who();
        if (query.by == By::kFile)
            return std::string(path);
        return std::string(query.zoom.empty() ? directory() : branch_of(level == 0 ? path : directory(), query.zoom));
    }
    std::string companion(By by) const { return by == By::kProcess ? std::string(directory()) : who(); }
};

Counts::Parts Counts::parts_of(const Cells::value_type &cell)
{
    const std::string_view key = cell.first;
    const Cell &data = cell.second;
    const std::string_view rest = key.substr(data.path + 1 + data.process + 1);
    return {key.substr(0, data.path), key.substr(data.path + 1, data.process), rest.substr(0, rest.find('\0')),
            data.pid, data.level};
}

// Paths and names hold no NUL.
Counts::Cell &Counts::cell_of(const Parts &parts)
{
    key_.assign(parts.path).push_back('\0');
    key_.append(parts.process).push_back('\0');
    key_.append(parts.container).push_back('\0');
    key_.append(std::to_string(parts.pid)).push_back(static_cast<char>('0' + parts.level));
    const auto found = cells_.find(std::string_view(key_));
    if (found != cells_.end())
        return found->second;
    Cell &cell = cells_[key_];
    cell.pid = parts.pid;
    cell.path = static_cast<uint32_t>(parts.path.size());
    cell.process = static_cast<uint32_t>(parts.process.size());
    cell.level = parts.level;
    return cell;
}

void Counts::add(const Happening &event, uint64_t now_ms)
{
    if (cells_.size() >= most_)
        make_room();
    Cell &cell = cell_of({event.path, event.process, event.container, event.pid, 0});
    cell.window.add(now_ms, 1);
    cell.total++;
    cell.latest_ms = now_ms;
    cell.mask |= event.mask;
    window_.add(now_ms, 1);
    total_++;
    for (uint32_t rest = event.mask; rest; rest &= rest - 1)
        if (const auto bit = static_cast<size_t>(std::countr_zero(rest)); bit < kinds_.size())
            kinds_[bit].add(now_ms, 1);
}

// A quarter at a time, the quietest. Where directories or programs are too many themselves, it is their turn.
void Counts::make_room()
{
    while (cells_.size() > most_ - most_ / 4) {
        std::array<std::vector<const Cells::value_type *>, kLastLevel + 1> all;
        for (const auto &cell : cells_)
            all[static_cast<size_t>(cell.second.level)].push_back(&cell);
        auto &chosen = all[1].size() > most_ / 2 ? all[1] : all[0];
        const size_t count = std::min(chosen.size(), most_ / 4);
        std::nth_element(chosen.begin(), chosen.begin() + static_cast<ptrdiff_t>(count), chosen.end(),
                         [](const auto *a, const auto *b) { return a->second.latest_ms < b->second.latest_ms; });
        std::vector<std::string> keys;
        for (size_t i = 0; i < count; i++)
            keys.push_back(chosen[i]->first);
        for (const std::string &key : keys)
            fold(key);
    }
}

void Counts::fold(const std::string &key)
{
    const auto node = cells_.extract(key);
    if (node.empty())
        return;
    const Cell &from = node.mapped();
    const std::string_view path = std::string_view(key).substr(0, from.path);
    const std::string_view process = std::string_view(key).substr(from.path + 1, from.process);
    const std::string_view rest = std::string_view(key).substr(from.path + 1 + from.process + 1);
    Cell &to = from.level == 0 ? cell_of({directory_of(path), process, rest.substr(0, rest.find('\0')), 0, 1})
                               : cell_of({"/", "", "", 0, kLastLevel});
    to.window.add(from.window);
    to.total += from.total;
    to.latest_ms = std::max(to.latest_ms, from.latest_ms);
    to.mask |= from.mask;
}

struct Counts::Sum : Row {
    uint64_t most = 0; /* of one cell: its companion is the row's */

    void add(const Cell &cell, const Parts &parts, By by, uint64_t now_ms)
    {
        const uint64_t events = cell.window.sum(now_ms), weight = (events << 32) + cell.total;
        recent += events;
        total += cell.total;
        latest_ms = std::max(latest_ms, cell.latest_ms);
        mask |= cell.mask;
        if (weight <= most)
            return;
        most = weight;
        companion = parts.companion(by);
    }
};

std::vector<Row> Counts::rows(const Query &query, uint64_t now_ms) const
{
    std::map<std::pair<std::string, bool>, Sum> sums;
    for (const auto &each : cells_) {
        const Parts parts = parts_of(each);
        if (!parts.matches(query))
            continue;
        const bool rest = parts.level > 0 && query.by == By::kFile;
        sums[{parts.name(query), rest}].add(each.second, parts, query.by, now_ms);
    }
    std::vector<Row> rows;
    for (auto &[name, sum] : sums) {
        sum.name = name.first;
        sum.rest = name.second;
        rows.push_back(std::move(sum));
    }
    if (query.sort != Sort::kName)  // by name they are already
        std::stable_sort(rows.begin(), rows.end(),
                         [&](const Row &a, const Row &b) { return goes_before(a, b, query.sort); });
    return rows;
}

std::vector<Kind> Counts::kinds(uint64_t now_ms) const
{
    std::vector<Kind> kinds;
    for (size_t bit = 0; bit < kinds_.size(); bit++)
        if (const uint64_t recent = kinds_[bit].sum(now_ms))
            agent::for_each_event(1u << bit, [&](std::string_view name) { kinds.push_back({name, recent}); });
    std::stable_sort(kinds.begin(), kinds.end(), [](const Kind &a, const Kind &b) { return a.recent > b.recent; });
    return kinds;
}

}  // namespace cli
