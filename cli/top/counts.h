/*
 * counts.h: what `fmon top` knows: how often which process did something to which file, and of what kind it was.
 *
 * Bounded: when there are too many pairs of a file and a process, those that were quiet longest become one pair of
 * their directory and their program's name, and these in turn a single one; no event is forgotten. Times are
 * milliseconds after the start.
 */
#ifndef CLI_TOP_COUNTS_H
#define CLI_TOP_COUNTS_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "window.h"

namespace cli
{

enum class By { kFile, kDirectory, kProcess, kContainer };
enum class Sort { kRate, kTotal, kLatest, kName };

/* One event. */
struct Happening {
    std::string_view path;
    uint32_t mask = 0;
    uint32_t pid = 0;           /* 0: not known */
    std::string_view process{}; /* its name; empty: not known */
    std::string_view container{};
};

/* What is to be seen. */
struct Query {
    By by = By::kFile;
    Sort sort = Sort::kRate;
    std::string zoom{};   /* only what is below this directory; empty: everything */
    std::string filter{}; /* only where path, "process[pid]" or container has this text; case does not matter */
};

struct Row {
    std::string name;      /* a path, "process[pid]" or a container's id; as bytes */
    std::string companion; /* the busiest process of a file, the busiest directory of a process */
    uint64_t recent = 0;   /* events in the window */
    uint64_t total = 0;
    uint64_t latest_ms = 0;
    uint32_t mask = 0;
    bool rest = false; /* of several files that are not counted each any more */
};

struct Kind {
    std::string_view name;
    uint64_t recent;
};

/* One thread's at a time. */
class Counts
{
public:
    explicit Counts(size_t most = 16384) : most_(most) {} /* pairs; 4 at least */

    void add(const Happening &event, uint64_t now_ms);

    /* Sorted, the first first. */
    std::vector<Row> rows(const Query &query, uint64_t now_ms) const;
    /* Those that happened within the window, the busiest first. */
    std::vector<Kind> kinds(uint64_t now_ms) const;
    uint64_t total() const { return total_; }
    uint64_t recent(uint64_t now_ms) const { return window_.sum(now_ms); }
    size_t pairs() const { return cells_.size(); }

private:
    struct Cell {
        Window window;
        uint64_t total = 0, latest_ms = 0;
        uint32_t mask = 0, pid = 0;
        uint32_t path = 0, process = 0; /* lengths of the key's first parts */
        int level = 0;                  /* 0: of one file and process; see fold() */
    };
    struct Hash {
        using is_transparent = void;
        size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
    };
    using Cells = std::unordered_map<std::string, Cell, Hash, std::equal_to<>>;
    struct Parts;
    struct Sum;

    static Parts parts_of(const Cells::value_type &cell);
    Cell &cell_of(const Parts &parts);
    void make_room();
    void fold(const std::string &key);

    const size_t most_;
    Cells cells_;
    std::string key_; /* kept for its memory */
    Window window_;
    uint64_t total_ = 0;
    std::array<Window, 13> kinds_; /* by the bit of the mask */
};

/* "name[pid]"; "?" for a name that is not known. */
std::string process_text(std::string_view name, uint32_t pid);

}  // namespace cli

#endif
