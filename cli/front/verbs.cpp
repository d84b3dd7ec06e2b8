#include "verbs.h"

#include <cstdio>

#include "agent/message.h"

namespace cli
{

const Verb kVerbTable[kVerbs] = {
    {"watch", "show what happens to files, and who did it", run_watch},
    {"dump", "show the state of a running watch", run_dump},
    {"doctor", "show what works on this machine, and how to mend the rest", run_doctor},
    {"offsets", "show the section of fmon.ini for a kernel", run_offsets},
};

namespace
{

bool print(const std::string &text) { return fputs(text.c_str(), stdout) >= 0 && fflush(stdout) == 0; }

int show(const std::string &text) { return print(text) ? agent::kDone : agent::kError; }

}  // namespace

const Verb *find_verb(std::string_view name)
{
    for (const Verb &verb : kVerbTable)
        if (name == verb.name)
            return &verb;
    return nullptr;
}

std::string main_help()
{
    std::string text = "Usage: fmon VERB [OPTION]... [ARGUMENT]...\n\nMonitors files on Linux.\n\nVerbs:\n";
    for (const Verb &verb : kVerbTable) {
        std::string line = "  " + std::string(verb.name);
        line.resize(12, ' ');
        text += line + verb.meaning + "\n";
    }
    return text +
           "\nOptions:\n"
           "  -h, --help     this text; fmon VERB --help explains a verb\n"
           "  -V, --version  the version\n"
           "\nExamples:\n"
           "  fmon watch -r /etc                   changes below /etc, until Ctrl-C\n"
           "  fmon watch --format json -r /data    the same as one JSON object a line\n"
           "  fmon dump                            what the running watch watches, and what waits in it\n"
           "  fmon doctor                          what works here, and what does not\n";
}

int run_command(int argc, char **argv)
{
    agent::end_in_a_sentence();
    const std::string_view first = argc > 1 ? argv[1] : "";
    if (first == "--help" || first == "-h")
        return show(main_help());
    if (first == "--version" || first == "-V")
        return show("fmon " FMON_VERSION "\n");
    if (first == "help" && argc == 2)
        return show(main_help());
    if (first == "help") {
        char option[] = "--help";
        char *arguments[] = {argv[2], option, nullptr};
        const Verb *verb = find_verb(argv[2]);
        if (verb)
            return verb->run(2, arguments);
    }
    const Verb *verb = find_verb(first);
    if (verb)
        return verb->run(argc - 1, argv + 1);
    agent::complain(first.empty() ? "a verb is missing, such as watch: see fmon --help"
                                  : "unknown verb '" + std::string(first) + "': see fmon --help");
    return agent::kError;
}

}  // namespace cli
