#include "probe_cause.h"

#include <dlfcn.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>

#include "kp_thread_utils.h"
#include "message.h"
#include "mounts.h"
#include "orx_base.h"
#include "orx_fmon.h"

namespace agent
{

namespace
{

constexpr char kConfig[] = "@/../config/fmon.ini";

const char *const kEntries[] = {"_kp_ins_crt",      "_os_info_get",     "_kp_evt_reg", "kp_event_parse",
                                "_kp_event_enable", "_kp_event_filter", "_cache_clean"};

std::string root_hint(const ProbeFacts &facts)
{
    return facts.root ? "; --verbose shows the monitor's log" : ": only root may place probes, run as root";
}

std::string library_text(const ProbeFacts &facts)
{
    if (!facts.library_there)
        return facts.library_path + " is not there: install it";
    if (facts.load_error.empty())
        return facts.library_path + " cannot be loaded; --verbose shows the monitor's log";
    return "it cannot be loaded: " + facts.load_error;
}

std::string incomplete_text(const struct fmon_source &probes, const ProbeFacts &facts)
{
    const std::string name = facts.missing_entry.empty() ? probes.why : facts.missing_entry;
    return facts.library_path + " lacks " + name + ": it belongs to another version, install both anew";
}

std::string kernel_text(const struct fmon_source &probes, const ProbeFacts &facts)
{
    const std::string reason = probes.why[0] == '\0' ? "" : " (" + std::string(probes.why) + ")";
    return "it does not work on this kernel, " + facts.release + reason + root_hint(facts);
}

std::string machine_text(const struct fmon_source &probes, const ProbeFacts &facts)
{
    const std::string named = probes.why;
    return "machines of type " + (named.empty() ? facts.machine : named) +
           " are not supported, only x86_64, i386 and i686";
}

std::string release_text(const struct fmon_source &probes, const ProbeFacts &facts)
{
    const std::string named = probes.why;
    return "the kernel's release '" + (named.empty() ? facts.release : named) +
           "' is not understood: it has to be MAJOR.MINOR.PATCH-BUILD, such as 6.1.0-25-amd64";
}

std::string mounts_text(const ProbeFacts &facts)
{
    return "there are too many mounts of devices (" + with_commas(facts.mounts) +
           ") for the probes' filter, which takes 27 with ids of two digits, 24 of three and 22 of four: unmount some";
}

std::string probe_text(const struct fmon_source &probes, const ProbeFacts &facts)
{
    unsigned major = 0;
    std::from_chars(facts.release.data(), facts.release.data() + facts.release.size(), major);
    if (major > 0 && major < 3)
        return "this kernel, " + facts.release + ", is too old: it takes 3.0 or newer";
    return "a probe was refused (" + std::string(probes.why) + ")" + root_hint(facts);
}

// A path of the installation as the monitor's host resolves it.
std::string in_installation(const char *path)
{
    char out[1024];
    if (orx_dirutils_path_transform(path, out, sizeof out) != 0)
        return path;
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(out, error);
    return error ? out : real.string();
}

std::string loader_error(const std::string &library, void **handle)
{
    *handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (*handle)
        return {};
    const char *const text = dlerror();
    return text ? text : "no reason is given";
}

// Libraries of another make do not have this entry.
std::string library_reason(void *handle)
{
    const auto unavailable = reinterpret_cast<decltype(&kp_unavailable)>(dlsym(handle, "kp_unavailable"));
    const char *const reason = unavailable ? unavailable() : nullptr;
    return reason ? reason : "";
}

}  // namespace

struct fmon_source file_probes(const Module &module)
{
    struct fmon_status now;
    return module.read_status(now) ? now.file_probes : fmon_source{};
}

std::string probe_library() { return in_installation(kProbeLibrary); }

ProbeFacts gather_probe_facts(bool container, bool ask)
{
    ProbeFacts facts;
    facts.root = geteuid() == 0;
    facts.container = container;
    facts.library_path = probe_library();
    facts.config = in_installation(kConfig);
    facts.library_there = access(facts.library_path.c_str(), F_OK) == 0;
    if (facts.library_there) {
        void *handle;
        facts.load_error = loader_error(facts.library_path, &handle);
        for (const char *entry : kEntries)
            if (handle && facts.missing_entry.empty() && !dlsym(handle, entry))
                facts.missing_entry = entry;
        if (handle && ask && !container && facts.missing_entry.empty())
            facts.library_reason = library_reason(handle);
    }
    struct utsname name;
    if (uname(&name) == 0) {
        facts.release = name.release;
        facts.machine = name.machine;
    }
    for (const Mount &mount : read_mounts())
        facts.mounts += mount.whole_device;
    return facts;
}

uint32_t settle_cause(const struct fmon_source &probes, const ProbeFacts &facts)
{
    if (facts.container)
        return FMON_WHY_CONTAINER;
    return facts.missing_entry.empty() ? probes.reason : uint32_t{FMON_WHY_SYMBOL};
}

std::string explain_cause(const struct fmon_source &probes, const ProbeFacts &facts)
{
    switch (settle_cause(probes, facts)) {
        case FMON_WHY_CONTAINER:
            return "the monitor does not use it inside a container: run fmon on the host itself";
        case FMON_WHY_LIBRARY:
            return library_text(facts);
        case FMON_WHY_SYMBOL:
            return incomplete_text(probes, facts);
        case FMON_WHY_KERNEL:
            return kernel_text(probes, facts);
        case FMON_WHY_MACHINE:
            return machine_text(probes, facts);
        case FMON_WHY_RELEASE:
            return release_text(probes, facts);
        case FMON_WHY_CONFIG:
            return facts.config + " cannot be read: put it back";
        case FMON_WHY_MOUNTS:
            return mounts_text(facts);
        case FMON_WHY_INSTANCE:
            return "it could not set up its probes" + root_hint(facts);
        case FMON_WHY_PROBE:
            return probe_text(probes, facts);
        default:
            break;
    }
    return "it did not start; --verbose shows the monitor's log";
}

std::string explain_no_system(const struct fmon_source &probes, const ProbeFacts &facts, uint32_t kinds)
{
    const std::string head = "--system needs the kernel-probe library: " + explain_cause(probes, facts);
    if (settle_cause(probes, facts) == FMON_WHY_CONTAINER)
        return head + "; without it, fmon watch -r shows what happens below a path";
    const std::string root = facts.root ? "" : " (root)";
    if (kinds == FMON_CLOSE_WRITE)
        return head + "; without it, fmon watch -r --mount -e close_write / shows the same" + root;
    return head + "; without it, fmon watch -r --mount / shows what is modified and closed on all mounts" + root;
}

}  // namespace agent
