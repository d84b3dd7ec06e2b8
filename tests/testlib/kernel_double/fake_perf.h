/*
 * fake_perf.h: perf events and their rings, without a kernel behind them.
 *
 * A descriptor is an eventfd, so that it can be waited on. Memory that is mapped of it is anonymous, and records are
 * written there as a kernel does: what has no room is counted and reported by the next record that has.
 */
#ifndef TESTLIB_FAKE_PERF_H
#define TESTLIB_FAKE_PERF_H

#include <linux/perf_event.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace testlib
{

struct FakeEvent {
    perf_event_attr attr = {};
    int cpu = -1, group = -1, output = -1;
    bool enabled = false, dead = false;
    std::string filter;
    unsigned char *map = nullptr;
    size_t map_size = 0;
    uint64_t lost = 0, stream = 0;
};

class FakePerf
{
public:
    /* The calls; negative errno. */
    int open(const perf_event_attr &attr, int cpu, int group);
    int control(int fd, unsigned long request, const void *argument);
    bool has(int fd);
    void mapped(int fd, void *map, size_t size);
    void closed(int fd);

    /* One hit of tracepoint `id` on a CPU: to each enabled event. Returns how many records were written or lost. */
    int hit(int id, int cpu, uint32_t pid, uint32_t tid, uint64_t time, const std::vector<unsigned char> &raw);

    /* Hits that have begun by now: events that come later do not see them. */
    void begin_hits();
    void end_hits();

    /* A CPU takes its events with it for good. */
    void go_offline(int cpu);
    void come_online(int cpu);

    size_t open_events();
    std::vector<size_t> ring_sizes(); /* of memory for records, without that of wake-ups; the smallest first */
    unsigned char *map_of(int fd);
    size_t map_size_of(int fd);
    std::vector<std::string> filters(int id); /* of the events of one tracepoint that write records */
    bool enabled(int id);                     /* whether any of them is */

private:
    static bool is_wake_up(const FakeEvent &event) { return event.attr.wakeup_events != 0; }
    void write_sample(FakeEvent *ring, const FakeEvent &event, uint32_t pid, uint32_t tid, uint64_t time,
                      const std::vector<unsigned char> &raw);

    std::mutex lock_;
    std::map<int, FakeEvent> events_;
    std::set<int> offline_;
    uint64_t streams_ = 100, unseen_ = UINT64_MAX; /* from this stream on, no event sees a hit */
};

/* One record as it stands in a ring. */
std::vector<unsigned char> sample_entry(uint64_t stream, uint32_t pid, uint32_t tid, uint64_t time,
                                        const std::vector<unsigned char> &raw);
std::vector<unsigned char> lost_entry(uint64_t count);

/* Puts an entry behind the others of a mapped ring. False: no room. */
bool put_entry(unsigned char *map, size_t map_size, const std::vector<unsigned char> &entry);

}  // namespace testlib

#endif
