/*
 * probe_cause.h: why there are no kernel probes, in words that say what to do about it.
 *
 * The monitor goes on without them; its status says what it met, and the machine shows more.
 */
#ifndef AGENT_PROBE_CAUSE_H
#define AGENT_PROBE_CAUSE_H

#include <cstdint>
#include <string>

#include "module.h"

namespace agent
{

/* The monitor's system-wide probes, as its status has them. */
struct fmon_source file_probes(const Module &module);

/* What the machine shows of the cause. */
struct ProbeFacts {
    bool root = false, container = false;
    std::string library_path;   /* where it is looked for */
    bool library_there = false; /* a file of that name */
    std::string load_error;     /* the loader's words; empty: it can be loaded */
    std::string missing_entry;  /* a function that it lacks; empty: it has all */
    std::string library_reason; /* why it does not work, in its own words; empty: it works, or does not say */
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

/* The cause (FMON_WHY_*) when what the machine shows is taken into account: a container wins over all, and a library
 * that lacks a function counts although the monitor, which then gets no events, takes it for a working one. */
uint32_t settle_cause(const struct fmon_source &probes, const ProbeFacts &facts);

/* A part of a sentence: "liborx_kp_thread.2.so is not there: ...". */
std::string explain_cause(const struct fmon_source &probes, const ProbeFacts &facts);

/* The whole line of a refused --system, with what can be had without probes of these kinds. */
std::string explain_no_system(const struct fmon_source &probes, const ProbeFacts &facts, uint32_t kinds);

}  // namespace agent

#endif
