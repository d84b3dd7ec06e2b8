#include <unistd.h>

#include "agent/message.h"
#include "agent/time_format.h"
#include "cli/verbs.h"
#include "doctor.h"
#include "orx_base.h"
#include "output/print.h"

namespace cli
{

namespace
{

void append(Checks &all, Checks more)
{
    all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

// A section each, in the report's order.
Checks examine()
{
    const SetupFacts setup = gather_setup();
    const KernelFacts kernel = gather_kernel(setup.config);
    const std::map<uid_t, agent::Marks> users = agent::marks_by_user();
    const std::vector<agent::Mount> mounts = agent::read_mounts();
    Checks checks = judge_setup(setup);
    append(checks, judge_kernel(kernel));
    append(checks, judge_rights(gather_rights()));
    append(checks, judge_events(gather_events(users)));
    append(checks, judge_probes(gather_probes(kernel, setup.container, users, mounts)));
    append(checks, judge_containers(gather_containers(setup.container)));
    append(checks, judge_mounts(mounts));
    append(checks, judge_watches(gather_watches()));
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
