/*
 * columns.h: texts in so many columns of a terminal, whatever is in them.
 */
#ifndef CLI_TOP_COLUMNS_H
#define CLI_TOP_COLUMNS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace cli
{

/* Before the others, once: characters have the widths of UTF-8 terminals, whatever the locale is. Where the system
 * knows no such locale, what is not ASCII is shown as octal numbers. */
void choose_widths();

/* What a stranger named, for a terminal: see agent::append_escaped(); and nothing that has no known width. */
std::string printable(std::string_view bytes);

/* Columns that a printable text takes. */
size_t width_of(std::string_view text);

enum class Keep { kStart, kEnd };

/* The printable text in exactly `width` columns: filled up with blanks, or cut with "..." in place of what is left out.
 */
std::string fit(std::string_view text, size_t width, Keep keep = Keep::kStart);
std::string fit_right(std::string_view text, size_t width); /* blanks come first */
/* The same without blanks. */
std::string cut(std::string_view text, size_t width, Keep keep = Keep::kStart);

}  // namespace cli

#endif
