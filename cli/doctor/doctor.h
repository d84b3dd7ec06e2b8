/*
 * doctor.h: what `fmon doctor` looks at. A section is two steps: facts are gathered from the machine, and judged by a
 * function that looks at nothing else. A new section is a source of its own, its functions here, and a row of the table
 * in doctor_cmd.cpp.
 */
#ifndef CLI_DOCTOR_H
#define CLI_DOCTOR_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/marks.h"
#include "agent/mounts.h"
#include "agent/probe_cause.h"
#include "cli/offsets/offsets.h"
#include "orx_sensitivedir.h"

namespace cli
{

enum class State { kOk, kWarn, kNo };

/* One line of the report. */
struct Check {
    const char *section;
    std::string name;
    State state = State::kOk;
    std::string text;      /* what is so */
    std::string remedy;    /* what to do about it; empty: nothing to do, or nothing can be done */
    bool reachable = true; /* root could have it on this machine */
};
using Checks = std::vector<Check>;

const char *state_name(State state); /* "ok", "warn", "no" */

/* ---- the report ---- */

std::string doctor_text(const Checks &checks, bool colours);
std::string doctor_json(const Checks &checks, uint64_t time_ns); /* an object a line */

/* kDone, or kNothing where something is missing that root could have. */
int doctor_status(const Checks &checks);

/* ---- the monitor and its configuration ---- */

struct SetupFacts {
    std::string monitor_error;  /* why libfmon.so cannot be loaded */
    bool container = false;     /* the monitor takes itself to be in one */
    std::string container_type; /* as the installation names it */
    std::string config;         /* fmon.ini */
    bool config_read = false;
    std::vector<std::pair<std::string, std::string>> settings; /* those that are there */
};
SetupFacts gather_setup();
Checks judge_setup(const SetupFacts &facts);

/* ---- the kernel ---- */

struct KernelFacts {
    std::string release, machine;
    std::string handed;               /* the release in the shape that the monitor takes */
    std::string section;              /* of fmon.ini; empty: the monitor does not understand the kernel */
    std::string s_mounts, mnt_id;     /* the section's values; empty: not there */
    std::optional<Offsets> described; /* by the kernel itself */
    std::string description_error;    /* why there are none */
};
KernelFacts gather_kernel(const std::string &config);
Checks judge_kernel(const KernelFacts &facts);

/* ---- what several sections look at, gathered once ---- */

struct Machine {
    SetupFacts setup;
    KernelFacts kernel;
    std::map<uid_t, agent::Marks> users;
    std::vector<agent::Mount> mounts;
};

/* ---- rights ---- */

struct RightsFacts {
    std::optional<uint64_t> capabilities; /* effective; none: not known */
    bool root = false;
};
/* The line "CapEff:" of a process's status. */
std::optional<uint64_t> parse_capabilities(std::string_view status);
inline constexpr unsigned kCapSysPtrace = 19;
RightsFacts gather_rights();
Checks judge_rights(const RightsFacts &facts);

/* ---- inotify and fanotify ---- */

struct EventFacts {
    uint64_t max_watches = 0, max_instances = 0, max_events = 0; /* of inotify; 0: not known */
    uint64_t max_groups = 0, max_marks = 0, max_fanotify = 0;    /* of fanotify; 0: not reported by older kernels */
    std::map<uid_t, agent::Marks> users;
    int group_error = 0, mark_error = 0; /* errno of a trial */
    bool root = false;
};
EventFacts gather_events(std::map<uid_t, agent::Marks> users);
Checks judge_events(const EventFacts &facts);

/* ---- which source serves what is mounted ---- */

/* What a recursive watch on a mount would be met with. */
struct SourceTrial {
    enum Step {
        kServed,  /* nothing: a mark of the file system serves it */
        kHidden,  /* another file system is mounted over it: no line */
        kKernels, /* the kernel's own, without files of anybody: not tried */
        kRemote,  /* the answer of another machine or program would have to be waited for: not tried */
        kFile,    /* a file is mounted, and no directory */
        kReach,   /* it could not be opened */
        kMark,    /* the mark was refused */
        kHandle,  /* it has no file handles */
        kOpen,    /* a file handle could not be opened */
        kTwin,    /* its id is that of another file system */
    };
    agent::Mount mount;
    Step step = kServed;
    int error = 0;         /* errno of what was refused */
    std::string twin = {}; /* where the other file system is mounted */
};
struct SourceFacts {
    int init_error = 0;        /* errno of the fanotify group */
    bool names_object = false; /* each event says what it happened to, not only where */
    bool container = false, root = false;
    std::vector<SourceTrial> mounts;
};
SourceFacts gather_sources(const Machine &machine);
Checks judge_sources(const SourceFacts &facts);

/* ---- processes ---- */

struct ProcessFacts {
    std::string connector_error; /* why the kernel does not report them; empty: it does */
    bool root = false;
};
ProcessFacts gather_processes();
Checks judge_processes(const ProcessFacts &facts);

/* ---- kernel probes ---- */

struct DoctorProbes {
    agent::ProbeFacts probes;
    bool understood = false;      /* the monitor takes this kernel's release and machine */
    bool may_crash = false;       /* tracefs is marked, on a kernel that may then crash: the library was not asked */
    std::vector<uint64_t> mounts; /* ids that the filter names */
    uint64_t processors = 0, max_descriptors = 0; /* that the machine may have, that a process may have */
};
/* Whether a kernel may crash when a probe goes while somebody's fanotify marks tracefs: those before 6.7. */
bool deletes_probes_badly(std::string_view release);
/* Whether any of these marks is on tracefs. */
bool is_tracefs_marked(const std::map<uid_t, agent::Marks> &users, const std::vector<agent::Mount> &mounts);
/* Bytes of the text that names these mounts to the probes, as the monitor makes it. */
size_t filter_length(const std::vector<uint64_t> &mounts);

DoctorProbes gather_probes(const Machine &machine);
Checks judge_probes(const DoctorProbes &facts);

/* ---- containers ---- */

struct ContainerFacts {
    std::string library_error; /* why the container library cannot be used */
    bool surveyed = false;     /* what follows was asked for: another make's library cannot be */
    int census_error = 0;      /* errno */
    struct orx_container_census census = {};
    bool container = false, root = false; /* inside a container; of this process */
    bool host_processes = true;           /* /proc shows the machine's processes */
    bool first_hidden = false;            /* /proc does not show process 1 */
    bool may_trace = false;               /* this process has CAP_SYS_PTRACE, which looking at others needs */
};
ContainerFacts gather_containers(bool container);
Checks judge_containers(const ContainerFacts &facts);

/* ---- running watches ---- */

struct WatchFacts {
    pid_t pid = 0;
    std::string command;             /* its command line */
    std::vector<std::string> losses; /* what it missed since it began, a line each */
    std::string error;               /* why it could not be asked */
};
std::vector<WatchFacts> gather_watches(); /* those that this user may ask */
Checks judge_watches(const std::vector<WatchFacts> &watches);

/* ---- file systems ---- */

Checks judge_mounts(const std::vector<agent::Mount> &mounts);

}  // namespace cli

#endif
