/*
 * settings_text.h: values of settings as people write them.
 */
#ifndef OUTPUT_SETTINGS_TEXT_H
#define OUTPUT_SETTINGS_TEXT_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "settings.h"

namespace output
{

/* "64 MiB", "512", "1 kB", "2 GiB": a whole number with a unit of B, kB, KB, MB, GB, TB (thousands), KiB, MiB, GiB or
 * TiB; without a unit: bytes. False: it is none, or more than 64 bits hold. */
bool parse_bytes(std::string_view text, uint64_t &bytes);

/* "10 s", "0.5 s", "250 ms", "5 min", "1 h", "7 d"; without a unit: seconds. In milliseconds. */
bool parse_time(std::string_view text, uint64_t &milliseconds);

/* What a value of that type can be, for a message: "a number", "a size such as \"64 MiB\"". */
const char *type_text(SettingType type);

/* The value that `setting.fallback` stands for. False: there is none, or it is no value of that type. */
bool default_of(const Setting &setting, Settings::Value &value);

/* Sets all that the table has a default for and that was not set. */
void set_defaults(std::span<const Setting> table, Settings &settings);

}  // namespace output

#endif
