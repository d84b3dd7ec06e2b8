/*
 * formats.h: the forms of records, by name: a row each.
 */
#ifndef OUTPUT_FORMATS_H
#define OUTPUT_FORMATS_H

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "format.h"

namespace output
{

struct FormatRow {
    const char *name;
    bool has_records; /* for everything that is reported, so that no note need say the same */
    std::unique_ptr<Formatter> (*make)(const FormatStyle &style);
};

std::span<const FormatRow> formats();

/* Null: a form of that name is not known. */
const FormatRow *find_format(std::string_view name);

/* "text, json, csv" */
std::string format_names(const char *separator = ", ");

/* The formatter of that name, or of that template. Null, with the reason in `error`: what a template holds is wrong. */
std::unique_ptr<Formatter> make_formatter(const std::string &format, const FormatStyle &style, std::string &error);

}  // namespace output

#endif
