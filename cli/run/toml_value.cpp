#include "toml_value.h"

#include <algorithm>
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

// Where a text, or a comment, that begins at `at` ends; `at` itself: nothing of that kind begins there.
size_t end_of_quoted(std::string_view text, size_t at)
{
    const char c = text[at];
    if (c == '#')
        return std::min(text.find('\n', at), text.size());
    if (c != '"' && c != '\'')
        return at;
    const std::string_view three = text.substr(at, 3);
    const std::string_view mark = three == std::string(3, c) ? three : three.substr(0, 1);
    for (size_t i = at + mark.size(); i < text.size(); i++) {
        if (text[i] == '\\' && c == '"')
            i++;
        else if (text.substr(i, mark.size()) == mark)
            return i + mark.size();
        else if (mark.size() == 1 && text[i] == '\n')
            return i;
    }
    return text.size();
}

// The library makes a table of each part of a key, one within the other, and goes through them by calling itself.
bool check_keys(std::string_view text, Place &place)
{
    constexpr unsigned kMostParts = 64;
    unsigned line = 1, parts = 0;
    size_t begin_of_line = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t after = std::max(end_of_quoted(text, at), at + 1);
        if (text[at] == '.' && ++parts == kMostParts) {
            place = {line, static_cast<unsigned>(at - begin_of_line + 1)};
            return false;
        }
        if (strchr("=,{}[]\n", text[at]))
            parts = 0;
        for (; at < after; at++)
            if (text[at] == '\n') {
                line++;
                begin_of_line = at + 1;
            }
    }
    return true;
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
    if (!check_keys(text, place)) {
        error = "a key has more than 64 parts";
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
