/* The doctor's sections on capabilities, and on the sources of events with their limits; doctor.h. */

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>

#include "agent/diagnose.h"
#include "agent/message.h"
#include "cli/offsets/kernel_image.h"
#include "doctor.h"

namespace cli
{

namespace
{

constexpr char kRights[] = "rights", kInotify[] = "inotify", kFanotify[] = "fanotify";

constexpr unsigned kAdmin = 21;

struct CapabilityRow {
    unsigned bit;
    const char *name, *purpose;
    State without;
    unsigned with; /* of use only beside that one */
};
constexpr CapabilityRow kCapabilities[] = {
    {kAdmin, "CAP_SYS_ADMIN", "fanotify (who did it, whole mounts) and kernel probes", State::kNo, kAdmin},
    {2, "CAP_DAC_READ_SEARCH", "directories that belong to others", State::kNo, 2},
    {kCapSysPtrace, "CAP_SYS_PTRACE", "programs of others' processes", State::kWarn, kAdmin},
};

/* The user who has used most of a limit. */
struct Usage {
    uid_t user = 0;
    uint64_t used = 0;
};

Usage heaviest(const std::map<uid_t, agent::Marks> &users, uint64_t agent::Marks::*count)
{
    Usage most = {geteuid(), 0};
    for (const auto &[user, marks] : users)
        if (marks.*count > most.used)
            most = {user, marks.*count};
    return most;
}

Check judge_limit(const char *section, const char *name, const char *key, uint64_t limit, const Usage &usage)
{
    if (limit == 0)
        return {section, name, State::kWarn, std::string(key) + " cannot be read", "mount /proc", true};
    Check check = {section, name, State::kOk, "", "", true};
    check.text = agent::with_commas(usage.used) + " of " + agent::with_commas(limit) + " used by user " +
                 std::to_string(usage.user);
    if (usage.used < limit - limit / 5)
        return check;
    check.state = usage.used < limit ? State::kWarn : State::kNo;
    check.remedy = std::string("raise it with sysctl ") + key + "=" + std::to_string(agent::roomy_limit(limit * 2));
    return check;
}

Check judge_queue(const char *section, const char *key, uint64_t limit)
{
    constexpr uint64_t kDefault = 16384;
    Check check = {section, "queue", State::kOk, agent::with_commas(limit) + " events", "", true};
    if (limit >= kDefault)
        return check;
    check.state = State::kWarn;
    check.text += limit ? ", fewer than by default: events are lost when much happens at once" : "";
    check.remedy = std::string("raise it with sysctl ") + key + "=" + std::to_string(kDefault);
    return check;
}

// Why a trial of fanotify failed, and what can be done.
Check judge_trial(const char *name, const char *good, int error, bool root)
{
    Check check = {kFanotify, name, State::kOk, good, "", true};
    if (error == 0)
        return check;
    check.state = State::kNo;
    check.text = std::string("the kernel refuses it: ") + strerror(error);
    if (error == ENOSYS) {
        check.text = "this kernel was built without it";
        check.reachable = false;
    } else if (!root) {
        check.remedy = "run as root; without it, events do not name their process, and mounts cannot be watched";
    } else if (error == EMFILE) {
        check.remedy = "raise it with sysctl fs.fanotify.max_user_groups=1024, or end what uses it";
    } else {
        check.text += ", as in containers and user namespaces";
        check.remedy = "run fmon on the host itself, or give it CAP_SYS_ADMIN";
    }
    return check;
}

Check judge_capability(const CapabilityRow &row, uint64_t capabilities, bool root)
{
    const auto has = [&](unsigned bit) { return (capabilities >> bit & 1) != 0; };
    if (has(row.bit))
        return {kRights, row.name, State::kOk, row.purpose, "", true};
    const std::string missing = std::string("is missing, which is needed for ") + row.purpose;
    if (row.with != row.bit && !has(row.with))
        return {kRights, row.name, State::kOk, missing + ": of no use without CAP_SYS_ADMIN", "", true};
    return {kRights, row.name, row.without, missing, root ? std::string("let root keep ") + row.name : "run as root",
            true};
}

// A group with one mark on the mount of "/", which both end with the descriptor. Nothing is read or answered.
void try_fanotify(int &group_error, int &mark_error)
{
    const int fd = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_CLOEXEC);
    group_error = fd < 0 ? errno : 0;
    if (fd < 0)
        return;
    const int marked = fanotify_mark(fd, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_CLOSE_WRITE, AT_FDCWD, "/");
    mark_error = marked < 0 ? errno : 0;
    close(fd);
}

}  // namespace

