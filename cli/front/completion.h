/*
 * completion.h: the tables of the verbs as code of a shell. The build puts it into the scripts of packaging/completion.
 *
 * The code calls functions that the script defines for each kind of words: PREFIX_files, PREFIX_words WORD...,
 * PREFIX_list WORD... (with commas between them), PREFIX_watches, and in bash PREFIX_any. PREFIX is _fmon, in fish
 * __fmon.
 */
#ifndef CLI_FRONT_COMPLETION_H
#define CLI_FRONT_COMPLETION_H

#include <string>
#include <string_view>

namespace cli
{

/* _fmon_verbs, the names of the verbs; _fmon_options VERB sets `options` to the long names, without a verb to those of
 * the command; _fmon_value VERB OPTION and _fmon_argument VERB call one of the functions above, the former returns
 * false for an option without a value. */
std::string bash_tables();

/* _fmon_table sets `verbs`, an array of "NAME:MEANING", and `specs`, what _arguments wants to know of the command's own
 * options; _fmon_verb_table VERB sets `specs` to those of the verb. */
std::string zsh_tables();

/* Calls of complete. Conditions are `__fmon_needs_verb` and `__fmon_has_verb VERB`. */
std::string fish_tables();

/* The script for a shell ("bash", "zsh", "fish"; else empty): its frame, where "@TABLES@" stands for the tables. */
std::string completion_script(std::string_view shell, std::string frame);

/* A help text in a few words on one line: its first clause. */
std::string summary(std::string_view help);

}  // namespace cli

#endif
