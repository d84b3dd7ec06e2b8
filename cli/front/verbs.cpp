#include "verbs.h"

#include "cli/doctor/doctor_options.h"
#include "cli/dump/dump_options.h"
#include "cli/offsets/offsets_options.h"
#include "cli/run/run_options.h"
#include "cli/stats/stats_options.h"
#include "cli/top/top_options.h"
#include "cli/watch/options.h"

namespace cli
{

namespace
{

constexpr const Verb *kVerbs[] = {
    &kWatch, &kRun, &kTop, &kStats, &kDump, &kDoctor, &kOffsets,
};

constexpr size_t kVerbColumn = 12, kOptionColumn = 17;

constexpr Option kHelp = {'h', "help", nullptr, "this text; fmon VERB --help explains a verb", {}, "Options"};
constexpr Option kVersion = {'V', "version", nullptr, "the version"};

constexpr char kHead[] = R"(Usage: fmon VERB [OPTION]... [ARGUMENT]...

Monitors files on Linux.

Verbs:
)";

constexpr char kTail[] = R"(
Examples:
  fmon watch -r /etc                   changes below /etc, until Ctrl-C
  fmon watch --format json -r /data    the same as one JSON object a line
  fmon run --check                     whether the service's configuration is right
  fmon top                             which files and processes are busiest
  fmon dump                            what the running watch watches, and what waits in it
  fmon doctor                          what works here, and what does not
)";

bool is_option(std::string_view word, const Option &option)
{
    return word == std::string("--") + option.name || word == std::string("-") + option.letter;
}

int refuse(std::string_view verb)
{
    agent::complain(verb.empty() ? "a verb is missing, such as watch: see fmon --help"
                                 : "unknown verb '" + std::string(verb) + "': see fmon --help");
    return agent::kError;
}

}  // namespace

std::span<const Verb *const> verbs() { return kVerbs; }

const Verb *find_verb(std::string_view name)
{
    for (const Verb *verb : kVerbs)
        if (name == verb->text().name)
            return verb;
    return nullptr;
}

std::vector<Option> main_options() { return {kHelp, kVersion}; }

std::string main_help()
{
    std::string text = kHead;
    for (const Verb *verb : kVerbs) {
        std::string line = "  " + std::string(verb->text().name);
        line.resize(kVerbColumn, ' ');
        text += line + verb->text().meaning + "\n";
    }
    return text + option_lines(main_options(), kOptionColumn) + kTail;
}

int run_command(int argc, char **argv)
{
    agent::end_in_a_sentence();
    const std::string_view first = argc > 1 ? argv[1] : "";
    if (is_option(first, kHelp) || (first == "help" && argc == 2))
        return output::print_out(main_help());
    if (is_option(first, kVersion))
        return output::print_out("fmon " FMON_VERSION "\n");
    if (const Verb *explained = first == "help" ? find_verb(argv[2]) : nullptr)
        return output::print_out(explained->help());
    const Verb *verb = find_verb(first);
    return verb ? verb->run(argc - 1, argv + 1) : refuse(first);
}

}  // namespace cli
