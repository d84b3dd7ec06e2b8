#include "testlib/kernel_double/fake_perf.h"

#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

/* The test's faults are for the library's own calls. */
extern "C" int __real_eventfd(unsigned value, int flags);

namespace testlib
{

namespace
{

void append(std::vector<unsigned char> *out, const void *bytes, size_t size)
{
    const auto *from = static_cast<const unsigned char *>(bytes);
    out->insert(out->end(), from, from + size);
}

}  // namespace

std::vector<unsigned char> sample_entry(uint64_t stream, uint32_t pid, uint32_t tid, uint64_t time,
                                        const std::vector<unsigned char> &raw)
{
    std::vector<unsigned char> out(sizeof(perf_event_header));
    append(&out, &stream, 8);
    append(&out, &pid, 4);
    append(&out, &tid, 4);
    append(&out, &time, 8);
    const size_t room = (raw.size() + 4 + 7) / 8 * 8 - 4; /* entries are multiples of eight bytes */
    const auto raw_size = static_cast<uint32_t>(room);
    append(&out, &raw_size, 4);
    append(&out, raw.data(), raw.size());
    out.resize(out.size() + room - raw.size());
    const perf_event_header header = {PERF_RECORD_SAMPLE, 0, static_cast<uint16_t>(out.size())};
    memcpy(out.data(), &header, sizeof(header));
    return out;
}

std::vector<unsigned char> lost_entry(uint64_t count)
{
    std::vector<unsigned char> out;
    const perf_event_header header = {PERF_RECORD_LOST, 0, 24};
    const uint64_t id = 0;
    append(&out, &header, sizeof(header));
    append(&out, &id, 8);
    append(&out, &count, 8);
    return out;
}

bool put_entry(unsigned char *map, size_t map_size, const std::vector<unsigned char> &entry)
{
    auto *control = reinterpret_cast<perf_event_mmap_page *>(map);
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t size = map_size - page;
    const uint64_t head = control->data_head, tail = __atomic_load_n(&control->data_tail, __ATOMIC_ACQUIRE);
    if (head - tail + entry.size() > size)
        return false;
    for (size_t i = 0; i < entry.size(); i++)
        map[page + (head + i) % size] = entry[i];
    __atomic_store_n(&control->data_head, head + entry.size(), __ATOMIC_RELEASE);
    return true;
}

int FakePerf::open(const perf_event_attr &attr, int cpu, int group)
{
    const std::lock_guard lock(lock_);
    if (offline_.count(cpu) != 0)
        return -ENODEV;
    const int fd = __real_eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0)
        return -errno;
    FakeEvent event;
    event.attr = attr;
    event.cpu = cpu;
    event.group = group;
    event.stream = streams_++;
    events_[fd] = event;
    return fd;
}

int FakePerf::control(int fd, unsigned long request, const void *argument)
{
    const std::lock_guard lock(lock_);
    const auto found = events_.find(fd);
    if (found == events_.end())
        return -EBADF;
    FakeEvent &event = found->second;
    switch (request) {
        case PERF_EVENT_IOC_ENABLE:
            event.enabled = !event.dead;
            return 0;
        case PERF_EVENT_IOC_DISABLE: {
            eventfd_t value;
            event.enabled = false;
            eventfd_read(fd, &value); /* what rang has been heard */
            return 0;
        }
        case PERF_EVENT_IOC_SET_FILTER:
            if (!event.filter.empty())
                return -EEXIST;
            event.filter = static_cast<const char *>(argument);
            return event.filter.find("nofield") == std::string::npos ? 0 : -EINVAL;
        case PERF_EVENT_IOC_SET_OUTPUT:
            event.output = static_cast<int>(reinterpret_cast<intptr_t>(argument));
            return events_.count(event.output) ? 0 : -EINVAL;
        default:
            return -ENOTTY;
    }
}

