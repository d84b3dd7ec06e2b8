/* The help text of a verb, made from its table. */

#include <string_view>

#include "verb.h"

namespace cli
{

namespace
{

constexpr size_t kTextColumn = 26;

std::string names(const Option &option)
{
    const std::string letter = option.letter ? std::string("  -") + option.letter + ", --" : "      --";
    return letter + option.name + (option.argument ? std::string(" ") + option.argument : "");
}

// The text beside the names, and below it where it has several lines.
std::string row(const Option &option, size_t column)
{
    std::string lines, line = names(option);
    std::string_view rest = option.help;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        line.append(line.size() < column ? column - line.size() : 1, ' ').append(rest.substr(0, end));
        lines += line + "\n";
        line.clear();
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return lines;
}

}  // namespace

std::string option_lines(const std::vector<Option> &options, size_t column)
{
    std::string lines;
    for (const Option &option : options) {
        if (option.section)
            lines += std::string("\n") + option.section + ":\n";
        lines += row(option, column);
    }
    return lines;
}

std::string Verb::help() const
{
    return text_.head + option_lines(options(), kTextColumn) + (text_.list ? text_.list() : "") + text_.tail;
}

}  // namespace cli
