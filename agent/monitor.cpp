#include "monitor.h"

#include <unistd.h>

#include <cstdlib>

#include "descriptors.h"
#include "diagnose.h"
#include "orx_base.h"
#include "orx_host.h"
#include "probe_cause.h"
#include "settings.h"
#include "signals.h"

namespace agent
{

namespace
{

constexpr int kThreadMs = 10000; /* for the monitor's thread to place its probes */

void set_values(const Request &options)
{
    for (const Setting &setting : kSettingTable)
        if (setting.preset)
            orx_host_ini_override("fmon", setting.name, setting.preset);
    for (const auto &[name, value] : options.settings)
        orx_host_ini_override("fmon", name.c_str(), value.c_str());
    orx_host_ini_override("fmon", "fs_events", options.source == Source::kMarks ? "0" : "1");
}

void set_log(const Request &options, OwnLog &own)
{
    if (&error_output_level && (options.log_level > 0 || error_output_level < ORX_LOG_WARNING))
        error_output_level = options.log_level > 0 ? options.log_level : ORX_LOG_WARNING;
    if (options.log_to_stderr)
        setenv("FMON_LOG", "stderr", 1);
    else
        own = open_own_log(options);
}

// The monitor loads the library by itself wherever it finds it.
void hide_probe_library() { orx_host_path_override(kProbeLibrary, "/dev/null/hidden-by---probes-off"); }

bool hides_probes(const Request &options)
{
    return options.probes == Probes::kOff || (options.system && options.source == Source::kFilesystem);
}

bool has_probes(const Module &module, std::string &error)
{
    const struct fmon_source probes = file_probes(module);
    const ProbeFacts facts = gather_probe_facts(module.is_container(), false);
    if (settle_cause(probes, facts) != FMON_WHY_NONE)
        error = "--probes on needs the kernel-probe library: " + explain_cause(probes, facts) +
                "; without --probes fmon does without it";
    return error.empty();
}

}  // namespace

bool start_monitor(const Request &options, Placement &placement, Module &module, OwnLog &own, std::string &error)
{
    raise_descriptor_limit();
    const std::string directory = library_directory();
    if (!load_module(directory, module, error))
        return false;
    if (hides_probes(options))
        hide_probe_library();
    set_values(options);
    set_log(options, own);
    const SignalsBlocked blocked;
    const int code = module.init(0, nullptr);
    placement.start(module);
    const Findings findings = placement.take();
    if (code == 0 && !findings.ended) {
        orx_host_await_timers(kThreadMs); /* without its thread the monitor says so by itself */
        return options.probes != Probes::kOn || has_probes(module, error);
    }
    error = explain_start_failure(findings.monitor, gather_facts());
    return false;
}

uint64_t max_dentries(const Request &options)
{
    uint64_t value = 2097152;
    for (const auto &[name, text] : options.settings)
        if (name == "max_dentries")
            value = strtoull(text.c_str(), nullptr, 10);
    return value;
}

}  // namespace agent
