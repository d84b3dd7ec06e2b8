// Records on their way through an instance: from the rings into the queues, and out to the monitor.
#include <sys/eventfd.h>

#include <algorithm>
#include <cstring>
#include <exception>

#include "instance.h"

namespace kprobe
{

// ---- records in ----

struct Instance::Sink {
    Instance *instance;
    size_t ring;
    bool took = false;

    void sample(const Sample &sample)
    {
        took = true;
        instance->take(ring, sample);
    }
    void lost(uint64_t count) { instance->counts_.ring += count; }
};

// The event's number is the first field of every raw record. -1: none of ours (any more).
int Instance::index_of(const Sample &sample) const
{
    uint16_t type;
    if (sample.raw_size < sizeof(type))
        return -1;
    memcpy(&type, sample.raw, sizeof(type));
    for (size_t i = 0; i < probes_.size(); i++)
        if (probes_[i]->event_id == type)
            return static_cast<int>(i);
    return -1;
}

void Instance::take(size_t ring, const Sample &sample)
{
    const int probe = index_of(sample);
    if (probe < 0)
        return;
    if (sample.time < told_twice_until_ && latest_[ring].is_again(sample))
        return;
    const std::vector<uint32_t> &left_out = probes_[static_cast<size_t>(probe)]->left_out;
    const bool known = std::find(left_out.begin(), left_out.end(), sample.tid) == left_out.end();
    if (!queues_[ring]->push(
            {sample.time, static_cast<uint32_t>(probe), known ? sample.pid : 0, sample.raw, sample.raw_size}))
        counts_.queue++;
}

bool Instance::sweep(uint64_t safe)
{
    const std::lock_guard lock(records_);
    bool took = false;
    for (size_t i = 0; i < rings_.size(); i++) {
        Sink sink = {this, i};
        rings_[i]->drain(sink);
        took |= sink.took;
    }
    safe_ = std::max(safe_, safe);
    settle_signal();
    const bool held = std::any_of(queues_.begin(), queues_.end(),
                                  [this](const auto &queue) { return !queue->empty() && !is_ready(*queue); });
    return took || held;
}

bool Instance::is_ready(const RecordQueue &queue) const
{
    QueuedRecord first;
    return queue.peek(&first) && first.time <= safe_;
}

void Instance::settle_signal()
{
    const bool ready =
        std::any_of(queues_.begin(), queues_.end(), [this](const auto &queue) { return is_ready(*queue); });
    if (ready == raised_)
        return;
    eventfd_t value = 1;
    raised_ = ready;
    ready ? eventfd_write(signal_.get(), value) : eventfd_read(signal_.get(), &value);
}

// ---- records out ----

bool Instance::is_waiting()
{
    const std::lock_guard lock(records_);
    return raised_;
}

// The queue that begins with the oldest record that may be taken; the number of queues: none.
size_t Instance::oldest() const
{
    size_t best = queues_.size();
    uint64_t time = safe_;
    QueuedRecord first;
    for (size_t i = 0; i < queues_.size(); i++) {
        if (!queues_[i]->peek(&first) || first.time > time)
            continue;
        time = first.time;
        best = i;
    }
    return best;
}

// Copies a batch out of the queues, so that callbacks may write into it, and may call the library.
void Instance::gather(size_t budget)
{
    const std::lock_guard lock(records_);
    bytes_.clear();
    batch_.clear();
    for (size_t i; batch_.size() < budget && (i = oldest()) < queues_.size();) {
        QueuedRecord record;
        queues_[i]->peek(&record);
        try {
            bytes_.insert(bytes_.end(), record.raw, record.raw + record.raw_size);
            batch_.push_back(record);
        } catch (const std::exception &) {  // out of memory: the rest waits
            break;
        }
        queues_[i]->pop();
    }
    size_t at = 0;
    for (QueuedRecord &record : batch_) {
        record.raw = bytes_.data() + at;
        at += record.raw_size;
    }
    settle_signal();
}

Instance::Outcome Instance::hand_on(size_t at, std::vector<unsigned char> *out)
{
    const QueuedRecord &record = batch_[at];
    kp_record_cb callback;
    bool by_device, inotify;
    uint64_t group = 0;
    {
        const std::lock_guard lock(records_);
        const Probe &probe = *probes_[record.probe];
        out->resize(probe.layout.size());
        callback = probe.callback;
        by_device = probe.plan.by_device;
        inotify = probe.plan.shape == Shape::kInotify;
        if (!probe.layout.fill(record.raw, record.raw_size, out->data()))
            return Outcome::kUnreadable;
        if (probe.plan.tells_group)
            group = probe.layout.group(record.raw);
    }
    if (inotify && !groups_.has(group))
        return Outcome::kLeftOut;
    if (by_device && !mounts_.name_mount(out->data()))
        return Outcome::kUnreadable;
    if (inotify && record.pid == 0 && !ends_.passes(out->data()))
        return Outcome::kLeftOut;
    callback(record.pid, out->data(), static_cast<uint32_t>(out->size()));
    return Outcome::kDelivered;
}

int Instance::parse(size_t budget)
{
    const std::unique_lock lock(parsing_, std::try_to_lock);
    if (!lock)  // from inside a callback
        return 0;
    gather(budget);
    groups_.forget_closed();  // after the records were made: none of them can be of who got the memory afterwards
    std::vector<unsigned char> out;
    uint64_t good = 0, bad = 0;
    for (size_t i = 0; i < batch_.size(); i++) {
        Outcome outcome = Outcome::kUnreadable;
        try {
            outcome = hand_on(i, &out);
        } catch (const std::exception &) {  // out of memory: counted as unreadable
        }
        good += outcome == Outcome::kDelivered;
        bad += outcome == Outcome::kUnreadable;
    }
    const std::lock_guard records(records_);
    counts_.delivered += good;
    counts_.unreadable += bad;
    return static_cast<int>(good);
}

void Instance::clean()
{
    sweep(0);
    const std::lock_guard lock(records_);
    for (const auto &queue : queues_)
        counts_.cleaned += queue->clear();
    settle_signal();
}

bool Instance::losses(kp_losses *out)
{
    const std::lock_guard lock(control_);
    uint64_t missed = 0;
    for (const auto &probe : probes_)
        if (!probe->gone)
            missed += tracefs_.missed(probe->event);
    const std::lock_guard records(records_);
    *out = counts_;
    out->missed = missed;
    return true;
}

}  // namespace kprobe
