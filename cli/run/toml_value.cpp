#include "toml_value.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

namespace cli
{

namespace
{

Place place_of(const toml::source_region &region) { return {region.begin.line, region.begin.column}; }

TomlValue convert(const toml::node &node);

void take_members(const toml::table &table, TomlValue &value)
{
    for (const auto &[key, node] : table)
        value.members.push_back({std::string(key.str()), place_of(key.source()), convert(node)});
    const auto earlier = [](const TomlMember &a, const TomlMember &b) { return a.place < b.place; };
    std::stable_sort(value.members.begin(), value.members.end(), earlier);
}

void take_scalar(const toml::node &node, TomlValue &value)
{
    if (const auto text = node.value_exact<std::string>()) {
        value.kind = TomlValue::kText;
        value.text = *text;
    } else if (const auto number = node.value_exact<int64_t>()) {
        value.kind = TomlValue::kNumber;
        value.number = *number;
    } else if (const auto fraction = node.value_exact<double>()) {
        value.kind = TomlValue::kFraction;
        value.fraction = *fraction;
    } else if (const auto flag = node.value_exact<bool>()) {
        value.kind = TomlValue::kFlag;
        value.flag = *flag;
    } else {
        value.kind = TomlValue::kTime;
    }
}

TomlValue convert(const toml::node &node)
{
    TomlValue value;
    value.place = place_of(node.source());
    if (const toml::table *table = node.as_table()) {
        take_members(*table, value);
    } else if (const toml::array *array = node.as_array()) {
        value.kind = TomlValue::kArray;
        for (const toml::node &item : *array)
            value.items.push_back(convert(item));
    } else {
        take_scalar(node, value);
    }
    return value;
}

// The end of a text that began before `at`, marked by `mark`: on this line, or after many where the mark is three
// quotes, of which two more may belong to the text.
size_t end_of_text(std::string_view text, size_t at, std::string_view mark)
{
    for (; at < text.size(); at++) {
        if (text[at] == '\\' && mark[0] == '"')
            at++;
        else if (text.substr(at, mark.size()) == mark)
            break;
        else if (mark.size() == 1 && text[at] == '\n')
            return at;
    }
    const size_t most = mark.size() == 1 ? at + 1 : at + 5;
    for (at += mark.size(); at < std::min(most, text.size()) && text[at] == mark[0]; at++) {
    }
    return std::min(at, text.size());
}

// Where a text, or a comment, that begins at `at` ends; `at` itself: nothing of that kind begins there.
size_t end_of_quoted(std::string_view text, size_t at)
{
    const char c = text[at];
    if (c == '#')
        return std::min(text.find('\n', at), text.size());
    if (c != '"' && c != '\'')
        return at;
    const bool is_long = text.substr(at, 3) == std::string(3, c);
    return end_of_text(text, at + (is_long ? 3 : 1), text.substr(at, is_long ? 3 : 1));
}

Place place_at(std::string_view text, size_t at)
{
    const std::string_view before = text.substr(0, at);
    const size_t newline = before.rfind('\n');
    return {static_cast<uint32_t>(1 + std::count(before.begin(), before.end(), '\n')),
            static_cast<uint32_t>(newline == std::string_view::npos ? at + 1 : at - newline)};
}

bool begins_key(char c) { return isalnum(static_cast<unsigned char>(c)) || strchr("_-\"'", c) != nullptr; }

// Behind the brackets of a table's name that begins at `at`, and the blanks behind them.
size_t begin_of_name(std::string_view text, size_t at)
{
    at += text.substr(at).starts_with("[[") ? 2 : 1;
    return std::min(text.find_first_not_of(" \t", at), text.size());
}

// Where in a document a character stands, as far as that says what the library bears.
struct Surroundings {
    unsigned parts = 0;     /* dots of a key */
    unsigned depth = 0;     /* brackets of values */
    bool line_begin = true; /* nothing but blanks is before it */

    bool begins_table(char c) const { return c == '[' && line_begin && depth == 0; }
    void pass(char c)
    {
        if (strchr("=,{}[]\n", c))
            parts = 0;
        if (c == '[' || c == '{')
            depth++;
        else if ((c == ']' || c == '}') && depth > 0)
            depth--;
        line_begin = c == '\n' || (line_begin && (c == ' ' || c == '\t'));
    }
};

// What the library does not bear: it makes a table of each part of a key, one within the other, and goes through them
// by calling itself; and of a letter where none may be, and of what a table's name begins with, it takes for granted
// that they are none and a key's.
const char *find_unbearable(std::string_view text, size_t &at)
{
    constexpr std::string_view kMark = "\xef\xbb\xbf"; /* of UTF-8, at the begin */
    constexpr unsigned kMostParts = 64;
    Surroundings here;
    for (at = text.starts_with(kMark) ? kMark.size() : 0; at < text.size();) {
        if (text[at] == '.' && ++here.parts == kMostParts)
            return "a key has more than 64 parts";
        if (static_cast<unsigned char>(text[at]) >= 0x80)
            return "only texts and comments may have other letters than those of ASCII: put it into quotes";
        if (here.begins_table(text[at])) {
            at = begin_of_name(text, at);
            here.line_begin = false;
            if (at < text.size() && text[at] != ']' && !begins_key(text[at]))
                return "a table needs a name within its brackets";
            continue;
        }
        here.pass(text[at]);
        at = std::max(end_of_quoted(text, at), at + 1);
    }
    return nullptr;
}

}  // namespace

const TomlMember *TomlValue::find(std::string_view key) const
{
    const auto found =
        std::find_if(members.begin(), members.end(), [&](const TomlMember &member) { return member.key == key; });
    return found == members.end() ? nullptr : &*found;
}

const char *kind_text(TomlValue::Kind kind)
{
    constexpr const char *kTexts[] = {"a text", "a number", "a fraction", "true or false",
                                      "a time", "an array", "a table"};
    return kTexts[kind];
}

bool parse_toml(std::string_view text, TomlValue &document, Place &place, std::string &error)
{
    size_t at;
    if (const char *reason = find_unbearable(text, at)) {
        place = place_at(text, at);
        error = reason;
        return false;
    }
    const toml::parse_result result = toml::parse(text);
    if (!result) {
        place = place_of(result.error().source());
        error = result.error().description();
        return false;
    }
    document = convert(result.table());
    return true;
}

}  // namespace cli
