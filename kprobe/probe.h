/*
 * probe.h: a probe as the kernel has it: its definition there, and its events on every CPU.
 */
#ifndef KPROBE_PROBE_H
#define KPROBE_PROBE_H

#include <string>
#include <vector>

#include "definition.h"
#include "facts.h"
#include "perf.h"
#include "plan.h"
#include "record.h"
#include "tracefs.h"

namespace kprobe
{

// Where an instance's definitions are made.
struct Kernel {
    const Tracefs &tracefs;
    const Facts &facts;
    const std::string group;
};

// No lock of its own.
class Probe
{
public:
    explicit Probe(const Kernel &kernel) : kernel_(kernel) {}

    // Where `def` is placed on this kernel. 0 or a negative errno, with a line in the log, as in all that follows.
    int place();

    // Makes the definition under a name that is no other's, and learns how the kernel lays out its records.
    int define(unsigned serial, Layout &layout);
    void remove() noexcept;
    bool is_defined() const { return made_; }
    int event_id() const { return event_id_; }

    // Events that are switched off, with a filter in the kernel's words.
    int open_events(const std::string &filter, const std::vector<Ring *> &rings, const std::vector<Ring *> &wake_ups,
                    ProbeEvents &out);
    // Of one more CPU, filtered and switched as the others are. -ENODEV: it is offline; nothing is logged.
    int open_events_on(const Ring &ring, const Ring &wake_up);

    // Hits that the kernel could not serve. Kernels before 5.14 count failed fetches as well, whose record comes all
    // the same: an inotify event without a name, such as the end of a watch, has two. What was counted does not show,
    // so that an inotify probe has no misses there. It needs none: a hit is missed inside another probe's handler, and
    // functions that may sleep, as all these do, are not called there. Of a file there is always something to fetch.
    uint64_t missed() const;

    // In a process that was forked: the definition is the parent's.
    void abandon();

    size_t number = 0;  // in its instance
    Definition def;
    Plan plan;
    ProbeEvents events;
    bool on = false;
    bool gone = false;  // for good: another has its name, or it could not be made anew

private:
    std::string why_refused(const std::string &filter) const;

    const Kernel &kernel_;
    std::string event_;  // its name in the kernel; the list of misses names no groups
    int event_id_ = -1;
    bool made_ = false;      // there is a definition in the kernel
    std::string in_kernel_;  // the filter of its events in the kernel's words
};

}  // namespace kprobe

#endif
