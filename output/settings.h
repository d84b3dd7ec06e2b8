/*
 * settings.h: what an output can be told, as tables that the configuration's reader, its manual page and the outputs
 * themselves share, and what one was told.
 */
#ifndef OUTPUT_SETTINGS_H
#define OUTPUT_SETTINGS_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace output
{

enum class SettingType {
    kText,
    kTexts,  /* an array of texts */
    kNumber, /* not negative */
    kBytes,  /* a number, or a text such as "64 MiB" */
    kTime,   /* milliseconds; a number of seconds, or a text such as "10 s", "5 min", "1 h", "7 d" */
    kFlag,
    kSecret, /* the path of a file which holds it and which no other user may read; never the secret itself */
};

/* In the order in which a row reads. */
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Setting {
    const char *key;
    SettingType type;
    const char *meaning;  /* for the manual page, one sentence without a stop */
    const char *fallback; /* as it would be written in the configuration; null: none */
    bool required = false;
};

/* The values of one output; what was not said has the table's default. */
class Settings
{
public:
    using Value = std::variant<std::string, std::vector<std::string>, uint64_t, bool>;

    void set(std::string_view key, Value value) { values_[std::string(key)] = std::move(value); }
    bool has(std::string_view key) const { return values_.find(key) != values_.end(); }

    /* Of a key that is not there, or of another type: empty, 0, false. */
    std::string text(std::string_view key) const { return get<std::string>(key); }
    std::vector<std::string> texts(std::string_view key) const { return get<std::vector<std::string>>(key); }
    uint64_t number(std::string_view key) const { return get<uint64_t>(key); } /* bytes and milliseconds, too */
    bool flag(std::string_view key) const { return get<bool>(key); }

    bool operator==(const Settings &) const = default;

private:
    template <typename T>
    T get(std::string_view key) const
    {
        const auto found = values_.find(key);
        const T *value = found == values_.end() ? nullptr : std::get_if<T>(&found->second);
        return value ? *value : T{};
    }

    std::map<std::string, Value, std::less<>> values_;
};

}  // namespace output

#endif
