#include "experiment.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "facts.h"
#include "log.h"
#include "perf.h"
#include "plan.h"
#include "tracefs.h"

namespace kprobe
{

namespace
{

constexpr size_t kRing = 65536;

struct Hits {
    std::vector<std::pair<uint64_t, std::vector<unsigned char>>> raw;  // with their time
    void sample(const Sample &sample) { raw.push_back({sample.time, {sample.raw, sample.raw + sample.raw_size}}); }
    void lost(uint64_t) {}
};

uint64_t value_at(const std::vector<unsigned char> &raw, const RawField &field)
{
    uint64_t value = 0;
    if (field.offset + field.size <= raw.size() && field.size <= sizeof(value))
        memcpy(&value, raw.data() + field.offset, field.size);
    return value;
}

// Reads a probe while this thread does something. False: it cannot be read.
bool observe(int event_id, const std::function<void()> &act, Hits &hits)
{
    const std::vector<int> cpus = online_cpus();
    std::vector<Ring> rings(cpus.size());
    std::vector<Ring *> list;
    EventSet events;
    bool bad_filter;
    for (size_t i = 0; i < rings.size(); i++) {
        if (rings[i].open(cpus[i], kRing) < 0)
            return false;
        list.push_back(&rings[i]);
    }
    if (events.open(event_id, list, "common_pid==" + std::to_string(gettid()), bad_filter) < 0)
        return false;
    events.enable(true);
    act();
    events.enable(false);
    for (Ring &ring : rings)
        ring.drain(hits);
    std::sort(hits.raw.begin(), hits.raw.end());
    return true;
}

}  // namespace

std::vector<Values> experiment(const Tracefs &tracefs, const char *point, const Fetches &fetches,
                               const std::function<void()> &act, uint64_t *missed)
{
    static unsigned serial;
    const std::string group = group_name(current_owner(), serial++, "calibrate");
    Plan plan;
    plan.point = point;
    for (size_t i = 0; i < fetches.size(); i++)
        plan.args.push_back({"v" + std::to_string(i), fetches[i].place, fetches[i].type});
    std::string why;
    if (tracefs.define(plan.command(group, "one"), why) < 0) {
        KP_LOG(2, "calibration at %s refused: %s", point, why.c_str());
        return {};
    }
    const std::vector<RawField> fields = tracefs.format(group, "one");
    Hits hits;
    std::vector<Values> found;
    if (fields.size() == fetches.size() && observe(tracefs.event_id(group, "one"), act, hits))
        for (const auto &[time, raw] : hits.raw) {
            found.emplace_back();
            for (const RawField &field : fields)
                found.back().push_back(value_at(raw, field));
        }
    if (missed)
        *missed = tracefs.missed("one");
    tracefs.remove(group, "one");
    return found;
}

bool is_pointer(uint64_t value, const Facts &facts)
{
    return facts.is_64 ? value >= 0xffff000000000000 : value >= 0xc0000000;
}

}  // namespace kprobe
