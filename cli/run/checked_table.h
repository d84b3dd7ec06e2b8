/*
 * checked_table.h: a table of the configuration, held against the rows that say which keys it may have, and of which
 * types.
 */
#ifndef CLI_RUN_CHECKED_TABLE_H
#define CLI_RUN_CHECKED_TABLE_H

#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "faults.h"
#include "output/settings.h"
#include "toml_value.h"

namespace cli
{

using Rows = std::vector<output::Setting>;

class CheckedTable
{
public:
    /* `name`: as it stands in the file, such as "[[instance.watch]]"; `place`: of the table. `nested`: keys that hold
     * arrays of tables. What is wrong goes into `faults`; what was not said has the rows' default. */
    CheckedTable(const TomlValue &table, const std::string &name, Rows rows,
                 std::initializer_list<std::string_view> nested, Faults &faults);

    const output::Settings &settings() const { return settings_; }
    std::string text(std::string_view key) const { return settings_.text(key); }
    std::vector<std::string> texts(std::string_view key) const { return settings_.texts(key); }
    uint64_t number(std::string_view key) const { return settings_.number(key); }
    bool flag(std::string_view key) const { return settings_.flag(key); }
    bool says(std::string_view key) const { return table_.find(key) != nullptr; }

    /* The tables of a nested key. */
    std::span<const TomlValue> tables(std::string_view key) const;

    /* Of a key's value, and where it is not said, of the table. */
    Place place(std::string_view key) const;

    /* Reports that something is wrong with that key. */
    void fault(std::string_view key, const std::string &text) const { faults_.add(place(key), text); }

private:
    void check_keys();
    void check_nested(const TomlMember &member);
    void take(const output::Setting &row, const TomlValue &value);
    void check_required();
    std::string unknown(const std::string &key) const;

    const TomlValue &table_;
    const std::string name_;
    const Rows rows_;
    const std::vector<std::string_view> nested_;
    Faults &faults_;
    output::Settings settings_;
};

/* How many letters are to be put in, taken out or changed to make the one the other. */
size_t edit_distance(std::string_view a, std::string_view b);

}  // namespace cli

#endif
