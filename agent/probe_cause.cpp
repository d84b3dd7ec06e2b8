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

/* How the lines begin that give a reason; the last ones only say that there was one. */
struct CauseRow {
    std::string_view start;
    ProbeCause cause;
};
constexpr CauseRow kCauseTable[] = {
    {"current env is container!", ProbeCause::kContainer},
    {"load kprobe thread module failed", ProbeCause::kLibrary},
    {"load kp_thread symbol: ", ProbeCause::kIncomplete},
    {"maybe not support kprobe!", ProbeCause::kKernel},
    {"get os_info failed!", ProbeCause::kKernel},
    {"not support [", ProbeCause::kMachine},
    {"kernel version get failed, uname.release:[", ProbeCause::kRelease},
    {"clt_net conf file load failed!", ProbeCause::kConfig},
    {"load offset config error", ProbeCause::kConfig},
    {"can't get common filter", ProbeCause::kMounts},
    {"maybe noy support global event", ProbeCause::kMounts},
    {"create kprobe instance failed!", ProbeCause::kInstance},
    {"register create file cmd failed!", ProbeCause::kProbe},
    {"register delete file cmd failed!", ProbeCause::kProbe},
    {"register close_write file cmd failed!", ProbeCause::kProbe},
    {"register rename from file cmd failed!", ProbeCause::kProbe},
    {"register rename to file cmd failed!", ProbeCause::kProbe},
    {"get hw plat error", ProbeCause::kOther},
    {"main get_os_info error", ProbeCause::kOther},
    {"init kpnotify failed", ProbeCause::kOther},
};

// The part between the first "[" and the last "]".
std::string in_brackets(const std::string &line)
{
    const size_t start = line.find('['), end = line.rfind(']');
    return start == std::string::npos || end == std::string::npos || end < start
               ? std::string()
               : line.substr(start + 1, end - start - 1);
}

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

std::string incomplete_text(const ProbeTrouble &trouble, const ProbeFacts &facts)
{
    constexpr std::string_view kStart = "load kp_thread symbol: ";
    std::string name = facts.missing_entry;
    if (name.empty() && trouble.line.size() > kStart.size())
        name = trouble.line.substr(kStart.size(), trouble.line.find(' ', kStart.size()) - kStart.size());
    return facts.library_path + " lacks " + name + ": it belongs to another version, install both anew";
}

std::string kernel_text(const ProbeFacts &facts)
{
    const std::string reason = facts.library_reason.empty() ? "" : " (" + facts.library_reason + ")";
    return "it does not work on this kernel, " + facts.release + reason + root_hint(facts);
}

std::string machine_text(const ProbeTrouble &trouble, const ProbeFacts &facts)
{
    const std::string named = in_brackets(trouble.line);
    return "machines of type " + (named.empty() ? facts.machine : named) +
           " are not supported, only x86_64, i386 and i686";
}

std::string release_text(const ProbeTrouble &trouble, const ProbeFacts &facts)
{
    const std::string named = in_brackets(trouble.line);
    return "the kernel's release '" + (named.empty() ? facts.release : named) +
           "' is not understood: it has to be MAJOR.MINOR.PATCH-BUILD, such as 6.1.0-25-amd64";
}

std::string mounts_text(const ProbeFacts &facts)
{
    return "there are too many mounts of devices (" + with_commas(facts.mounts) +
           ") for the probes' filter, which takes 27 with ids of two digits, 24 of three and 22 of four: unmount some";
}

std::string probe_text(const ProbeTrouble &trouble, const ProbeFacts &facts)
{
    unsigned major = 0;
    std::from_chars(facts.release.data(), facts.release.data() + facts.release.size(), major);
    if (major > 0 && major < 3)
        return "this kernel, " + facts.release + ", is too old: it takes 3.0 or newer";
    return "a probe was refused (" + trouble.line + ")" + root_hint(facts);
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

// The inotify source fails on its own, and system-wide events work without it.
ProbeCause read_probe_line(std::string_view text, std::string_view file)
{
    if (file == "linux/clt_inotify.c")
        return ProbeCause::kNone;
    for (const CauseRow &row : kCauseTable)
        if (text.substr(0, row.start.size()) == row.start)
            return row.cause;
    return ProbeCause::kNone;
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

ProbeCause settle_cause(const ProbeTrouble &trouble, const ProbeFacts &facts)
{
    if (facts.container)
        return ProbeCause::kContainer;
    return facts.missing_entry.empty() ? trouble.cause : ProbeCause::kIncomplete;
}

std::string explain_cause(const ProbeTrouble &trouble, const ProbeFacts &facts)
{
    switch (settle_cause(trouble, facts)) {
        case ProbeCause::kContainer:
            return "the monitor does not use it inside a container: run fmon on the host itself";
        case ProbeCause::kLibrary:
            return library_text(facts);
        case ProbeCause::kIncomplete:
            return incomplete_text(trouble, facts);
        case ProbeCause::kKernel:
            return kernel_text(facts);
        case ProbeCause::kMachine:
            return machine_text(trouble, facts);
        case ProbeCause::kRelease:
            return release_text(trouble, facts);
        case ProbeCause::kConfig:
            return facts.config + " cannot be read: put it back";
        case ProbeCause::kMounts:
            return mounts_text(facts);
        case ProbeCause::kInstance:
            return "it could not set up its probes" + root_hint(facts);
        case ProbeCause::kProbe:
            return probe_text(trouble, facts);
        case ProbeCause::kNone:
        case ProbeCause::kOther:
            break;
    }
    return "it did not start; --verbose shows the monitor's log";
}

std::string explain_no_system(const ProbeTrouble &trouble, const ProbeFacts &facts, uint32_t kinds)
{
    const std::string head = "--system needs the kernel-probe library: " + explain_cause(trouble, facts);
    if (settle_cause(trouble, facts) == ProbeCause::kContainer)
        return head + "; without it, fmon watch -r shows what happens below a path";
    const std::string root = facts.root ? "" : " (root)";
    if (kinds == FMON_CLOSE_WRITE)
        return head + "; without it, fmon watch -r --mount -e close_write / shows the same" + root;
    return head + "; without it, fmon watch -r --mount / shows what is modified and closed on all mounts" + root;
}

}  // namespace agent
