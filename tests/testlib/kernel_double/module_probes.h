/*
 * module_probes.h: the definitions that the monitor hands to the kernel-probe library, with the monitor's own texts.
 */
#ifndef TESTLIB_MODULE_PROBES_H
#define TESTLIB_MODULE_PROBES_H

#include <string>
#include <vector>

#include "kp_thread_utils.h"

namespace testlib
{

/* A definition and the texts that it points to. */
struct ModuleProbe {
    std::string point, name, fetch, filter;
    /* Points into this object: valid until it changes. */
    kp_probe_def record() const;
};

/* The six rows of file probes, in the order of their registration: Kc Ku Km Krf Krt Kl. `kernel` minor versions before
 * 4.9 ask for another function for Kc. */
std::vector<ModuleProbe> file_probes(bool is_64, const std::string &filter = "", bool before_4_9 = false);
ModuleProbe file_probe(bool is_64, const std::string &name, const std::string &filter = "");

/* The inotify probe for a kernel version. */
ModuleProbe inotify_probe_of(bool is_64, int major, int minor, const std::string &filter = "");

}  // namespace testlib

#endif
