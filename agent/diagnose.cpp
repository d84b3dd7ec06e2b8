#include "diagnose.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "descriptors.h"
#include "fallback.h"
#include "marks.h"
#include "message.h"
#include "orx_fmon.h"

namespace agent
{

namespace
{

constexpr uint64_t kDescriptorsToStart = 16; /* of the monitor and what it stands on, some more */

/* Codes that the backend passes through. */
enum : int {
    kInotifyRefused = -108,
    kMarkRefused = -109,
    kTableFull = -110,
    kPathTooLong = -117,
};

// Who uses the watches matters: raising the limit does not help for long when another program leaks them.
std::string watch_limit_text(const Facts &facts, uint64_t missing)
{
    const uint64_t used = std::max(facts.user_watches, facts.own_watches);
    std::string text = "fs.inotify.max_user_watches is reached (" + with_commas(facts.max_user_watches) + "; " +
                       with_commas(used) + " in use by this user";
    if (used > facts.own_watches)
        text += ", " + with_commas(used - facts.own_watches) + " of them by other programs";
    return text + "): raise it with sysctl fs.inotify.max_user_watches=" +
           std::to_string(roomy_limit(std::max(used, facts.max_user_watches) + missing));
}

std::string mark_limit_text(const Facts &facts, uint64_t missing)
{
    return "fs.fanotify.max_user_marks is reached (" + with_commas(facts.max_user_marks) +
           "): raise it with sysctl fs.fanotify.max_user_marks=" +
           std::to_string(roomy_limit(facts.max_user_marks + missing));
}

std::string cache_text(const Facts &facts, uint64_t missing)
{
    return "the monitor's cache is full (max_dentries " + with_commas(facts.max_dentries) +
           "): give it room with --set max_dentries=" +
           std::to_string(std::min<uint64_t>(roomy_limit(facts.max_dentries + missing), 2097152));
}

std::string limit_text(const Findings &findings, const Facts &facts, uint64_t missing)
{
    if (findings.counts.descriptors)
        return reason_text(findings.last.error == ENFILE ? ENFILE : EMFILE);
    if (findings.counts.cache_full)
        return cache_text(facts, missing);
    return findings.counts.inotify_limit ? watch_limit_text(facts, missing) : mark_limit_text(facts, missing);
}

std::string unsupported_text(const Refusal &refusal, const Facts &facts)
{
    const std::string option = refusal.mount ? "--mount" : "--pid";
    if (!facts.fanotify)
        return " cannot be watched with " + option + ": it needs fanotify, which " +
               (facts.root ? "this kernel or container does not offer" : "only root may use") + "; without " + option +
               " it can be watched, but events do not name their process";
    std::string text =
        " cannot be watched with " + option + ": only open, access, modify, close_write and close_nowrite can";
    if (refusal.mount || refusal.fallback.reason == FMON_FALLBACK_NONE)
        return text;
    return text + ", since no mark of its file system serves: " + explain_fallback(refusal.fallback, facts.root).line();
}

std::string not_served_text(const Refusal &refusal, const Facts &facts)
{
    return " cannot be watched with --source filesystem: " + explain_fallback(refusal.fallback, facts.root).line() +
           "; --source auto watches it by marks on directories";
}

std::string refused_by_kernel(const Refusal &refusal, const Facts &facts)
{
    const int error = refusal.findings.last.error;
    if (error == EACCES || error == EPERM)
        return std::string(" may not be read: ") + strerror(error) +
               (facts.root ? "" : ": run as root, or get read permission");
    if (error == EMFILE || error == ENFILE)
        return " cannot be watched: " + reason_text(error);
    return std::string(" cannot be watched: ") + (error == 0 ? "the kernel refused it" : strerror(error));
}

std::string reason_by_code(const Refusal &refusal, const Facts &facts)
{
    switch (refusal.code) {
        case FMON_ENOENT:
            return refusal.mount ? " lies on no mount that can be marked: watch it without --mount"
                                 : " went away, or may not be read, while it was being watched: try again";
        case FMON_ENOTSUP:
        case kNoFanotify:
        case kFanotifyRefused:
            return unsupported_text(refusal, facts);
        case FMON_ENOMEM:
        case kTableFull:
            return " cannot be watched: out of memory, or " + cache_text(facts, 1);
        case FMON_EEXIST:
            return " is watched already";
        case kNotServed:
            return not_served_text(refusal, facts);
        case kInotifyRefused:
        case kMarkRefused:
            return refused_by_kernel(refusal, facts);
        case kPathTooLong:
            return ": the path is too long to be watched";
        default:
            return " was refused by the monitor (code " + std::to_string(refusal.code) + ")";
    }
}

}  // namespace

uint64_t roomy_limit(uint64_t needed)
{
    uint64_t limit = 1024;
    while (limit < needed && limit < (uint64_t{1} << 30))
        limit *= 2;
    return limit;
}

Facts gather_facts()
{
    Facts facts;
    facts.descriptors_left = descriptors_left();
    const Marks own = process_marks("self"), user = user_marks(geteuid());
    facts.root = geteuid() == 0;
    facts.fanotify = own.fanotify_instances > 0;
    facts.max_user_watches = read_number("/proc/sys/fs/inotify/max_user_watches");
    facts.user_watches = user.inotify_watches;
    facts.own_watches = own.inotify_watches;
    facts.max_user_instances = read_number("/proc/sys/fs/inotify/max_user_instances");
    facts.user_instances = user.inotify_instances;
    facts.max_user_marks = read_number("/proc/sys/fs/fanotify/max_user_marks");
    return facts;
}

std::string explain_refusal(const Refusal &refusal, const Facts &facts)
{
    if (refusal.code != FMON_ENOMEM && refusal.findings.limit_reached())
        return refusal.path + " cannot be watched: " + limit_text(refusal.findings, facts, 1);
    return refusal.path + reason_by_code(refusal, facts);
}

// EMFILE stands for the limit of instances and for that of descriptors alike.
std::string explain_start_failure(const struct fmon_source &monitor, const Facts &facts)
{
    const int error = monitor.error;
    if (error == EMFILE && facts.max_user_instances && facts.user_instances >= facts.max_user_instances)
        return "the monitor cannot start: fs.inotify.max_user_instances is reached (" +
               with_commas(facts.max_user_instances) + "; " + with_commas(facts.user_instances) +
               " in use by this user): raise it with sysctl fs.inotify.max_user_instances=" +
               std::to_string(roomy_limit(facts.max_user_instances * 2));
    if (error == ENFILE || (error == EMFILE && facts.descriptors_left < kDescriptorsToStart))
        return "the monitor cannot start: " + reason_text(error);
    if (error == EMFILE)
        return "the monitor cannot start: no inotify instance is left: raise it with "
               "sysctl fs.inotify.max_user_instances=" +
               std::to_string(roomy_limit(facts.max_user_instances * 2)) + ", or see ulimit -n";
    const std::string trouble = trouble_text(monitor);
    return "the monitor cannot start" + (trouble.empty() ? "" : ": " + trouble) + "; --verbose shows its log";
}

std::string explain_left_out(const std::string &path, const Findings &findings, uint64_t left_out, const Facts &facts)
{
    const std::string head = counted(left_out, "directory") + (path.empty() ? "" : " below " + path) +
                             (left_out == 1 ? " is not watched: " : " are not watched: ");
    if (findings.limit_reached())
        return head + limit_text(findings, facts, left_out);
    if (findings.counts.denied)
        return head + "no permission to read " + (findings.first_denied.empty() ? "it" : findings.first_denied) +
               (left_out > 1 ? " and others" : "") + (facts.root ? "" : ": run as root to watch all");
    if (findings.counts.too_long)
        return head + "paths of more than 1,022 bytes cannot be watched";
    const std::string reason = refusal_text(findings.last);
    return head + (reason.empty() ? "the monitor's log tells why" : reason);
}

std::string explain_retry(const Refusal &refusal, const Facts &facts)
{
    return refusal.path + " is there, but" +
           (refusal.code == kNotServed ? not_served_text(refusal, facts) : refused_by_kernel(refusal, facts));
}

}  // namespace agent
