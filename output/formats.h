/*
 * formats.h: the forms of records, by name: a row each.
 */
#ifndef OUTPUT_FORMATS_H
#define OUTPUT_FORMATS_H

#include <memory>
#include <string>
#include <string_view>

#include "format.h"

namespace output
{

std::unique_ptr<Formatter> make_text_formatter(const FormatStyle &style);
std::unique_ptr<Formatter> make_json_formatter(const FormatStyle &style);
std::unique_ptr<Formatter> make_csv_formatter(const FormatStyle &style);
std::unique_ptr<Formatter> make_ecs_formatter(const FormatStyle &style);
std::unique_ptr<Formatter> make_ocsf_formatter(const FormatStyle &style);

struct FormatRow {
    const char *name;
    bool has_records; /* for everything that is reported, so that no note need say the same */
    std::unique_ptr<Formatter> (*make)(const FormatStyle &style);
};

inline constexpr FormatRow kFormats[] = {
    {"text", false, make_text_formatter}, {"json", true, make_json_formatter}, {"csv", false, make_csv_formatter},
    {"ecs", true, make_ecs_formatter},    {"ocsf", true, make_ocsf_formatter},
};

/* Null: a form of that name is not known. */
const FormatRow *find_format(std::string_view name);

/* "text, json, csv, ..." */
std::string format_names(const char *separator = ", ");

/* Whether a template has that directive, as 'o' for "%o"; of a name of a form: no. */
bool asks_for(const std::string &format, char directive);

/* The formatter of that name, or of that template. Null, with the reason in `error`: what a template holds is wrong. */
std::unique_ptr<Formatter> make_formatter(const std::string &format, const FormatStyle &style, std::string &error);

}  // namespace output

#endif
