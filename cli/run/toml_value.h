/*
 * toml_value.h: a TOML document as a tree that knows where each of its parts stands in the text.
 */
#ifndef CLI_RUN_TOML_VALUE_H
#define CLI_RUN_TOML_VALUE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace cli
{

/* From 1; 0: not known. */
struct Place {
    uint32_t line = 0, column = 0;

    bool operator==(const Place &) const = default;
    bool operator<(const Place &other) const { return std::tie(line, column) < std::tie(other.line, other.column); }
};

struct TomlMember;

struct TomlValue {
    enum Kind { kText, kNumber, kFraction, kFlag, kTime, kArray, kTable };

    Place place;
    Kind kind = kTable;
    std::string text;
    int64_t number = 0;
    double fraction = 0;
    bool flag = false;
    std::vector<TomlValue> items;
    std::vector<TomlMember> members; /* in the order of the text */

    const TomlMember *find(std::string_view key) const; /* null: there is none */
};

struct TomlMember {
    std::string key;
    Place place; /* of the key */
    TomlValue value;
};

/* "a text", "a table" ... */
const char *kind_text(TomlValue::Kind kind);

/* False: `error` says what is no TOML at `place`. */
bool parse_toml(std::string_view text, TomlValue &document, Place &place, std::string &error);

}  // namespace cli

#endif
