/*
 * diagnose.h: why something could not be watched, in one line that says what to do about it.
 */
#ifndef AGENT_DIAGNOSE_H
#define AGENT_DIAGNOSE_H

#include <cstdint>
#include <string>

#include "placement.h"

namespace agent
{

/* What a diagnosis needs to know of the machine. */
struct Facts {
    bool root = false;
    bool fanotify = false;         /* the monitor has it */
    uint64_t max_user_watches = 0; /* 0: not known */
    uint64_t user_watches = 0;     /* in use by this user, as far as can be seen */
    uint64_t own_watches = 0;      /* of these, by this process */
    uint64_t max_user_instances = 0;
    uint64_t user_instances = 0;
    uint64_t max_user_marks = 0;
    uint64_t max_dentries = 0;              /* as set for this run */
    uint64_t descriptors_left = UINT64_MAX; /* of this process */
};

Facts gather_facts();

/* Codes that the monitor's backend passes through: no fanotify in this process, and a fanotify that is refused. */
inline constexpr int kNoFanotify = -103, kFanotifyRefused = -104;

/* Instead of a code of the monitor's, which are negative: --source filesystem, and marks on directories would serve. */
inline constexpr int kNotServed = 1;

/* A request that the monitor refused: `code` is its result, `findings` what was refused meanwhile, `fallback` why a
 * mark of the whole file system does not serve. */
struct Refusal {
    std::string path;
    int code = 0;
    bool mount = false, pid = false;
    Findings findings = {};
    struct fmon_fallback fallback = {};
};
std::string explain_refusal(const Refusal &refusal, const Facts &facts);

/* Why the monitor did not start. */
std::string explain_start_failure(const struct fmon_source &monitor, const Facts &facts);

/* Directories that were left out; `left_out` is their number. `path` is empty when it happened after the start. */
std::string explain_left_out(const std::string &path, const Findings &findings, uint64_t left_out, const Facts &facts);

/* A path that has appeared and cannot be watched: refusal.path is there. */
std::string explain_retry(const Refusal &refusal, const Facts &facts);

/* The next power of two that leaves room to double what is needed. */
uint64_t roomy_limit(uint64_t needed);

}  // namespace agent

#endif
