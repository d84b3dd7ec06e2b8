/*
 * escape.h: file names are bytes chosen by strangers; these functions make them safe for a terminal, for JSON, for CSV.
 */
#ifndef AGENT_ESCAPE_H
#define AGENT_ESCAPE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace agent
{

/* Length of the well-formed UTF-8 sequence at the start of `text` (1 to 4), or 0 where there is none: overlong forms,
 * surrogates and values above U+10FFFF are not well-formed. `text` is not empty. */
size_t utf8_length(std::string_view text);
bool is_utf8(std::string_view text);

/* Appends `text` with each byte that is not part of a well-formed sequence replaced by U+FFFD. */
void append_utf8(std::string_view text, std::string &out);

/* Appends `text` as a person may look at it: \n, \t, \\ ... and \ooo (three octal digits, so that no following digit
 * changes the meaning) for control characters, invalid UTF-8, and characters that turn the direction of a line or end
 * it. What comes out holds no byte that drives a terminal. */
void append_escaped(std::string_view text, std::string &out);
/* The same for a text of ours with file names in it, in which "\\" stands for itself. */
void append_safe(std::string_view text, std::string &out);
std::string escaped(std::string_view text);

/* Appends JSON text, in which DEL and the characters that append_escaped() takes for hidden become \uXXXX: the same
 * JSON, for a terminal. `json` is UTF-8, as its strings are when append_utf8() made them. */
void append_json_safe(std::string_view json, std::string &out);

/* Appends one field as RFC 4180 has it: quoted when it holds a comma, a quote or a line end. */
void append_csv(std::string_view field, std::string &out);

void append_base64(std::string_view bytes, std::string &out);

}  // namespace agent

#endif