std::optional<uint64_t> parse_capabilities(std::string_view status)
{
    constexpr std::string_view kLine = "\nCapEff:\t";
    const size_t at = status.find(kLine);
    uint64_t value = 0;
    if (at == std::string_view::npos)
        return std::nullopt;
    status.remove_prefix(at + kLine.size());
    const auto [end, code] = std::from_chars(status.data(), status.data() + status.size(), value, 16);
    return code == std::errc() ? std::optional(value) : std::nullopt;
}

RightsFacts gather_rights()
{
    std::string status, error;
    read_whole_file("/proc/self/status", 1 << 20, status, error);
    return {parse_capabilities(status), geteuid() == 0};
}

Checks judge_rights(const RightsFacts &facts)
{
    if (!facts.capabilities)
        return {{kRights, "capabilities", State::kWarn, "/proc/self/status does not tell them", "mount /proc", true}};
    Checks checks;
    for (const CapabilityRow &row : kCapabilities)
        checks.push_back(judge_capability(row, *facts.capabilities, facts.root));
    return checks;
}

EventFacts gather_events(std::map<uid_t, agent::Marks> users)
{
    EventFacts facts;
    facts.max_watches = agent::read_number("/proc/sys/fs/inotify/max_user_watches");
    facts.max_instances = agent::read_number("/proc/sys/fs/inotify/max_user_instances");
    facts.max_events = agent::read_number("/proc/sys/fs/inotify/max_queued_events");
    facts.max_groups = agent::read_number("/proc/sys/fs/fanotify/max_user_groups");
    facts.max_marks = agent::read_number("/proc/sys/fs/fanotify/max_user_marks");
    facts.max_fanotify = agent::read_number("/proc/sys/fs/fanotify/max_queued_events");
    facts.users = std::move(users);
    facts.root = geteuid() == 0;
    try_fanotify(facts.group_error, facts.mark_error);
    return facts;
}

Checks judge_events(const EventFacts &facts)
{
    Checks checks;
    checks.push_back(judge_limit(kInotify, "watches", "fs.inotify.max_user_watches", facts.max_watches,
                                 heaviest(facts.users, &agent::Marks::inotify_watches)));
    checks.push_back(judge_limit(kInotify, "instances", "fs.inotify.max_user_instances", facts.max_instances,
                                 heaviest(facts.users, &agent::Marks::inotify_instances)));
    checks.push_back(judge_queue(kInotify, "fs.inotify.max_queued_events", facts.max_events));
    checks.push_back(judge_trial("group", "can be used", facts.group_error, facts.root));
    if (facts.group_error != 0)
        return checks;
    checks.push_back(judge_trial("mounts", "can be marked as a whole", facts.mark_error, facts.root));
    if (facts.max_groups == 0) {
        checks.push_back(
            {kFanotify, "limits", State::kOk, "128 groups a user and 8,192 marks a group, as built in", "", true});
        return checks;
    }
    checks.push_back(judge_limit(kFanotify, "groups", "fs.fanotify.max_user_groups", facts.max_groups,
                                 heaviest(facts.users, &agent::Marks::fanotify_instances)));
    checks.push_back(
        {kFanotify, "marks", State::kOk, "up to " + agent::with_commas(facts.max_marks) + " a user", "", true});
    checks.push_back(judge_queue(kFanotify, "fs.fanotify.max_queued_events", facts.max_fanotify));
    return checks;
}

}  // namespace cli
