/*
 * option.h: an option of a verb as one row of the verb's table. Parsing, `--help`, the completion of three shells and
 * the check of the manual page follow the row; nothing else knows the option's name.
 */
#ifndef CLI_FRONT_OPTION_H
#define CLI_FRONT_OPTION_H

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace cli
{

/* What can stand for a word: for the value of an option, or for an argument of a verb. */
struct Words {
    enum Kind {
        kAny,     /* nothing to offer */
        kFiles,   /* names of files */
        kOneOf,   /* one of `literal` or `table` */
        kListOf,  /* the same, several with commas between them */
        kWatches, /* processes of running watches */
        kPaths,   /* names of files, and behind an "@" of directories */
    };
    Kind kind = kAny;
    const char *literal = nullptr; /* words with blanks between them */
    std::string (*table)() = nullptr;

    std::string all() const { return literal ? literal : table ? table() : ""; }
};

inline constexpr Words kFiles = {Words::kFiles, nullptr, nullptr};
inline constexpr Words kWatches = {Words::kWatches, nullptr, nullptr};
inline constexpr Words kPaths = {Words::kPaths, nullptr, nullptr};
constexpr Words one_of(const char *literal) { return {Words::kOneOf, literal, nullptr}; }
constexpr Words one_of(std::string (*table)()) { return {Words::kOneOf, nullptr, table}; }
constexpr Words list_of(std::string (*table)()) { return {Words::kListOf, nullptr, table}; }

/* The names of a table's rows, as Words::table wants them. */
template <typename Table>
std::string names_of(const Table &table)
{
    std::string names;
    for (const auto &row : table)
        names += (names.empty() ? "" : " ") + std::string(row.name);
    return names;
}

struct Option {
    char letter; /* 0: none */
    const char *name;
    const char *argument;          /* null: takes no value */
    const char *help;              /* "\n" begins a new line of the help text */
    Words words = {};              /* for the value */
    const char *section = nullptr; /* heading of the help text before this row, or null */
};

/* An option on the command line. */
struct Given {
    const Option &option;
    const char *value; /* null for an option without one */
};

/* A row: an option, and what it sets in the verb's structure `O`. `take` returns false with one line in `error`. */
template <typename O>
struct OptionRow {
    Option option;
    bool (*take)(O &options, const Given &given, std::string &error);
};

/* False, with "--name takes WANTED, not 'value'". */
bool bad_value(const Given &given, const std::string &wanted, std::string &error);

/* The whole of the value as a number, or as seconds in milliseconds: false when it is not, or beyond the limits. */
bool parse_number(std::string_view value, uint64_t low, uint64_t high, uint64_t &number);
bool parse_seconds(std::string_view value, double low, double high, uint64_t &milliseconds);

/* The place of the value among the words, from 0; -1: it is none of them. */
int find_word(const Words &words, std::string_view value);

/* find_word, with "--name takes A, B or C, not 'value'" for -1. */
int parse_choice(const Given &given, std::string &error);

/* ---- what most rows do with their value; `O` is the verb's structure ---- */

template <typename O, auto kMember>
using MemberType = std::remove_reference_t<decltype(std::declval<O &>().*kMember)>;

template <typename O, auto kMember>
bool set_flag(O &options, const Given &, std::string &)
{
    options.*kMember = true;
    return true;
}

template <typename O, auto kMember>
bool set_text(O &options, const Given &given, std::string &error)
{
    options.*kMember = given.value;
    return *given.value || bad_value(given, "a text that is not empty", error);
}

template <typename O, auto kMember>
bool add_text(O &options, const Given &given, std::string &)
{
    (options.*kMember).emplace_back(given.value);
    return true;
}

template <typename O, auto kMember, uint64_t kLow, uint64_t kHigh>
bool set_number(O &options, const Given &given, std::string &error)
{
    uint64_t number;
    if (!parse_number(given.value, kLow, kHigh, number))
        return bad_value(given, "a number from " + std::to_string(kLow) + " to " + std::to_string(kHigh), error);
    options.*kMember = static_cast<MemberType<O, kMember>>(number);
    return true;
}

/* For a bool, or an enumeration in the order of the words. */
template <typename O, auto kMember>
bool set_choice(O &options, const Given &given, std::string &error)
{
    const int place = parse_choice(given, error);
    if (place >= 0)
        options.*kMember = static_cast<MemberType<O, kMember>>(place);
    return place >= 0;
}

}  // namespace cli

#endif
