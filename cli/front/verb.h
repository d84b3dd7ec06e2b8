/*
 * verb.h: a verb of `fmon` is its options (option.h), the texts around them, what it does with its arguments, and a
 * function. The front end (option_parser, help, completion) knows no verb by name.
 */
#ifndef CLI_FRONT_VERB_H
#define CLI_FRONT_VERB_H

#include <span>
#include <string>
#include <vector>

#include "agent/message.h"
#include "option_parser.h"
#include "output/print.h"

namespace cli
{

struct VerbText {
    const char *name;
    const char *meaning;             /* for the list of verbs */
    const char *head;                /* of the help text, up to the options */
    const char *tail;                /* and what comes behind them */
    std::string (*list)() = nullptr; /* what stands between options and tail, or null */
    Words argument = {};
    Wording wording = Wording::kFull;
};

class Verb
{
public:
    constexpr explicit Verb(const VerbText &text) : text_(text) {}
    Verb(const Verb &) = delete;
    Verb &operator=(const Verb &) = delete;

    const VerbText &text() const { return text_; }
    std::string help() const;
    virtual std::vector<Option> options() const = 0;

    /* argv[0] is the verb; returns the exit status. */
    virtual int run(int argc, char **argv) const = 0;

protected:
    ~Verb() = default;

private:
    VerbText text_;
};

/* The rows of options as the help text has them, their texts in a column. */
std::string option_lines(const std::vector<Option> &options, size_t column);

/* A verb whose command line is read into an `O`, which has a member `help`. */
template <typename O>
class VerbOf final : public Verb
{
public:
    using Row = OptionRow<O>;
    using Arguments = std::span<char *const>;

    /* `take_arguments` sees what is left of the command line, after all options and not when help is asked for: false
     * with one line in `error`. `function` returns the exit status. */
    constexpr VerbOf(const VerbText &text, std::span<const Row> rows,
                     bool (*take_arguments)(O &, Arguments, std::string &error), int (*function)(const O &))
        : Verb(text), rows_(rows), take_arguments_(take_arguments), function_(function)
    {
    }

    std::vector<Option> options() const override
    {
        std::vector<Option> options;
        for (const Row &row : rows_)
            options.push_back(row.option);
        return options;
    }

    /* False: `error` is one line for the user. */
    bool parse(int argc, char **argv, O &options, std::string &error) const
    {
        const auto take = [&](size_t row, const char *value) {
            return rows_[row].take(options, {rows_[row].option, value}, error);
        };
        const CommandLine line = {text().name, text().wording, argc, argv};
        const int first = parse_options(line, this->options(), take, error);
        return first > 0 && (options.help || take_arguments_(options, Arguments(argv + first, argv + argc), error));
    }

    int run(int argc, char **argv) const override
    {
        O options;
        std::string error;
        if (parse(argc, argv, options, error))
            return options.help ? output::print_out(help()) : function_(options);
        agent::complain(error);
        return agent::kError;
    }

private:
    std::span<const Row> rows_;
    bool (*take_arguments_)(O &, Arguments, std::string &);
    int (*function_)(const O &);
};

}  // namespace cli

#endif
