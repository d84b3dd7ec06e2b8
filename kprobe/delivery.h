/*
 * delivery.h: records on their way out: out of the queues, made into what the monitor knows, and into its callbacks.
 */
#ifndef KPROBE_DELIVERY_H
#define KPROBE_DELIVERY_H

#include <vector>

#include "common/mutex.h"
#include "current_mounts.h"
#include "groups.h"
#include "kp_thread_utils.h"
#include "record.h"
#include "records.h"

namespace kprobe
{

// What is made of a probe's raw records, and for whom.
struct Recipe {
    kp_record_cb callback = nullptr;
    bool by_device = false, inotify = false, names_group = false;
    Layout layout = {};
};

// Any thread.
class Delivery
{
public:
    Delivery(Records &records, Groups &groups, CurrentMounts &mounts);

    // The probe of that number; its layout comes when the kernel has described it.
    void expect(size_t probe, Recipe recipe) EXCLUDES(lock_);
    void lay_out(size_t probe, Layout layout) noexcept EXCLUDES(lock_);

    // Hands on at most `budget` records, the oldest of all CPUs first. Returns how many; 0 also from inside a callback.
    int parse(size_t budget) EXCLUDES(parsing_, lock_);

    void add_counts(kp_losses &out) EXCLUDES(lock_);

private:
    enum class Outcome { kDelivered, kUnreadable, kLeftOut };
    struct Made {
        kp_record_cb callback;
        bool by_device, inotify;
        uint64_t group;
    };

    Outcome hand_on(const QueuedRecord &record, std::vector<unsigned char> &out) REQUIRES(parsing_) EXCLUDES(lock_);
    bool make(const QueuedRecord &record, std::vector<unsigned char> &out, Made &made) EXCLUDES(lock_);

    Records &records_;
    Groups &groups_;
    CurrentMounts &mounts_;

    common::Mutex parsing_ ACQUIRED_BEFORE(lock_);  // one reader of records at a time; held during callbacks
    Batch batch_ GUARDED_BY(parsing_);              // under way
    WatchEnds ends_ GUARDED_BY(parsing_);

    common::Mutex lock_;
    std::vector<Recipe> recipes_ GUARDED_BY(lock_);
    uint64_t delivered_ GUARDED_BY(lock_) = 0, unreadable_ GUARDED_BY(lock_) = 0;
};

}  // namespace kprobe

#endif
