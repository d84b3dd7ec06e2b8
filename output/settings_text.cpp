#include "settings_text.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace output
{

namespace
{

struct Unit {
    const char *name;
    uint64_t factor;
};

constexpr Unit kByteUnits[] = {
    {"", 1},
    {"B", 1},
    {"kB", 1000},
    {"KB", 1000},
    {"MB", 1000ULL * 1000},
    {"GB", 1000ULL * 1000 * 1000},
    {"TB", 1000ULL * 1000 * 1000 * 1000},
    {"KiB", 1ULL << 10},
    {"MiB", 1ULL << 20},
    {"GiB", 1ULL << 30},
    {"TiB", 1ULL << 40},
};

constexpr Unit kTimeUnits[] = {
    {"", 1000},    {"ms", 1},       {"s", 1000},      {"sec", 1000},           {"min", 60'000},
    {"m", 60'000}, {"h", 3600'000}, {"d", 86400'000}, {"w", 7 * 86400'000ULL},
};

template <size_t N>
const Unit *find_unit(const Unit (&units)[N], std::string_view name)
{
    for (const Unit &unit : units)
        if (name == unit.name)
            return &unit;
    return nullptr;
}

std::string_view without_blanks(std::string_view text)
{
    const size_t first = text.find_first_not_of(' ');
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// Takes the number off the front; what is left is the unit.
template <typename Number>
bool take_number(std::string_view &text, Number &number)
{
    text = without_blanks(text);
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (code != std::errc() || text.empty() || text[0] == '-')
        return false;
    text = without_blanks(text.substr(static_cast<size_t>(end - text.data())));
    return true;
}

std::vector<std::string> list_of(std::string_view text)
{
    std::vector<std::string> list;
    while (!text.empty()) {
        const size_t comma = std::min(text.find(','), text.size());
        list.emplace_back(without_blanks(text.substr(0, comma)));
        text.remove_prefix(std::min(comma + 1, text.size()));
    }
    return list;
}

bool number_of(SettingType type, std::string_view text, uint64_t &number)
{
    if (type == SettingType::kBytes)
        return parse_bytes(text, number);
    if (type == SettingType::kTime)
        return parse_time(text, number);
    return take_number(text, number) && text.empty();
}

}  // namespace

bool parse_bytes(std::string_view text, uint64_t &bytes)
{
    uint64_t number = 0;
    if (!take_number(text, number))
        return false;
    const Unit *unit = find_unit(kByteUnits, text);
    if (!unit || number > std::numeric_limits<uint64_t>::max() / unit->factor)
        return false;
    bytes = number * unit->factor;
    return true;
}

bool parse_time(std::string_view text, uint64_t &milliseconds)
{
    double number = 0;
    if (!take_number(text, number) || !std::isfinite(number))
        return false;
    const Unit *unit = find_unit(kTimeUnits, text);
    constexpr double kMost = 1e15; /* far beyond what any clock shows */
    if (!unit || number * static_cast<double>(unit->factor) > kMost)
        return false;
    milliseconds = static_cast<uint64_t>(std::llround(number * static_cast<double>(unit->factor)));
    return true;
}

const char *type_text(SettingType type)
{
    switch (type) {
        case SettingType::kText:
            return "a text";
        case SettingType::kTexts:
            return "an array of texts";
        case SettingType::kNumber:
            return "a number, 0 or more";
        case SettingType::kBytes:
            return "a size, such as \"64 MiB\"";
        case SettingType::kTime:
            return "a time, such as \"10 s\" or \"5 min\"";
        case SettingType::kFlag:
            return "true or false";
        case SettingType::kSecret:
            return "the path of a file";
    }
    return "";
}

bool default_of(const Setting &setting, Settings::Value &value)
{
    if (!setting.fallback)
        return false;
    const std::string_view text = setting.fallback;
    uint64_t number = 0;
    switch (setting.type) {
        case SettingType::kText:
        case SettingType::kSecret:
            value = std::string(text);
            return true;
        case SettingType::kTexts:
            value = list_of(text);
            return true;
        case SettingType::kFlag:
            value = text == "true";
            return text == "true" || text == "false";
        default:
            if (!number_of(setting.type, text, number))
                return false;
            value = number;
            return true;
    }
}

void set_defaults(std::span<const Setting> table, Settings &settings)
{
    for (const Setting &setting : table) {
        Settings::Value value;
        if (!settings.has(setting.key) && default_of(setting, value))
            settings.set(setting.key, std::move(value));
    }
}

}  // namespace output
