#include "perf.h"

#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "tracefs.h"

namespace kprobe
{

namespace
{

constexpr size_t kSmallestRing = 4096;
constexpr uint64_t kSampleType = PERF_SAMPLE_IDENTIFIER | PERF_SAMPLE_TID | PERF_SAMPLE_TIME | PERF_SAMPLE_RAW;

// What kSampleType puts behind the header.
struct sample_head {
    perf_event_header header;
    uint64_t stream;
    uint32_t pid, tid;
    uint64_t time;
    uint32_t raw_size;
};
constexpr size_t kRawOffset = 36;
static_assert(offsetof(sample_head, raw_size) + 4 == kRawOffset);

struct lost_entry {
    perf_event_header header;
    uint64_t id, lost;
};

perf_event_attr attributes(uint32_t type, uint64_t config, Use use)
{
    perf_event_attr attr = {};
    attr.size = sizeof(attr);
    attr.type = type;
    attr.config = config;
    attr.sample_type = use == Use::kRecords ? kSampleType : 0;
    attr.sample_period = 1;
    attr.wakeup_events = use == Use::kWakeUp;  // otherwise a wake-up comes when the ring is half full
    attr.disabled = 1;
    attr.use_clockid = 1;
    attr.clockid = CLOCK_MONOTONIC;
    return attr;
}

int open_event(perf_event_attr attr, int cpu, int group)
{
    return static_cast<int>(syscall(SYS_perf_event_open, &attr, -1, cpu, group, PERF_FLAG_FD_CLOEXEC));
}

perf_event_mmap_page *control(unsigned char *map) { return reinterpret_cast<perf_event_mmap_page *>(map); }

}  // namespace

Entry parse_entry(const unsigned char *bytes, size_t size, Sample &sample, uint64_t &lost)
{
    perf_event_header header;
    if (size < sizeof(header))
        return Entry::kMalformed;
    memcpy(&header, bytes, sizeof(header));
    if (header.type == PERF_RECORD_LOST && size >= sizeof(lost_entry)) {
        memcpy(&lost, bytes + offsetof(lost_entry, lost), sizeof(lost));
        return Entry::kLost;
    }
    if (header.type != PERF_RECORD_SAMPLE)
        return Entry::kOther;
    sample_head head;
    if (size < kRawOffset)
        return Entry::kMalformed;
    memcpy(&head, bytes, kRawOffset);
    if (head.raw_size > size - kRawOffset)
        return Entry::kMalformed;
    sample = {head.stream, head.pid, head.tid, head.time, bytes + kRawOffset, head.raw_size};
    return Entry::kSample;
}

// ---- a ring ----

int Ring::open(int cpu, size_t bytes, Use use)
{
    close();
    use_ = use;
    leader_.reset(open_event(attributes(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_DUMMY, use), cpu, -1));
    if (!leader_)
        return -errno;
    cpu_ = cpu;
    page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (data_size_ = bytes; data_size_ >= kSmallestRing; data_size_ /= 2) {
        void *map = mmap(nullptr, page_ + data_size_, PROT_READ | PROT_WRITE, MAP_SHARED, leader_.get(), 0);
        if (map != MAP_FAILED) {
            map_ = static_cast<unsigned char *>(map);
            return 0;
        }
    }
    const int error = errno;
    leader_.reset();
    return -error;
}

void Ring::close()
{
    if (map_)
        munmap(map_, page_ + data_size_);
    map_ = nullptr;
    leader_.reset();
}

// The events of a wake-up ring are its group, which runs only while its first event does.
void Ring::arm(bool on) { ioctl(leader_.get(), on ? PERF_EVENT_IOC_ENABLE : PERF_EVENT_IOC_DISABLE, 0); }

uint64_t Ring::begin()
{
    if (!map_)
        return head_ = 0;
    // data_head is 64 bits wide in every build; on 32 bits a torn read could only be seen once in 4 GiB of records, and
    // then it is behind the true head's upper half, which the next look sets right.
    head_ = __atomic_load_n(&control(map_)->data_head, __ATOMIC_ACQUIRE);
    return control(map_)->data_tail;
}

const unsigned char *Ring::next(uint64_t tail, size_t &size)
{
    if (head_ - tail < sizeof(perf_event_header) || head_ - tail > data_size_)
        return nullptr;
    const unsigned char *data = map_ + page_;
    const size_t at = tail & (data_size_ - 1);
    perf_event_header header;  // never split: records begin at multiples of eight bytes
    memcpy(&header, data + at, sizeof(header));
    size = header.size;
    if (size < sizeof(header) || size % sizeof(header) != 0 || size > head_ - tail)
        return nullptr;
    if (at + size <= data_size_)
        return data + at;
    const size_t first = data_size_ - at;
    joined_.resize(size);
    memcpy(joined_.data(), data + at, first);
    memcpy(joined_.data() + first, data, size - first);
    return joined_.data();
}

void Ring::release(uint64_t tail) { __atomic_store_n(&control(map_)->data_tail, tail, __ATOMIC_RELEASE); }

void Ring::forget()
{
    begin();
    if (map_)
        release(head_);
}

// ---- a probe's events ----

int EventSet::add(int event_id, const Ring &ring, const std::string &filter, bool &bad_filter)
{
    bad_filter = false;
    Fd fd(open_event(attributes(PERF_TYPE_TRACEPOINT, static_cast<uint64_t>(event_id), ring.use()), ring.cpu(),
                     ring.use() == Use::kWakeUp ? ring.fd() : -1));
    if (!fd)
        return -errno;
    // The filter first: nothing may be written before it holds.
    const bool refused = !filter.empty() && ioctl(fd.get(), PERF_EVENT_IOC_SET_FILTER, filter.c_str()) < 0;
    if (refused || ioctl(fd.get(), PERF_EVENT_IOC_SET_OUTPUT, ring.fd()) < 0) {
        bad_filter = refused;
        return -errno;
    }
    events_.push_back({ring.cpu(), std::move(fd)});
    return 0;
}

int EventSet::open(int event_id, const std::vector<Ring *> &rings, const std::string &filter, bool &bad_filter)
{
    close();
    bad_filter = false;
    for (const Ring *ring : rings) {
        const int status = add(event_id, *ring, filter, bad_filter);
        if (status == 0 || status == -ENODEV)
            continue;
        close();
        return status;
    }
    return 0;
}

void EventSet::drop(int cpu)
{
    std::erase_if(events_, [cpu](const Event &event) { return event.cpu == cpu; });
}

void EventSet::enable(bool on)
{
    for (const Event &event : events_)
        ioctl(event.fd.get(), on ? PERF_EVENT_IOC_ENABLE : PERF_EVENT_IOC_DISABLE, 0);
}

void EventSet::enable(bool on, int cpu)
{
    for (const Event &event : events_)
        if (event.cpu == cpu)
            ioctl(event.fd.get(), on ? PERF_EVENT_IOC_ENABLE : PERF_EVENT_IOC_DISABLE, 0);
}

void ProbeEvents::close()
{
    records.close();
    wake_ups.close();
}

void ProbeEvents::drop(int cpu)
{
    records.drop(cpu);
    wake_ups.drop(cpu);
}

// ---- CPUs ----

std::vector<int> parse_cpus(const std::string &text)
{
    constexpr long kMaxCpus = 65536;  // more than any kernel has
    std::vector<int> cpus;
    const char *at = text.c_str();
    while (*at >= '0' && *at <= '9') {
        char *end;
        const long first = strtol(at, &end, 10), last = *end == '-' ? strtol(end + 1, &end, 10) : first;
        for (long cpu = first; cpu <= last && cpu < kMaxCpus; cpu++)
            cpus.push_back(static_cast<int>(cpu));
        at = *end == ',' ? end + 1 : end;
    }
    return cpus;
}

std::vector<int> online_cpus() { return parse_cpus(read_file("/sys/devices/system/cpu/online")); }

}  // namespace kprobe
