/* The doctor's section on kernel probes; doctor.h. */

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <set>

#include "agent/descriptors.h"
#include "agent/diagnose.h"
#include "agent/message.h"
#include "doctor.h"

namespace cli
{

namespace
{

constexpr char kProbes[] = "probes", kFiles[] = "files";

/* Of the monitor's filter, which names each mount. */
constexpr size_t kFilterRoom = 255;

Check judge_library(const DoctorProbes &facts)
{
    const agent::ProbeFacts &probes = facts.probes;
    Check check = {kProbes, "library", State::kNo, "", "", true};
    if (probes.container) {
        check.state = State::kWarn;
        check.text = "is not used inside a container";
        check.remedy = "run fmon on the host itself for system-wide events, and for the process behind all events";
    } else if (!probes.library_there) {
        check.text = probes.library_path + " is not there";
        check.remedy = "install it; without it creations, moves and deletions name no process";
    } else if (!probes.load_error.empty()) {
        check.text = "cannot be loaded: " + probes.load_error;
        check.remedy = "install it anew";
    } else if (!probes.missing_entry.empty()) {
        check.text = probes.library_path + " lacks " + probes.missing_entry;
        check.remedy = "it belongs to another version, install both anew";
    } else {
        check.state = State::kOk;
        check.text = probes.library_path + " is there and complete";
    }
    return check;
}

Check judge_trial(const DoctorProbes &facts)
{
    const agent::ProbeFacts &probes = facts.probes;
    Check check = {kProbes, "kernel", State::kOk, "work on this kernel", "", true};
    if (facts.may_crash) {
        check.state = State::kWarn;
        check.text = "were not tried, see tracefs";
    } else if (!probes.library_reason.empty()) {
        check.state = State::kNo;
        check.text = "do not work: " + probes.library_reason;
        // The library names the kernel's option where it was built without probes: no right helps there.
        check.reachable = facts.understood && probes.library_reason.find("CONFIG_") == std::string::npos;
        check.remedy = probes.root ? "" : "run as root";
    } else if (!facts.understood) {
        check.text = "work on this kernel, but the monitor does not use them, see kernel release";
    }
    return check;
}

Check judge_tracefs(const DoctorProbes &facts)
{
    if (!facts.may_crash)
        return {kProbes,
                "tracefs",
                State::kOk,
                deletes_probes_badly(facts.probes.release) ? "is not marked by any program that could be looked at"
                                                           : "may be marked on this kernel",
                "",
                true};
    return {kProbes,
            "tracefs",
            State::kWarn,
            "a program's fanotify marks tracefs, and kernels before 6.7 may then crash when a probe is deleted",
            "end that program, or watch with --probes off",
            true};
}

Check judge_filter(const DoctorProbes &facts)
{
    const size_t length = filter_length(facts.mounts);
    Check check = {kProbes, "mounts", State::kOk, "", "", true};
    check.text = agent::counted(facts.mounts.size(), "mount") + " of devices: " + std::to_string(length) +
                 " of the filter's " + std::to_string(kFilterRoom) + " bytes";
    if (length <= kFilterRoom)
        return check;
    check.state = State::kNo;
    check.text += ", too long: probes do not start";
    check.remedy = "unmount some";
    return check;
}

Check judge_descriptors(const DoctorProbes &facts)
{
    const uint64_t needed = agent::kDescriptorsBeside + facts.processors * agent::kDescriptorsAProcessor;
    Check check = {kProbes, "descriptors", State::kOk, "", "", true};
    check.text = "about " + agent::with_commas(needed) + " for " + agent::counted(facts.processors, "processor");
    if (facts.max_descriptors >= needed)
        return check;
    check.state = State::kNo;
    check.text += ", and a process may have " + agent::with_commas(facts.max_descriptors);
    check.remedy = "raise the limit with ulimit -n " + std::to_string(agent::roomy_limit(needed)) +
                   ", or with LimitNOFILE= where a service starts fmon";
    return check;
}

/* File systems whose files change without this kernel's doing, or below it. */
struct TypeRow {
    std::string_view start; /* of the type's name */
    bool whole;             /* and nothing behind it */
    State state;
    const char *text, *remedy;
};
constexpr char kElsewhere[] = "what other machines change is not reported", kThere[] = "run fmon where the files are";
constexpr TypeRow kTypes[] = {
    {"nfs", false, State::kWarn, kElsewhere, kThere},
    {"cifs", true, State::kWarn, kElsewhere, kThere},
    {"smb", false, State::kWarn, kElsewhere, kThere},
    {"9p", true, State::kWarn, kElsewhere, kThere},
    {"virtiofs", true, State::kWarn, kElsewhere, kThere},
    {"vboxsf", true, State::kWarn, kElsewhere, kThere},
    {"ceph", true, State::kWarn, kElsewhere, kThere},
    {"afs", true, State::kWarn, kElsewhere, kThere},
    {"lustre", true, State::kWarn, kElsewhere, kThere},
    {"gfs2", true, State::kWarn, kElsewhere, kThere},
    {"ocfs2", true, State::kWarn, kElsewhere, kThere},
    {"fuse.", false, State::kWarn, "what changes behind the file system's program is not reported",
     "watch where the files come from"},
    {"fuse", true, State::kWarn, "what changes behind the file system's program is not reported",
     "watch where the files come from"},
    {"overlay", true, State::kWarn, "what is changed in its layers directly is not reported",
     "change and watch files through the overlay only"},
    {"proc", true, State::kOk, "what the kernel changes there is not reported", ""},
    {"sysfs", true, State::kOk, "what the kernel changes there is not reported", ""},
};

const TypeRow *find_type(const std::string &type)
{
    for (const TypeRow &row : kTypes)
        if (row.whole ? type == row.start : type.compare(0, row.start.size(), row.start) == 0)
            return &row;
    return nullptr;
}

// The first few of the places.
std::string places(const std::vector<std::string> &points)
{
    constexpr size_t kShown = 3;
    std::string text;
    for (size_t i = 0; i < std::min(points.size(), kShown); i++)
        text += (i ? ", " : "") + points[i];
    return points.size() > kShown ? text + " and " + agent::with_commas(points.size() - kShown) + " more" : text;
}

}  // namespace

bool deletes_probes_badly(std::string_view release)
{
    unsigned major = 0, minor = 0;
    const char *const end = release.data() + release.size();
    const auto [dot, code] = std::from_chars(release.data(), end, major);
    if (code != std::errc() || dot == end || std::from_chars(dot + 1, end, minor).ec != std::errc())
        return true;  // unknown: the careful answer
    return major < 6 || (major == 6 && minor < 7);
}

bool is_tracefs_marked(const std::map<uid_t, agent::Marks> &users, const std::vector<agent::Mount> &mounts)
{
    for (const agent::Mount &mount : mounts) {
        if (mount.type != "tracefs")
            continue;
        for (const auto &[user, marks] : users)
            if (marks.fanotify_devices.count(mount.device) ||
                std::count(marks.fanotify_mounts.begin(), marks.fanotify_mounts.end(), mount.id))
                return true;
    }
    return false;
}

// "(mnt==21||mnt==24||mnt==0)"; nothing without mounts.
size_t filter_length(const std::vector<uint64_t> &mounts)
{
    constexpr std::string_view kMount = "mnt==", kJoint = "||";
    size_t length = 0;
    for (const uint64_t id : mounts)
        length += kMount.size() + std::to_string(id).size() + kJoint.size();
    return mounts.empty() ? 0 : length + std::string_view("(mnt==0)").size();
}

DoctorProbes gather_probes(const Machine &machine)
{
    DoctorProbes facts;
    facts.understood = !machine.kernel.section.empty();
    facts.may_crash = deletes_probes_badly(machine.kernel.release) && is_tracefs_marked(machine.users, machine.mounts);
    facts.probes = agent::gather_probe_facts(machine.setup.container, !facts.may_crash);
    facts.processors = static_cast<uint64_t>(std::max(sysconf(_SC_NPROCESSORS_CONF), 1L));
    facts.max_descriptors = agent::most_descriptors();
    for (const agent::Mount &mount : machine.mounts)
        if (mount.whole_device)
            facts.mounts.push_back(mount.id);
    return facts;
}

Checks judge_probes(const DoctorProbes &facts)
{
    Checks checks = {judge_library(facts)};
    if (checks.back().state != State::kOk)
        return checks;
    checks.push_back(judge_tracefs(facts));
    checks.push_back(judge_trial(facts));
    checks.push_back(judge_filter(facts));
    checks.push_back(judge_descriptors(facts));
    return checks;
}

Checks judge_mounts(const std::vector<agent::Mount> &mounts)
{
    std::map<std::string, std::vector<std::string>> points;
    for (const agent::Mount &mount : mounts)
        if (find_type(mount.type))
            points[mount.type].push_back(mount.point);
    Checks checks;
    for (const auto &[type, where] : points) {
        const TypeRow *row = find_type(type);
        checks.push_back({kFiles, type, row->state, places(where) + ": " + row->text, row->remedy, true});
    }
    if (mounts.empty())
        checks.push_back({kFiles, "mounts", State::kWarn, "/proc/self/mountinfo cannot be read", "mount /proc", true});
    return checks;
}

}  // namespace cli
