/* The doctor's sections on the installation and on the kernel; doctor.h. */

#include <dlfcn.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <charconv>
#include <memory>

#include "agent/message.h"
#include "agent/module.h"
#include "agent/settings.h"
#include "cli/offsets/kernel_image.h"
#include "cli/watch/options.h"
#include "doctor.h"
#include "orx_base.h"
#include "orx_host.h"

namespace cli
{

namespace
{

constexpr char kInstallation[] = "installation", kKernel[] = "kernel";

using Ini = std::unique_ptr<void, decltype(&orx_ini_file_free)>;

Ini load_ini(const std::string &path) { return {orx_ini_file_load(path.c_str()), orx_ini_file_free}; }

std::string ini_value(const Ini &ini, const char *section, const char *key)
{
    const char *value = ini ? orx_ini_file_get(ini.get(), section, key) : nullptr;
    return value ? value : "";
}

// The answer that the monitor asks for when it starts.
void ask_container(SetupFacts &facts)
{
    void *library = dlopen((agent::library_directory() + "/libhulbase.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    const auto get_type = library ? reinterpret_cast<int (*)(char *, int)>(dlsym(library, "GetAgentType")) : nullptr;
    char type[20] = "";
    facts.container = get_type && get_type(type, sizeof type) != -1;
    facts.container_type = type;
}

bool is_within(const std::string &value, const agent::Setting &setting)
{
    uint64_t number = 0;
    const auto [end, code] = std::from_chars(value.data(), value.data() + value.size(), number);
    return code == std::errc() && end == value.data() + value.size() && number >= setting.low && number <= setting.high;
}

Check judge_config(const SetupFacts &facts)
{
    Check check = {kInstallation, "fmon.ini", State::kOk, facts.config, "", true};
    if (!facts.config_read) {
        check.state = State::kNo;
        check.text += " cannot be read";
        check.remedy = "put it back from the package; without it there are no kernel probes";
        return check;
    }
    for (const agent::Setting &setting : agent::kSettingTable)
        for (const auto &[name, value] : facts.settings)
            if (name == setting.name && !is_within(value, setting)) {
                check.state = State::kNo;
                check.text += ": " + name + " is '" + value + "'";
                check.remedy =
                    "it takes a number from " + std::to_string(setting.low) + " to " + std::to_string(setting.high);
                return check;
            }
    check.text += " with " + agent::counted(facts.settings.size(), "setting");
    return check;
}

// Half a section counts for nothing.
std::optional<Offsets> configured(const KernelFacts &facts)
{
    Offsets offsets;
    const auto take = [](const std::string &text, int &out) {
        const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), out);
        return code == std::errc() && end == text.data() + text.size();
    };
    const bool both = take(facts.s_mounts, offsets.s_mounts) && take(facts.mnt_id, offsets.mnt_id);
    return both ? std::optional(offsets) : std::nullopt;
}

std::string numbers(const Offsets &offsets)
{
    return std::to_string(offsets.s_mounts) + " and " + std::to_string(offsets.mnt_id);
}

// A kernel-probe library of another make needs them; the one that comes with fmon finds its way without.
Check judge_offsets(const KernelFacts &facts)
{
    Check check = {kKernel, "offsets", State::kOk, "", "", true};
    const std::optional<Offsets> there = configured(facts);
    const std::string section = "fmon.ini's section [" + facts.section + "]";
    if (!there)
        check.text = facts.s_mounts.empty() && facts.mnt_id.empty() ? "fmon.ini has no section [" + facts.section + "]"
                                                                    : section + " is not complete";
    else
        check.text = section + " says " + numbers(*there);
    if (!facts.described) {
        check.text += ", and the kernel tells nothing to compare with (" + facts.description_error + ")";
        check.state = there ? State::kOk : State::kWarn;
    } else if (!there) {
        check.state = State::kWarn;
        check.remedy = "add what fmon offsets prints, if you use a kernel-probe library other than fmon's own";
    } else if (*there != *facts.described) {
        check.state = State::kWarn;
        check.text += ", and the kernel itself " + numbers(*facts.described);
        check.remedy = "put what fmon offsets prints in its place";
    } else {
        check.text += ", as the kernel itself does";
    }
    return check;
}

}  // namespace

SetupFacts gather_setup()
{
    SetupFacts facts;
    agent::Module module;
    load_module(agent::library_directory(), module, facts.monitor_error);
    ask_container(facts);
    facts.config = agent::gather_probe_facts(facts.container, false).config;
    const Ini ini = load_ini(facts.config);
    facts.config_read = ini != nullptr;
    for (const agent::Setting &setting : agent::kSettingTable)
        if (ini && orx_ini_file_get(ini.get(), "fmon", setting.name))
            facts.settings.emplace_back(setting.name, ini_value(ini, "fmon", setting.name));
    return facts;
}

Checks judge_setup(const SetupFacts &facts)
{
    Checks checks;
    const bool loads = facts.monitor_error.empty();
    checks.push_back({kInstallation, "monitor", loads ? State::kOk : State::kNo,
                      loads ? "libfmon.so is there, and can be loaded" : facts.monitor_error, "", true});
    checks.push_back(judge_config(facts));
    if (facts.container)
        checks.push_back({kInstallation, "place", State::kWarn,
                          "inside a container" +
                              (facts.container_type.empty() ? "" : " (" + facts.container_type + ")") +
                              ": only the host's files below /rootfs are watched, without kernel probes",
                          "run fmon on the host itself for the rest", true});
    else
        checks.push_back({kInstallation, "place", State::kOk, "on a host, not in a container", "", true});
    return checks;
}

KernelFacts gather_kernel(const std::string &config)
{
    KernelFacts facts;
    struct utsname name = {};
    orx_host_uname(&name);
    facts.release = name.release;
    facts.machine = name.machine;
    uname(&name);
    facts.handed = name.release;
    facts.section = section_name(facts.handed, facts.machine);
    const Ini ini = load_ini(config);
    facts.s_mounts = ini_value(ini, facts.section.c_str(), "s_mounts_offset");
    facts.mnt_id = ini_value(ini, facts.section.c_str(), "mnt_id_offset");
    KernelImage image;
    Offsets offsets;
    std::string machine;
    if (access(kRunningBtf, F_OK) != 0)
        facts.description_error = "it was built without BTF";
    else if (load_kernel_image(kRunningBtf, image, facts.description_error) &&
             find_offsets(std::move(image.btf), offsets, machine, facts.description_error))
        facts.described = offsets;
    return facts;
}

Checks judge_kernel(const KernelFacts &facts)
{
    Checks checks;
    Check release = {kKernel, "release", State::kOk, facts.release + " on " + facts.machine, "", true};
    if (facts.handed != facts.release)
        release.text += ", which the monitor is handed as " + facts.handed;
    if (!is_known_machine(facts.machine)) {
        release.state = State::kNo;
        release.text += ": the monitor has kernel probes for x86_64, i386 and i686 only";
        release.reachable = false;
    } else if (facts.section.empty()) {
        release.state = State::kNo;
        release.text +=
            ": the monitor uses kernel probes only where the release is MAJOR.MINOR.PATCH-BUILD, such as "
            "6.1.0-25-amd64; what needs none works";
        release.reachable = false;
    }
    checks.push_back(release);
    if (!facts.section.empty())
        checks.push_back(judge_offsets(facts));
    return checks;
}

}  // namespace cli
