#include "monitor.h"

#include <unistd.h>

#include <cstdlib>

#include "descriptors.h"
#include "diagnose.h"
#include "message.h"
#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_host.h"
#include "probe_cause.h"
#include "signals.h"

namespace cli
{

namespace
{

constexpr int kLogFiles = 5;
constexpr int kThreadMs = 10000; /* for the monitor's thread to place its probes */

void set_values(const WatchOptions &options)
{
    for (const Setting &setting : kSettingTable)
        if (setting.usual)
            orx_host_ini_override("fmon", setting.name, setting.usual);
    for (const auto &[name, value] : options.settings)
        orx_host_ini_override("fmon", name.c_str(), value.c_str());
}

// Users other than root have a log of their own.
std::string private_log_folder()
{
    const char *state = secure_getenv("XDG_STATE_HOME"), *home = secure_getenv("HOME");
    if (state && state[0] == '/')
        return std::string(state) + "/fmon";
    return home && home[0] == '/' ? std::string(home) + "/.local/state/fmon" : std::string();
}

// The monitor itself sends its log to files once its thread runs; what it says before belongs there, too. Where no
// folder can be written to, the log goes nowhere: the terminal is for events.
void set_log(const WatchOptions &options)
{
    if (&error_output_level && (options.log_level > 0 || error_output_level < ORX_LOG_WARNING))
        error_output_level = options.log_level > 0 ? options.log_level : ORX_LOG_WARNING;
    if (options.log_to_stderr) {
        setenv("FMON_LOG", "stderr", 1);
        return;
    }
    char folder[512];
    if (orx_dirutils_path_transform("@/../var/log/agent/fmon", folder, sizeof folder) == 0 &&
        autolog_init(folder, kLogFiles) == 0)
        return;
    const std::string own = private_log_folder();
    if (own.empty() || autolog_init(own.c_str(), kLogFiles) != 0)
        detach_stderr();
}

// The monitor loads the library by itself wherever it finds it.
void hide_probe_library() { orx_host_path_override(kProbeLibrary, "/dev/null/hidden-by---probes-off"); }

bool has_probes(const LogWatch &log, const Module &module, std::string &error)
{
    const ProbeTrouble trouble = log.probe_trouble();
    const ProbeFacts facts = gather_probe_facts(module.is_container());
    if (settle_cause(trouble, facts) != ProbeCause::kNone)
        error = "--probes on needs the kernel-probe library: " + explain_cause(trouble, facts) +
                "; without --probes fmon does without it";
    return error.empty();
}

}  // namespace

bool start_monitor(const WatchOptions &options, LogWatch &log, Module &module, std::string &error)
{
    raise_descriptor_limit();
    const std::string folder = library_folder();
    if (!load_module(folder, module, error))
        return false;
    if (options.probes == Probes::kOff)
        hide_probe_library();
    set_values(options);
    set_log(options);
    log.start();
    const SignalsBlocked blocked;
    const int code = module.init(0, nullptr);
    const Findings findings = log.take();
    if (code == 0 && !findings.monitor_ended) {
        orx_host_await_timers(kThreadMs); /* without its thread the monitor says so by itself */
        return options.probes != Probes::kOn || has_probes(log, module, error);
    }
    error = explain_start_failure(findings, gather_facts());
    return false;
}

uint64_t max_dentries(const WatchOptions &options)
{
    uint64_t value = 2097152;
    for (const auto &[name, text] : options.settings)
        if (name == "max_dentries")
            value = strtoull(text.c_str(), nullptr, 10);
    return value;
}

}  // namespace cli
