/*
 * instance.h: a set of probes, their rings, and the records that wait for the monitor.
 *
 * Probes has the definitions and their filters; Records and Delivery are the way of a record, in and out; Replacement
 * is how the events of a new filter take the place of the old ones. Each has a lock of its own. Order of the locks, the
 * outermost first; of those in one line no thread takes a second one:
 *
 *     Delivery::parsing_      one reader of records at a time; held during callbacks, which may call the library
 *     Library::lock_
 *     Reader::lock_           of the thread that empties the rings
 *     Probes::lock_           held while the kernel is waited for, so that the thread only tries it
 *     WakeUps::lock_, Replacement::lock_, CurrentMounts::lock_, Groups::lock_
 *     Records::lock_, Delivery::lock_, the lock of what groups.h hides: nothing is waited for while these are held
 *
 * At a fork those of Probes, WakeUps, Replacement and Records are taken together, in this order.
 */
#ifndef KPROBE_INSTANCE_H
#define KPROBE_INSTANCE_H

#include <set>
#include <string>
#include <vector>

#include "current_mounts.h"
#include "delivery.h"
#include "facts.h"
#include "groups.h"
#include "probe.h"
#include "probes.h"
#include "records.h"
#include "replacement.h"
#include "tracefs.h"
#include "wake_ups.h"

namespace kprobe
{

// Any thread, but for what says otherwise.
class Instance
{
public:
    Instance(const Tracefs &tracefs, const Facts &facts, std::string group) : kernel_{tracefs, facts, std::move(group)}
    {
    }

    // A ring and a queue for each CPU, and a descriptor to wait on. 0 or a negative errno.
    int open(const std::vector<int> &cpus, const Sizes &sizes);

    // ---- definitions and filters ----

    int learn_groups() { return probes_.learn_groups(); }
    int add(const kp_probe_def &record, kp_record_cb callback) { return probes_.add(record, callback); }
    int enable(const std::string &name, bool on) { return probes_.enable(name, on); }
    int filter(const std::string &name, const std::string &text) { return probes_.filter(name, text); }

    // ---- records ----

    Fd copy_descriptor() { return records_.copy_descriptor(); }
    bool is_waiting() { return records_.is_waiting(); }
    int parse(size_t budget) { return delivery_.parse(budget); }
    void clean() { records_.clean(); }
    kp_losses losses();

    // ---- for the thread that empties the rings ----

    WakeUps &wake_ups() { return wake_ups_; }
    bool sweep(uint64_t safe) { return records_.sweep(safe); }
    bool close_replaced() { return replacement_.close_old(); }

    // Takes CPUs up that came online and lets those go that went; `renewed` did both meanwhile. False: somebody is at
    // the definitions, and the thread must not wait; to be called again.
    bool follow(const std::vector<int> &online, const std::set<int> &renewed);

    // ---- fork ----

    void lock_for_fork();
    void unlock_for_fork();
    // In a process that was forked, between these two: what is shared with the parent is let go, and nothing is
    // deleted.
    void abandon();

private:
    int take_up(int cpu);
    int follow_one(int cpu) REQUIRES(probes_.mutex());
    void let_go(int cpu) REQUIRES(probes_.mutex());

    const Kernel kernel_;
    Sizes sizes_ = {};
    Groups groups_;
    CurrentMounts mounts_;
    WakeUps wake_ups_;
    Records records_;
    Delivery delivery_{records_, groups_, mounts_};
    Replacement replacement_{records_, wake_ups_};
    Probes probes_{kernel_, {groups_, mounts_, wake_ups_, records_, delivery_, replacement_}};
};

}  // namespace kprobe

#endif
