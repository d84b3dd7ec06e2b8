/*
 * records.h: records on their way in: from the ring of each CPU into a queue, where they wait for the monitor.
 */
#ifndef KPROBE_RECORDS_H
#define KPROBE_RECORDS_H

#include <memory>
#include <vector>

#include "common/fd.h"
#include "common/mutex.h"
#include "kp_thread_utils.h"
#include "latest_hit.h"
#include "perf.h"
#include "queue.h"

namespace kprobe
{

using common::Fd;

struct Sizes {
    size_t ring, queue;           // bytes a CPU; rings are powers of two
    size_t all_rings = SIZE_MAX;  // of CPUs that come later there is what is left of this, and a small one at least
};

// Records that were taken out of the queues, so that callbacks may write into them.
struct Batch {
    std::vector<unsigned char> bytes;
    std::vector<QueuedRecord> records;
};

// Any thread; who opens rings and closes them sees to it that nobody uses what rings() and ring() gave.
class Records
{
public:
    // The descriptor that is readable while records wait. 0 or a negative errno.
    int open() EXCLUDES(lock_);

    // What is readable while records may be taken: a copy. There may be no room for it.
    Fd copy_descriptor() EXCLUDES(lock_);

    // ---- CPUs ----

    // A ring, and a queue, unless the CPU had one before. 0 or a negative errno; -ENODEV: it is offline.
    int open_ring(int cpu, const Sizes &sizes) EXCLUDES(lock_);
    // What is in the queue stays there.
    void close_ring(int cpu) EXCLUDES(lock_);

    std::vector<int> cpus() EXCLUDES(lock_);  // that have a ring
    std::vector<Ring *> rings() EXCLUDES(lock_);
    const Ring *ring(int cpu) EXCLUDES(lock_);  // null: none

    // ---- probes: each has a number, from 0 on ----

    // Threads whose records count as of process 0.
    void expect(size_t probe, std::vector<uint32_t> left_out) EXCLUDES(lock_);
    void leave_out(size_t probe, std::vector<uint32_t> threads) noexcept EXCLUDES(lock_);
    // Records of that event are the probe's. -1: none are.
    void belong(int event_id, size_t probe) noexcept EXCLUDES(lock_);

    // From now on several events may record a hit, until end_repeats() says when that was over.
    void expect_repeats() EXCLUDES(lock_);
    void end_repeats(uint64_t time) EXCLUDES(lock_);

    // ---- in and out ----

    // Takes what the rings hold, and releases what is older than `safe`. False: there was nothing to take and nothing
    // is held back.
    bool sweep(uint64_t safe) EXCLUDES(lock_);
    bool is_waiting() EXCLUDES(lock_);

    // Takes at most `budget` records out, the oldest of all CPUs first; fewer where memory does not suffice.
    void gather(size_t budget, Batch &out) EXCLUDES(lock_);

    void clean() EXCLUDES(lock_);
    kp_losses counts() EXCLUDES(lock_);  // of rings and queues

    common::Mutex &mutex() RETURN_CAPABILITY(lock_) { return lock_; }
    void abandon() REQUIRES(lock_);

private:
    struct Lane {  // of a CPU
        int cpu;
        std::unique_ptr<Ring> ring;
        std::unique_ptr<RecordQueue> queue;
        LatestHit latest = {};
    };
    struct Source {  // of a probe
        int event_id = -1;
        std::vector<uint32_t> left_out;
    };
    struct Sink;

    size_t ring_size(const Sizes &sizes) EXCLUDES(lock_);
    Lane *lane_of(int cpu) REQUIRES(lock_);
    int index_of(const Sample &sample) const REQUIRES(lock_);
    void take(const Sample &sample, Lane &lane) REQUIRES(lock_);
    bool is_ready(const RecordQueue &queue) const REQUIRES(lock_);
    void settle_signal() REQUIRES(lock_);
    RecordQueue *oldest() REQUIRES(lock_);

    common::Mutex lock_;
    std::vector<Lane> lanes_ GUARDED_BY(lock_);
    std::vector<Source> sources_ GUARDED_BY(lock_);
    Fd signal_ GUARDED_BY(lock_);  // readable as long as a record may be taken
    bool raised_ GUARDED_BY(lock_) = false;
    uint64_t safe_ GUARDED_BY(lock_) = 0;
    uint64_t repeats_until_ GUARDED_BY(lock_) = 0;  // UINT64_MAX: nobody knows yet
    kp_losses counts_ GUARDED_BY(lock_) = {};
};

}  // namespace kprobe

#endif
