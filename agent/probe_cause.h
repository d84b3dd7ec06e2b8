/*
 * probe_cause.h: why there are no kernel probes, in words that say what to do about it.
 *
 * The monitor goes on without them, and only its log tells why. The first line that gives a reason counts: those behind
 * it pass it on.
 */
#ifndef AGENT_PROBE_CAUSE_H
#define AGENT_PROBE_CAUSE_H

#include <cstdint>
#include <string>
#include <string_view>

namespace agent
{

enum class ProbeCause {
    kNone,
    kContainer,  /* the monitor does not use them there */
    kLibrary,    /* the library is missing or cannot be loaded */
    kIncomplete, /* the library lacks a function */
    kKernel,     /* the library does not know this kernel, or the kernel has no probes */
    kMachine,    /* another processor than those with tables */
    kRelease,    /* the kernel's release is not of the form that the monitor reads */
    kConfig,     /* fmon.ini cannot be read */
    kMounts,     /* too many mounts for the probes' filter */
    kInstance,   /* no set of probes was to be had */
    kProbe,      /* one probe was refused */
    kOther,
};

struct ProbeTrouble {
    ProbeCause cause = ProbeCause::kNone;
    std::string line; /* of the log */
};

/* What a line of the monitor's log says about its system-wide probes. `file` is the line's origin in the log. */
ProbeCause read_probe_line(std::string_view text, std::string_view file);

/* What the machine shows of the cause. */
struct ProbeFacts {
    bool root = false, container = false;
    std::string library_path;   /* where it is looked for */
    bool library_there = false; /* a file of that name */
    std::string load_error;     /* the loader's words; empty: it can be loaded */
    std::string missing_entry;  /* a function that it lacks; empty: it has all */
    std::string library_reason; /* why it does not work, in its own words; empty: it works, or does not tell */
    std::string config;         /* where fmon.ini is looked for */
    std::string release, machine;
    uint64_t mounts = 0; /* that the filter has to name */
};

/* Looks where the monitor looks. Loads the library, which then stays loaded, as far as that can be done. `ask`: has it
 * try whether probes work, as the monitor does when it starts; once they have been tried, it remembers. */
ProbeFacts gather_probe_facts(bool container, bool ask = true);

/* The library as the monitor asks for it. */
inline constexpr char kProbeLibrary[] = "@/../lib/liborx_kp_thread.2.so";

/* Where the monitor looks for it: without "bin/../", for people to read. */
std::string probe_library();

/* The cause when what the machine shows is taken into account: a container wins over all, and a library that lacks a
 * function counts although the monitor, which then gets no events, takes it for a working one. */
ProbeCause settle_cause(const ProbeTrouble &trouble, const ProbeFacts &facts);

/* A part of a sentence: "liborx_kp_thread.2.so is not there: ...". */
std::string explain_cause(const ProbeTrouble &trouble, const ProbeFacts &facts);

/* The whole line of a refused --system, with what can be had without probes of these kinds. */
std::string explain_no_system(const ProbeTrouble &trouble, const ProbeFacts &facts, uint32_t kinds);

}  // namespace agent

#endif