void FakePerf::go_offline(int cpu)
{
    const std::lock_guard lock(lock_);
    offline_.insert(cpu);
    for (auto &[fd, event] : events_)
        if (event.cpu == cpu) {
            event.enabled = false;
            event.dead = true;
        }
}

void FakePerf::come_online(int cpu)
{
    const std::lock_guard lock(lock_);
    offline_.erase(cpu);
}

bool FakePerf::has(int fd)
{
    const std::lock_guard lock(lock_);
    return events_.count(fd) != 0;
}

void FakePerf::mapped(int fd, void *map, size_t size)
{
    const std::lock_guard lock(lock_);
    events_[fd].map = static_cast<unsigned char *>(map);
    events_[fd].map_size = size;
}

void FakePerf::closed(int fd)
{
    const std::lock_guard lock(lock_);
    events_.erase(fd);
}

void FakePerf::write_sample(FakeEvent *ring, const FakeEvent &event, uint32_t pid, uint32_t tid, uint64_t time,
                            const std::vector<unsigned char> &raw)
{
    std::vector<unsigned char> entry = sample_entry(event.stream, pid, tid, time, raw);
    if (ring->lost != 0) { /* there must be room for both */
        const std::vector<unsigned char> lost = lost_entry(ring->lost);
        entry.insert(entry.begin(), lost.begin(), lost.end());
    }
    ring->lost = put_entry(ring->map, ring->map_size, entry) ? 0 : ring->lost + 1;
}

int FakePerf::hit(int id, int cpu, uint32_t pid, uint32_t tid, uint64_t time, const std::vector<unsigned char> &raw)
{
    const std::lock_guard lock(lock_);
    int records = 0;
    for (auto &[fd, event] : events_) {
        if (event.attr.type != PERF_TYPE_TRACEPOINT || event.attr.config != static_cast<uint64_t>(id) ||
            event.cpu != cpu || !event.enabled || event.stream >= unseen_)
            continue;
        const auto ring = events_.find(event.output);
        if (ring == events_.end() || !ring->second.map)
            continue;
        if (!is_wake_up(event)) {
            write_sample(&ring->second, event, pid, tid, time, raw);
            records++;
        } else if (events_.count(event.group) && events_[event.group].enabled) {
            eventfd_write(event.group, 1);
        }
    }
    return records;
}

void FakePerf::begin_hits()
{
    const std::lock_guard lock(lock_);
    unseen_ = streams_;
}

void FakePerf::end_hits()
{
    const std::lock_guard lock(lock_);
    unseen_ = UINT64_MAX;
}

unsigned char *FakePerf::map_of(int fd)
{
    const std::lock_guard lock(lock_);
    return events_[fd].map;
}

size_t FakePerf::map_size_of(int fd)
{
    const std::lock_guard lock(lock_);
    return events_[fd].map_size;
}

std::vector<size_t> FakePerf::ring_sizes()
{
    const std::lock_guard lock(lock_);
    std::vector<size_t> sizes;
    for (const auto &[fd, event] : events_)
        if (event.map && !is_wake_up(event))
            sizes.push_back(event.map_size - static_cast<size_t>(sysconf(_SC_PAGESIZE)));
    std::sort(sizes.begin(), sizes.end());
    return sizes;
}

size_t FakePerf::open_events()
{
    const std::lock_guard lock(lock_);
    return events_.size();
}

std::vector<std::string> FakePerf::filters(int id)
{
    const std::lock_guard lock(lock_);
    std::vector<std::string> out;
    for (const auto &[fd, event] : events_)
        if (event.attr.type == PERF_TYPE_TRACEPOINT && event.attr.config == static_cast<uint64_t>(id) &&
            !is_wake_up(event))
            out.push_back(event.filter);
    return out;
}

bool FakePerf::enabled(int id)
{
    const std::lock_guard lock(lock_);
    for (const auto &[fd, event] : events_)
        if (event.attr.type == PERF_TYPE_TRACEPOINT && event.attr.config == static_cast<uint64_t>(id) && event.enabled)
            return true;
    return false;
}

}  // namespace testlib
