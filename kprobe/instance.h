/*
 * instance.h: a set of probes, their rings, and the records that wait for the monitor.
 *
 * Locks, taken in this order: `parsing_` (one reader of records at a time), `control_` (definitions, filters and
 * switches, which wait for the kernel), that of the bells or `replaced_lock_` (events that are to be
 * closed), `records_` (rings and queues, never held while the kernel or a callback is waited for).
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
#include "facts.h"
#include "groups.h"
#include "latest_hit.h"
#include "marks.h"
#include "perf.h"
#include "plan.h"
#include "queue.h"
#include "record.h"
#include "tracefs.h"

namespace kprobe
{

struct Sizes {
    size_t ring, queue;           // bytes a CPU; rings are powers of two
    size_t all_rings = SIZE_MAX;  // of CPUs that come later there is what is left of this, and a small one at least
};

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

    // Hands on at most `budget` records, the oldest of all CPUs first. Returns how many.
    int parse(size_t budget);
    void clean();
    bool losses(kp_losses *out);

    // What is readable while records may be taken: a copy. There may be no room for it.
    Fd copy_descriptor() const;
    bool is_waiting();

    // For the thread that empties the rings: takes what they hold, and releases what is older than `safe`. False: there
    // was nothing to take and nothing is held back.
    bool sweep(uint64_t safe);

    // For the same thread: closes events whose place others took a while ago. True: some are left.
    bool close_replaced();
    static constexpr uint64_t kOverlap = 20000000;  // ns; far longer than a hit takes
    Bells &bells() { return bells_; }

    // In a process that was forked: what is shared with the parent is let go, and nothing is deleted.
    void lock_for_fork();
    void unlock_for_fork();
    void abandon();

private:
    struct Probe {
        Definition def;
        std::string event;               // its name in the kernel; the list of misses tells no groups
        std::vector<uint32_t> left_out;  // threads
        Plan plan;
        Layout layout;
        kp_record_cb callback = nullptr;
        int event_id = -1;
        EventSet events, bells;
        std::string in_kernel;  // their filter in the kernel's words
        bool defined = false, on = false, gone = false;
    };
    struct Replaced {  // by events with another filter
        const Probe *probe;
        EventSet events, bells;
        uint64_t since;
    };
    struct Batch;
    struct Sink;

    Probe *find(const std::string &event);
    struct Processor {
        int cpu;
        std::unique_ptr<Ring> ring = std::make_unique<Ring>();
        std::unique_ptr<RecordQueue> queue = nullptr;  // null: the one that it has
    };
    int open_processor(Processor *processor);
    void take_up(Processor *processor);
    int open_events_on(size_t at);
    void let_go(size_t at);
    size_t ring_size() const;
    bool is_up(size_t at) const { return rings_[at]->fd() >= 0; }
    std::vector<Ring *> rings() const;
    int define(Probe *probe);
    int define_in_kernel(Probe *probe);
    int open_events(Probe *probe, const std::string &filter, EventSet *events, EventSet *bells);
    std::string why_refused(const Probe &probe, const std::string &filter) const;
    void switch_events(Probe *probe);
    void replace(Probe *probe, EventSet *events, EventSet *bells);
    void drop_replaced(const Probe *probe) noexcept;
    void close_replaced(std::vector<Replaced>::iterator replaced);
    void note_replaced();
    void undefine(Probe *probe) noexcept;
    void restack(Probe *added);
    std::string kernel_filter(const Probe &probe, const std::string &text);
    int set_filter(Probe *probe, const std::string &text);
    void mark_mounts(const Probe &probe);
    int index_of(const Sample &sample) const;
    void take(size_t ring, const Sample &sample);
    void settle_signal();
    bool is_ready(const RecordQueue &queue) const;
    size_t oldest() const;
    void gather(size_t budget);
    enum class Outcome { kDelivered, kUnreadable, kLeftOut };
    Outcome hand_on(size_t at, std::vector<unsigned char> *out);
    static std::vector<uint32_t> left_out_by(const Probe &probe, const std::string &filter);
    void keep_filter(Probe *probe, std::string text, std::vector<uint32_t> left_out) noexcept;

    const Tracefs &tracefs_;
    const Facts &facts_;
    const std::string group_;

    std::mutex parsing_;
    std::vector<unsigned char> bytes_;  // the batch under way
    std::vector<QueuedRecord> batch_;
    WatchEnds ends_;
    Groups groups_;

    std::mutex control_;
    Marks marks_;
    unsigned serial_ = 0;  // of definitions

    Bells bells_;

    std::mutex replaced_lock_;
    std::vector<Replaced> replaced_;  // in the order of `since`

    std::mutex records_;
    std::vector<std::unique_ptr<Probe>> probes_;  // never shrinks: records name them by index
    std::vector<std::unique_ptr<Ring>> rings_;    // of each CPU
    std::vector<int> cpus_;                       // which these are
    Sizes sizes_ = {};
    std::vector<std::unique_ptr<RecordQueue>> queues_;  // of each ring
    Fd signal_;                                         // readable as long as a record may be taken
    bool raised_ = false;
    std::vector<LatestHit> latest_;  // of each ring, while hits are recorded twice
    uint64_t told_twice_until_ = 0;  // UINT64_MAX: nobody knows yet
    uint64_t safe_ = 0;
    kp_losses counts_ = {};

    CurrentMounts mounts_;
};

}  // namespace kprobe

#endif
