/*
 * instance.h: a set of probes, their rings, and the records that wait for the monitor.
 *
 * Locks, taken in this order: `parsing_` (one reader of records at a time), `control_` (definitions, filters and
 * switches, which wait for the kernel), that of the bells or of the replacement, `records_` (rings and queues, never
 * held while the kernel or a callback is waited for).
 */
#ifndef KPROBE_INSTANCE_H
#define KPROBE_INSTANCE_H

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "bells.h"
#include "current_mounts.h"
#include "definition.h"
#include "delivery.h"
#include "facts.h"
#include "groups.h"
#include "marks.h"
#include "perf.h"
#include "plan.h"
#include "records.h"
#include "replacement.h"
#include "tracefs.h"

namespace kprobe
{

class Instance
{
public:
    Instance(const Tracefs &tracefs, const Facts &facts, std::string group);
    ~Instance();  // deletes the definitions
    Instance(const Instance &) = delete;
    Instance &operator=(const Instance &) = delete;

    // A ring and a queue for each CPU, and a descriptor to wait on. 0 or a negative errno.
    int open(const std::vector<int> &cpus, const Sizes &sizes);

    // Whether deliveries to this process's inotify instances can be told from others. 0 or a negative errno.
    int learn_groups();

    // For the thread that empties the rings: takes CPUs up that came online and lets those go that went; `renewed` did
    // both meanwhile. False: somebody is at the definitions, and the thread must not wait; to be called again.
    bool follow(const std::vector<int> &online, const std::set<int> &renewed);

    // 0 or negative; what went wrong is in the log. An inotify probe tells of the inotify descriptors that the process
    // has by then; of those that are made later from the next filter on, or when the probe is switched on anew.
    int add(const kp_probe_def &record, kp_record_cb callback);
    int enable(const std::string &event, bool on);
    int filter(const std::string &event, const std::string &text);

    int parse(size_t budget) { return delivery_.parse(budget); }
    void clean() { records_.clean(); }
    bool losses(kp_losses *out);

    Fd copy_descriptor() { return records_.copy_descriptor(); }
    bool is_waiting() { return records_.is_waiting(); }
    bool sweep(uint64_t safe) { return records_.sweep(safe); }

    bool close_replaced() { return replacement_.close_old(); }
    Bells &bells() { return bells_; }

    // In a process that was forked: what is shared with the parent is let go, and nothing is deleted.
    void lock_for_fork();
    void unlock_for_fork();
    void abandon();

private:
    struct Probe {
        size_t number;  // of it in `probes_`, and for what becomes of its records
        Definition def;
        std::string event;  // its name in the kernel; the list of misses tells no groups
        Plan plan;
        int event_id = -1;
        ProbeEvents events;
        std::string in_kernel;  // their filter in the kernel's words
        bool defined = false, on = false, gone = false;
    };
    Probe *find(const std::string &event);
    int take_up(int cpu);
    int open_events_on(int cpu);
    void let_go(int cpu);
    int define(Probe *probe);
    int define_in_kernel(Probe *probe);
    int open_events(Probe *probe, const std::string &filter, ProbeEvents *events);
    std::string why_refused(const Probe &probe, const std::string &filter) const;
    void switch_events(Probe *probe);
    void undefine(Probe *probe) noexcept;
    void restack(Probe *added);
    std::string kernel_filter(const Probe &probe, const std::string &text);
    int set_filter(Probe *probe, const std::string &text);
    void expect(const Probe &probe, kp_record_cb callback);
    void mark_mounts(const Probe &probe);
    static std::vector<uint32_t> left_out_by(const Probe &probe, const std::string &filter);
    void keep_filter(Probe *probe, std::string text, std::vector<uint32_t> left_out) noexcept;

    const Tracefs &tracefs_;
    const Facts &facts_;
    const std::string group_;

    Groups groups_;
    CurrentMounts mounts_;
    Bells bells_;
    Records records_;
    Delivery delivery_{records_, groups_, mounts_};
    Replacement replacement_{records_, bells_};
    Sizes sizes_ = {};

    std::mutex control_;
    std::vector<std::unique_ptr<Probe>> probes_;  // never shrinks: records name them by number
    Marks marks_;
    unsigned serial_ = 0;  // of definitions
};

}  // namespace kprobe

#endif
