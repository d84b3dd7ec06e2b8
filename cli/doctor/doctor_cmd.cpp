/* `fmon doctor`: gathers facts, judges them and prints what it found. */

#include <unistd.h>

#include <utility>

#include "agent/message.h"
#include "agent/time_format.h"
#include "doctor.h"
#include "doctor_options.h"
#include "orx_base.h"
#include "output/print.h"

namespace cli
{

namespace
{

using O = DoctorOptions;

constexpr char kHead[] =
    R"(Usage: fmon doctor [OPTION]...

Tells what of fmon works on this machine and what does not, with a remedy: the installation, the kernel, rights,
inotify and fanotify with their limits and how much of them is used, which source watches what is mounted,
processes, kernel probes, containers, and mounted file systems that do not report everything. One line each: "ok",
"warn" (it works, with this limit) or "no". Changes nothing on the machine. Other users' watches are counted as root
only.
)";

constexpr char kTail[] = R"(
Examples:
  fmon doctor                              the whole report
  sudo fmon doctor | grep -v '^ok'         only what could be better
  fmon doctor --format json                for programs

Status: 0 nothing is missing that root could have on this machine; 1 something is; 2 wrong usage.
)";

constexpr OptionRow<O> kRows[] = {
    {{'f', "format", "FORM", "text (default) or json: one object a line", one_of("text json"), "Options"},
     set_choice<O, &O::json>},
    {{'h', "help", nullptr, "this text"}, set_flag<O, &O::help>},
};

bool take_nothing(O &, VerbOf<O>::Arguments arguments, std::string &error)
{
    if (!arguments.empty())
        error = std::string("doctor takes no argument, such as '") + arguments[0] + "'";
    return error.empty();
}

/* The sections in the report's order; kHead names them. */
constexpr Checks (*kSections[])(const Machine &) = {
    [](const Machine &machine) { return judge_setup(machine.setup); },
    [](const Machine &machine) { return judge_kernel(machine.kernel); },
    [](const Machine &) { return judge_rights(gather_rights()); },
    [](const Machine &machine) { return judge_events(gather_events(machine.users)); },
    [](const Machine &machine) { return judge_sources(gather_sources(machine)); },
    [](const Machine &) { return judge_processes(gather_processes()); },
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

}  // namespace

int run_doctor(const DoctorOptions &options)
{
    error_output_level = 0;  // what is loaded must not write to the installation's log
    const Checks checks = examine();
    const bool colours = isatty(STDOUT_FILENO) && output::wants_colours();
    const int printed =
        output::print_out(options.json ? doctor_json(checks, agent::wall_clock_ns()) : doctor_text(checks, colours));
    return printed == agent::kDone ? doctor_status(checks) : printed;
}

constinit const VerbOf<O> kDoctor(
    {"doctor", "show what works on this machine, and how to mend the rest", kHead, kTail, nullptr, {}, Wording::kShort},
    kRows, take_nothing, run_doctor);

}  // namespace cli
