/* `fmon doctor`: gathers facts, judges them and prints what it found. */

#include <getopt.h>
#include <unistd.h>

#include <utility>

#include "agent/message.h"
#include "agent/time_format.h"
#include "cli/front/verbs.h"
#include "doctor.h"
#include "orx_base.h"
#include "output/print.h"

namespace cli
{

namespace
{

constexpr char kHelp[] =
    R"(Usage: fmon doctor [OPTION]...

Tells what of fmon works on this machine and what does not, with a remedy: the installation, the kernel, rights,
inotify and fanotify with their limits and how much of them is used, kernel probes, containers, and mounted file systems
that do not report everything. One line each: "ok", "warn" (it works, with this limit) or "no". Changes nothing on the machine.
Other users' watches are counted as root only.

Options:
  -f, --format FORM       text (usual) or json: one object a line
  -h, --help              this text

Examples:
  fmon doctor                              the whole report
  sudo fmon doctor | grep -v '^ok'         only what could be better
  fmon doctor --format json                for programs

Status: 0 nothing is missing that root could have on this machine; 1 something is; 2 wrong usage.
)";

const struct option kLongOptions[] = {
    {"format", required_argument, nullptr, 'f'}, {"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};

bool take_option(int code, char **argv, DoctorOptions &options, std::string &error)
{
    if (code == 'h') {
        options.help = true;
    } else if (code == ':') {
        error = "--format needs a value";
    } else if (code == 'f') {
        const std::string_view value = optarg;
        options.json = value == "json";
        if (!options.json && value != "text")
            error = "--format takes text or json, not '" + std::string(value) + "'";
    } else {
        error = std::string("unknown option '") +
                (optopt ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1])) +
                "': see fmon doctor --help";
    }
    return error.empty();
}

/* The sections in the report's order; kHelp names them. */
constexpr Checks (*kSections[])(const Machine &) = {
    [](const Machine &machine) { return judge_setup(machine.setup); },
    [](const Machine &machine) { return judge_kernel(machine.kernel); },
    [](const Machine &) { return judge_rights(gather_rights()); },
    [](const Machine &machine) { return judge_events(gather_events(machine.users)); },
    [](const Machine &machine) { return judge_probes(gather_probes(machine)); },
    [](const Machine &machine) { return judge_containers(gather_containers(machine.setup.container)); },
    [](const Machine &machine) { return judge_mounts(machine.mounts); },
    [](const Machine &) { return judge_watches(gather_watches()); },
};

Checks examine()
{
    Machine machine;
    machine.setup = gather_setup();
    machine.kernel = gather_kernel(machine.setup.config);
    machine.users = agent::marks_by_user();
    machine.mounts = agent::read_mounts();
    Checks checks;
    for (const auto section : kSections)
        for (Check &check : section(machine))
            checks.push_back(std::move(check));
    return checks;
}

int doctor(const DoctorOptions &options)
{
    error_output_level = 0;  // what is loaded must not write to the installation's log
    const Checks checks = examine();
    const bool colours = isatty(STDOUT_FILENO) && output::wants_colours();
    const int printed =
        output::print_out(options.json ? doctor_json(checks, agent::wall_clock_ns()) : doctor_text(checks, colours));
    return printed == agent::kDone ? doctor_status(checks) : printed;
}

}  // namespace

bool parse_doctor(int argc, char **argv, DoctorOptions &options, std::string &error)
{
    opterr = 0;
    optind = 0;  // starts a new scan
    int code;
    while ((code = getopt_long(argc, argv, ":f:h", kLongOptions, nullptr)) != -1)
        if (!take_option(code, argv, options, error))
            return false;
    if (optind < argc && !options.help)
        error = std::string("doctor takes no argument, such as '") + argv[optind] + "'";
    return error.empty();
}

std::string doctor_help() { return kHelp; }

int run_doctor(int argc, char **argv)
{
    DoctorOptions options;
    std::string error;
    if (!parse_doctor(argc, argv, options, error)) {
        agent::complain(error);
        return agent::kError;
    }
    return options.help ? output::print_out(doctor_help()) : doctor(options);
}

}  // namespace cli
