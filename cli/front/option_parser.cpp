#include "option_parser.h"

#include <getopt.h>

#include <string_view>

namespace cli
{

namespace
{

// An option is known to getopt_long by its place in the table + kFirstRow, or by its letter.
constexpr int kFirstRow = 256;

/* The table in getopt_long's form. */
struct Getopt {
    explicit Getopt(const std::vector<Option> &options)
    {
        for (const Option &option : options)
            add(option);
        names.push_back({nullptr, 0, nullptr, 0});
    }

    std::string letters = ":";
    std::vector<struct option> names;

private:
    void add(const Option &option)
    {
        const int has_value = option.argument ? required_argument : no_argument;
        names.push_back({option.name, has_value, nullptr, kFirstRow + static_cast<int>(names.size())});
        if (option.letter)
            (letters += option.letter) += option.argument ? ":" : "";
    }
};

// The row of a code of getopt_long's; the table's size when it is none.
size_t find_row(const std::vector<Option> &options, int code)
{
    size_t row = 0;
    while (row < options.size() && code != kFirstRow + static_cast<int>(row) && code != options[row].letter)
        row++;
    return row;
}

std::string missing_value(const Option &option, Wording wording)
{
    const std::string what = wording == Wording::kFull ? std::string(": ") + option.argument : "";
    return std::string("--") + option.name + " needs a value" + what;
}

std::string unknown_option(const CommandLine &line)
{
    const bool is_letter = optopt != 0;
    const std::string option = is_letter ? std::string("-") + static_cast<char>(optopt) : line.argv[optind - 1];
    const bool may_be_short = line.wording == Wording::kFull && !is_letter;
    return std::string("unknown ") + (may_be_short ? "or ambiguous " : "") + "option '" + option + "': see fmon " +
           line.verb + " --help";
}

// getopt_long itself would name the program by its path and know nothing of verbs. It leaves the option's code in
// optopt, 0 for a long name that it does not know.
std::string complaint(const CommandLine &line, const std::vector<Option> &options, int code)
{
    const size_t row = optopt ? find_row(options, optopt) : options.size();
    if (row == options.size())
        return unknown_option(line);
    if (code == ':')
        return missing_value(options[row], line.wording);
    return std::string("--") + options[row].name + " takes no value";
}

}  // namespace

int parse_options(const CommandLine &line, const std::vector<Option> &options, const TakeOption &take,
                  std::string &error)
{
    const Getopt form(options);
    opterr = 0;
    optind = 0;  // starts a new scan
    int code;
    while ((code = getopt_long(line.argc, line.argv, form.letters.c_str(), form.names.data(), nullptr)) != -1) {
        if (code == '?' || code == ':') {
            error = complaint(line, options, code);
            return 0;
        }
        if (!take(find_row(options, code), optarg))
            return 0;
    }
    return optind;
}

}  // namespace cli
