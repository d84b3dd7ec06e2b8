#include "completion.h"

#include <algorithm>

#include "verbs.h"

namespace cli
{

namespace
{

constexpr size_t kSummary = 80; /* columns, beside a name */

}

std::string summary(std::string_view help)
{
    std::string text(help);
    std::replace(text.begin(), text.end(), '\n', ' ');
    text.resize(std::min({text.find(". "), text.find("; "), text.size()}));
    if (text.size() > kSummary)
        text.resize(std::min({text.find(": "), text.rfind(", ", kSummary), text.size()}));
    return text;
}

namespace
{

// In single quotes, for all three shells.
std::string quoted(std::string_view text)
{
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// The call that completes such words.
std::string call(const std::string &prefix, const Words &words)
{
    constexpr const char *kFunctions[] = {"_any", "_files", "_words", "_list", "_watches", "_paths"};
    const std::string all = words.all();
    return prefix + kFunctions[words.kind] + (all.empty() ? "" : " " + all);
}

std::string verb_names()
{
    std::string names;
    for (const Verb *verb : verbs())
        names += (names.empty() ? "" : " ") + std::string(verb->text().name);
    return names;
}

/* ---- bash ---- */

std::string bash_names(std::string_view verb, const std::vector<Option> &options)
{
    std::string names;
    for (const Option &option : options)
        names += (names.empty() ? "--" : " --") + std::string(option.name);
    return "    " + quoted(verb) + ") options=" + quoted(names) + " ;;\n";
}

std::string bash_value(const std::string &verb, const Option &option)
{
    if (!option.argument)
        return "";
    const std::string letter = option.letter ? quoted(verb + " -" + option.letter) + " | " : "";
    return "    " + letter + quoted(verb + " --" + option.name) + ") " + call("_fmon", option.words) + " ;;\n";
}

std::string bash_values()
{
    std::string lines;
    for (const Verb *verb : verbs())
        for (const Option &option : verb->options())
            lines += bash_value(verb->text().name, option);
    return lines;
}

}  // namespace

std::string bash_tables()
{
    std::string options = bash_names("", main_options()), arguments;
    for (const Verb *verb : verbs()) {
        options += bash_names(verb->text().name, verb->options());
        arguments += "    " + std::string(verb->text().name) + ") " + call("_fmon", verb->text().argument) + " ;;\n";
    }
    return "_fmon_verbs=" + quoted(verb_names()) + "\n\n_fmon_options()\n{\n    case $1 in\n" + options +
           "    esac\n}\n\n_fmon_value()\n{\n    case \"$1 $2\" in\n" + bash_values() +
           "    *) return 1 ;;\n    esac\n}\n\n_fmon_argument()\n{\n    case $1 in\n" + arguments + "    esac\n}\n";
}

/* ---- zsh ---- */

namespace
{

// What stands between brackets in the words for _arguments, or before a colon.
std::string zsh_text(std::string_view text)
{
    std::string escaped;
    for (const char c : text)
        escaped += (std::string_view("[]:\\").find(c) != std::string_view::npos ? "\\" : "") + std::string(1, c);
    return escaped;
}

// A call without the arguments that _arguments would add: that is what the blank is for. Alone it offers nothing.
std::string zsh_action(const Words &words) { return words.kind == Words::kAny ? " " : call(" _fmon", words); }

// The words that _arguments wants for an option: '(-r --recursive)'{-r,--recursive}'[...]'. One with a value may be
// repeated.
std::string zsh_option(const Option &option)
{
    const std::string name = std::string("--") + option.name, letter = std::string("-") + option.letter;
    const char *const value = option.argument ? "=" : "", *const short_value = option.argument ? "+" : "";
    std::string spec = option.argument ? "'*'" : option.letter ? "'(" + letter + " " + name + ")'" : "";
    spec += option.letter ? "{" + letter + short_value + "," + name + value + "}" : name + value;
    std::string rest = "[" + zsh_text(summary(option.help)) + "]";
    if (option.argument)
        rest += ":" + zsh_text(option.argument) + ":" + zsh_action(option.words);
    return spec + quoted(rest);
}

std::string zsh_options(const std::vector<Option> &options, const char *indent)
{
    std::string lines;
    for (const Option &option : options)
        lines += indent + zsh_option(option) + "\n";
    return lines;
}

std::string zsh_verb(const Verb &verb)
{
    const Words &argument = verb.text().argument;
    std::string lines = std::string("    ") + verb.text().name + ")\n        specs=(\n";
    lines += zsh_options(verb.options(), "            ");
    if (argument.kind != Words::kAny)
        lines += "            " + quoted("*:argument:" + zsh_action(argument)) + "\n";
    return lines + "        ) ;;\n";
}

}  // namespace

std::string zsh_tables()
{
    std::string meanings, cases;
    for (const Verb *verb : verbs()) {
        meanings += "        " + quoted(verb->text().name + (":" + zsh_text(verb->text().meaning))) + "\n";
        cases += zsh_verb(*verb);
    }
    return "_fmon_table()\n{\n    verbs=(\n" + meanings + "    )\n    specs=(\n" +
           zsh_options(main_options(), "        ") + "    )\n}\n\n_fmon_verb_table()\n{\n    case $1 in\n" + cases +
           "    esac\n}\n";
}

/* ---- fish ---- */

namespace
{

// What follows the name of an option that takes such a value.
std::string fish_value(const Words &words)
{
    if (words.kind == Words::kFiles)
        return " -r -F";
    if (words.kind == Words::kPaths)
        return " -r -F -a '(__fmon_paths)'";
    return words.kind == Words::kAny ? " -x" : " -x -a " + quoted("(" + call("__fmon", words) + ")");
}

std::string fish_option(const std::string &condition, const Option &option)
{
    std::string line = "complete -c fmon -n " + quoted(condition);
    if (option.letter)
        line += std::string(" -s ") + option.letter;
    return line + " -l " + option.name + (option.argument ? fish_value(option.words) : "") + " -d " +
           quoted(summary(option.help)) + "\n";
}

std::string fish_verb(const Verb &verb)
{
    const std::string name = verb.text().name, condition = "__fmon_has_verb " + name;
    const Words &argument = verb.text().argument;
    std::string lines =
        "complete -c fmon -n __fmon_needs_verb -a " + name + " -d " + quoted(verb.text().meaning) + "\n";
    for (const Option &option : verb.options())
        lines += fish_option(condition, option);
    if (argument.kind != Words::kAny)
        lines += "complete -c fmon -n " + quoted(condition) + fish_value(argument) + "\n";
    return lines;
}

}  // namespace

std::string fish_tables()
{
    std::string lines = "complete -c fmon -n '__fmon_has_verb help' -a " + quoted(verb_names()) + "\n";
    for (const Option &option : main_options())
        lines += fish_option("__fmon_needs_verb", option);
    for (const Verb *verb : verbs())
        lines += fish_verb(*verb);
    return lines;
}

std::string completion_script(std::string_view shell, std::string frame)
{
    const std::string tables = shell == "bash"   ? bash_tables()
                               : shell == "zsh"  ? zsh_tables()
                               : shell == "fish" ? fish_tables()
                                                 : "";
    constexpr std::string_view kPlace = "@TABLES@\n";
    const size_t place = frame.find(kPlace);
    return tables.empty() || place == std::string::npos ? "" : frame.replace(place, kPlace.size(), tables);
}

}  // namespace cli
