/*
 * parse.h: command lines of verbs, read as the program reads them.
 */
#ifndef PARSE_H
#define PARSE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/watch/options.h"

namespace cli_testing
{

/* Strings as main gets them. */
class Argv
{
public:
    Argv(const char *verb, std::vector<std::string> arguments) : words_(std::move(arguments))
    {
        words_.insert(words_.begin(), verb);
        for (std::string &word : words_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }

    int count() const { return static_cast<int>(words_.size()); }
    char **words() { return pointers_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char *> pointers_;
};

template <typename O>
struct Parsed {
    bool ok;
    O options;
    std::string error;
};

/* `options` is what they are before. */
template <typename O>
Parsed<O> parse(const cli::VerbOf<O> &verb, std::vector<std::string> arguments, const O &options = {})
{
    Parsed<O> parsed = {false, options, ""};
    Argv argv(verb.text().name, std::move(arguments));
    parsed.ok = verb.parse(argv.count(), argv.words(), parsed.options, parsed.error);
    return parsed;
}

/* `fmon watch` with these arguments. */
inline Parsed<cli::WatchOptions> parse(std::vector<std::string> arguments)
{
    return parse(cli::kWatch, std::move(arguments));
}

}  // namespace cli_testing

#endif
