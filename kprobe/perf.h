/*
 * perf.h: a ring of kernel records a CPU, and the events that write into it.
 */
#ifndef KPROBE_PERF_H
#define KPROBE_PERF_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/fd.h"

namespace kprobe
{

using common::Fd;

// One hit as it stands in the ring; valid until the ring moves on.
struct Sample {
    uint64_t stream;  // which event wrote it
    uint32_t pid, tid;
    uint64_t time;  // CLOCK_MONOTONIC, nanoseconds
    const unsigned char *raw;
    uint32_t raw_size;
};

enum class Entry { kSample, kLost, kOther, kMalformed };

// One record of a ring, `size` bytes from its header on. kLost: `lost` records had no room before this one.
Entry parse_entry(const unsigned char *bytes, size_t size, Sample &sample, uint64_t &lost);

// What a ring is for: records, or just to wake whoever waits for the first one. To be woken by every record costs more
// than the record itself, so that wake-ups are armed only while nothing happens.
enum class Use { kRecords, kWakeUp };

// The ring of one CPU. Not movable while events write into it.
class Ring
{
public:
    Ring() = default;
    ~Ring() { close(); }
    Ring(const Ring &) = delete;
    Ring &operator=(const Ring &) = delete;

    // Tries smaller and smaller rings where locked memory is short. 0 or a negative errno.
    int open(int cpu, size_t bytes, Use use = Use::kRecords);
    void close();

    // Wake-ups only: whether its events write at all.
    void arm(bool on);

    int fd() const { return leader_.get(); }
    Use use() const { return use_; }
    int cpu() const { return cpu_; }

    // Drops every record.
    void forget();

    // Hands every record that is complete by now to sink.sample(Sample) and sink.lost(count), oldest first.
    template <typename Sink>
    void drain(Sink &&sink)
    {
        uint64_t tail = begin(), lost = 0;
        Sample sample;
        size_t size;
        while (const unsigned char *entry = next(tail, size)) {
            const Entry kind = parse_entry(entry, size, sample, lost);
            if (kind == Entry::kSample)
                sink.sample(sample);
            else if (kind == Entry::kLost)
                sink.lost(lost);
            tail += size;
            release(tail);
        }
    }

private:
    uint64_t begin();
    const unsigned char *next(uint64_t tail, size_t &size);
    void release(uint64_t tail);

    Fd leader_;
    Use use_ = Use::kRecords;
    int cpu_ = -1;
    unsigned char *map_ = nullptr;
    size_t data_size_ = 0, page_ = 0;
    uint64_t head_ = 0;
    std::vector<unsigned char> joined_;  // a record that goes over the ring's end
};

// One probe on all CPUs, writing into their rings. Switched off at first.
class EventSet
{
public:
    // 0 or a negative errno; -EINVAL of the filter alone sets `bad_filter`. CPUs that are offline are left out.
    int open(int event_id, const std::vector<Ring *> &rings, const std::string &filter, bool &bad_filter);
    // On one more CPU. -ENODEV: it is offline.
    int add(int event_id, const Ring &ring, const std::string &filter, bool &bad_filter);
    // On that CPU no more: one that goes offline takes its events with it for good.
    void drop(int cpu);
    void enable(bool on);
    void enable(bool on, int cpu);
    void close() { events_.clear(); }
    bool is_open() const { return !events_.empty(); }

private:
    struct Event {
        int cpu;
        Fd fd;
    };
    std::vector<Event> events_;
};

// The events of a probe: those that record hits, and those that only wake, see wake_ups.h.
struct ProbeEvents {
    EventSet records, wake_ups;

    void close();
    void drop(int cpu);
};

// CPUs that are online, such as "0-3,8".
std::vector<int> parse_cpus(const std::string &text);
std::vector<int> online_cpus();

}  // namespace kprobe

#endif
