/*
 * request.h: what a monitoring verb is asked for.
 */
#ifndef AGENT_REQUEST_H
#define AGENT_REQUEST_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace agent
{

enum class Probes { kAuto, kOn, kOff };

/* How directories are watched: each by marks of its own, or by one mark for the whole file system. kAuto: the latter
 * where it works. */
enum class Source { kAuto, kMarks, kFilesystem };

struct Request {
    std::vector<std::string> paths;
    std::vector<std::string> spare; /* what lies below these is left unwatched */
    uint32_t events = 0;            /* 0: the default of the kind of watch */
    bool recursive = false, mount = false, pid = false, delay = false, sync = false, wait = false, system = false;
    uint32_t max_depth = 0;   /* 0: no limit */
    uint32_t max_subdirs = 0; /* 0: no limit */
    bool quiet = false;       /* no notes and no progress on stderr */
    uint64_t timeout_ms = 0;  /* without an event; 0: none */
    bool keep_going = false;
    bool unattended = false;   /* a service's: `wait` is about the paths that can be waited for, silent about others */
    bool ancestors = false;    /* of processes are shown */
    bool no_found = false;     /* what is found in new directories is not reported */
    bool pair_renames = false; /* both halves of a rename are one event */
    bool as_given = false;     /* paths are shown as they were given */
    std::vector<std::pair<std::string, std::string>> settings; /* keys of fmon.ini */
    Probes probes = Probes::kAuto;
    Source source = Source::kAuto;
    int log_level = -1; /* -1: as it is */
    bool log_to_stderr = false;

    friend bool operator==(const Request &, const Request &) = default;
};

}  // namespace agent

#endif
