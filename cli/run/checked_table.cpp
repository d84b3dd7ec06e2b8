#include "checked_table.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <utility>

#include "output/settings_text.h"

namespace cli
{

namespace
{

using output::Setting;
using output::Settings;
using output::SettingType;

std::optional<Settings::Value> texts_of(const TomlValue &value)
{
    if (value.kind == TomlValue::kText)
        return std::vector<std::string>{value.text};
    std::vector<std::string> texts;
    for (const TomlValue &item : value.items) {
        if (item.kind != TomlValue::kText)
            return {};
        texts.push_back(item.text);
    }
    if (value.kind != TomlValue::kArray)
        return {};
    return texts;
}

// A number alone counts bytes, or seconds.
std::optional<Settings::Value> number_of(SettingType type, const TomlValue &value)
{
    uint64_t number = 0;
    if (value.kind == TomlValue::kNumber && value.number >= 0) {
        number = static_cast<uint64_t>(value.number);
        if (type == SettingType::kTime && !output::parse_time(std::to_string(number), number))
            return {};
        return number;
    }
    if (type == SettingType::kBytes && value.kind == TomlValue::kText && output::parse_bytes(value.text, number))
        return number;
    if (type != SettingType::kTime)
        return {};
    const std::string text = value.kind == TomlValue::kFraction ? std::to_string(value.fraction) : value.text;
    if (output::parse_time(text, number))
        return number;
    return {};
}

std::optional<Settings::Value> value_of(SettingType type, const TomlValue &value)
{
    switch (type) {
        case SettingType::kText:
        case SettingType::kSecret:
            return value.kind == TomlValue::kText ? std::optional<Settings::Value>(value.text) : std::nullopt;
        case SettingType::kTexts:
            return texts_of(value);
        case SettingType::kFlag:
            return value.kind == TomlValue::kFlag ? std::optional<Settings::Value>(value.flag) : std::nullopt;
        default:
            return number_of(type, value);
    }
}

}  // namespace

size_t edit_distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = std::exchange(row[0], i);
        for (size_t j = 1; j <= b.size(); j++) {
            const size_t above = row[j];
            row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

CheckedTable::CheckedTable(const TomlValue &table, const std::string &name, Rows rows,
                           std::initializer_list<std::string_view> nested, Faults &faults)
    : table_(table), name_(name), rows_(std::move(rows)), nested_(nested), faults_(faults)
{
    check_keys();
    check_required();
    output::set_defaults(rows_, settings_);
}

void CheckedTable::check_keys()
{
    for (const TomlMember &member : table_.members) {
        const auto row =
            std::find_if(rows_.begin(), rows_.end(), [&](const Setting &r) { return member.key == r.key; });
        if (row != rows_.end())
            take(*row, member.value);
        else if (std::find(nested_.begin(), nested_.end(), member.key) != nested_.end())
            check_nested(member);
        else
            faults_.add(member.place, unknown(member.key));
    }
}

void CheckedTable::check_nested(const TomlMember &member)
{
    const std::string inner = name_.empty() ? member.key : name_.substr(2, name_.size() - 4) + "." + member.key;
    const TomlValue &value = member.value;
    const auto is_table = [](const TomlValue &item) { return item.kind == TomlValue::kTable; };
    if (value.kind != TomlValue::kArray || !std::all_of(value.items.begin(), value.items.end(), is_table))
        faults_.add(member.place, "'" + member.key + "' is " + kind_text(value.kind) + ": write [[" + inner +
                                      "]] and its keys below");
}

void CheckedTable::take(const Setting &row, const TomlValue &value)
{
    if (const std::optional<Settings::Value> taken = value_of(row.type, value))
        settings_.set(row.key, *taken);
    else
        faults_.add(value.place, "'" + std::string(row.key) + "' takes " + output::type_text(row.type) + ", not " +
                                     (value.kind == TomlValue::kText ? "'" + value.text + "'" : kind_text(value.kind)));
}

void CheckedTable::check_required()
{
    for (const Setting &row : rows_)
        if (row.required && !says(row.key))
            faults_.add(table_.place, name_ + " lacks '" + row.key + "': " + row.meaning);
}

// The nearest key is most likely the one that was meant.
std::string CheckedTable::unknown(const std::string &key) const
{
    std::vector<std::string_view> known(nested_);
    for (const Setting &row : rows_)
        known.push_back(row.key);
    std::string text = "unknown key '" + key + "'" + (name_.empty() ? "" : " in " + name_) + ": ";
    const auto nearer = [&](std::string_view a, std::string_view b) {
        return edit_distance(key, a) < edit_distance(key, b);
    };
    const auto nearest = std::min_element(known.begin(), known.end(), nearer);
    if (nearest != known.end() && edit_distance(key, *nearest) <= 2)
        return text + "is '" + std::string(*nearest) + "' meant?";
    text += "there are ";
    for (size_t i = 0; i < known.size(); i++)
        text += (i ? ", " : "") + std::string(known[i]);
    return text;
}

std::span<const TomlValue> CheckedTable::tables(std::string_view key) const
{
    const TomlMember *member = table_.find(key);
    if (!member)
        return {};
    const auto is_table = [](const TomlValue &item) { return item.kind == TomlValue::kTable; };
    const auto &items = member->value.items;
    return std::all_of(items.begin(), items.end(), is_table) ? std::span<const TomlValue>(items)
                                                             : std::span<const TomlValue>();
}

Place CheckedTable::place(std::string_view key) const
{
    const TomlMember *member = table_.find(key);
    return member ? member->value.place : table_.place;
}

}  // namespace cli
