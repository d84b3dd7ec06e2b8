/*
 * probes.h: the probes of an instance: their definitions in the kernel, their switches and their filters.
 */
#ifndef KPROBE_PROBES_H
#define KPROBE_PROBES_H

#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "current_mounts.h"
#include "delivery.h"
#include "groups.h"
#include "marks.h"
#include "probe.h"
#include "records.h"
#include "replacement.h"
#include "wake_ups.h"

namespace kprobe
{

// Any thread; each call waits for the kernel.
class Probes
{
public:
    // The rest of the instance.
    struct Parts {
        Groups &groups;
        CurrentMounts &mounts;
        WakeUps &wake_ups;
        Records &records;
        Delivery &delivery;
        Replacement &replacement;
    };

    Probes(const Kernel &kernel, const Parts &parts) : kernel_(kernel), parts_(parts) {}
    ~Probes();  // deletes them
    Probes(const Probes &) = delete;
    Probes &operator=(const Probes &) = delete;

    // Whether deliveries to this process's inotify instances can be told from others. 0 or a negative errno.
    int learn_groups();

    // 0 or a negative errno; what went wrong is in the log. An inotify probe reports on the inotify descriptors that
    // the process has by then; of those that are made later from the next filter on, or when the probe is switched on
    // anew.
    int add(const kp_probe_def &record, kp_record_cb callback) EXCLUDES(lock_);
    int enable(const std::string &name, bool on) EXCLUDES(lock_);
    int filter(const std::string &name, const std::string &text) EXCLUDES(lock_);

    // Hits that the kernel could not serve.
    uint64_t missed() EXCLUDES(lock_);

    // Held while CPUs come and go, so that every probe has its events on each.
    common::Mutex &mutex() RETURN_CAPABILITY(lock_) { return lock_; }
    int open_events_on(const Ring &ring, const Ring &wake_up) REQUIRES(lock_);
    void drop_cpu(int cpu) REQUIRES(lock_);

    // In a process that was forked: nothing is deleted.
    void abandon() REQUIRES(lock_);

private:
    Probe *find(const std::string &name) REQUIRES(lock_);
    std::string kernel_filter(const Probe &probe, const std::string &text);
    void expect(const Probe &probe, kp_record_cb callback);
    int define(Probe &probe) REQUIRES(lock_);
    int define_and_open(Probe &probe) REQUIRES(lock_);
    void undefine(Probe &probe) noexcept REQUIRES(lock_);
    void restack(Probe &added) REQUIRES(lock_);
    void switch_events(Probe &probe) REQUIRES(lock_);
    int set_filter(const std::string &text, Probe &probe) REQUIRES(lock_);
    void mark_mounts(const Probe &probe) REQUIRES(lock_);

    const Kernel &kernel_;
    const Parts parts_;

    common::Mutex lock_;
    std::vector<std::unique_ptr<Probe>> probes_ GUARDED_BY(lock_);  // never shrinks: records name them by number
    Marks marks_ GUARDED_BY(lock_);
    unsigned serial_ GUARDED_BY(lock_) = 0;  // of definitions
};

}  // namespace kprobe

#endif
