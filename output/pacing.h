/*
 * pacing.h: what an instance does when there is more than anybody reads: it samples, or sums up, or keeps to a rate.
 */
#ifndef OUTPUT_PACING_H
#define OUTPUT_PACING_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "agent/queue.h"

namespace output
{

struct PacingOptions {
    uint64_t rate_limit = 0; /* events a second that are shown; 0: all */
    uint64_t sample = 1;     /* one of so many events is shown */
    uint64_t burst_ms = 0;   /* after an event, those like it are counted for so long; 0: all are shown */

    bool operator==(const PacingOptions &) const = default;
};

/* Events like one that was shown: of the same kinds, in the same directory, by a process of the same name. */
struct Burst {
    std::string directory, process; /* process: may be empty */
    uint32_t mask = 0;
    uint64_t count = 0; /* beside the one that was shown */
    uint64_t ms = 0;    /* for how long they were counted */
};

/* One thread's at a time. `now` is a clock's that does not run backwards, in milliseconds. */
class Pacing
{
public:
    enum class Verdict { kShown, kSampled, kSummarised, kLimited };

    explicit Pacing(const PacingOptions &options) : options_(options) {}

    Verdict judge(const agent::Event &event, uint64_t now);

    /* The bursts whose time is over, or, at the `end`, all. */
    std::vector<Burst> take_bursts(uint64_t now, bool end = false);
    /* What the rate took, once a second has passed since it last said so. */
    uint64_t take_limited(uint64_t now, bool end = false);

    /* When there will be something to take; UINT64_MAX: nothing is counted. */
    uint64_t next() const;

    static constexpr size_t kMostBursts = 4096; /* beyond which events are shown one by one */
    static constexpr uint64_t kSecondMs = 1000;

private:
    struct Count {
        Burst burst;
        uint64_t start = 0;
    };
    bool sums_up(const agent::Event &event, uint64_t now);
    bool has_room(uint64_t now);

    PacingOptions options_;
    uint64_t seen_ = 0;                                /* events, for sampling */
    uint64_t second_ = 0, shown_ = 0;                  /* events that were shown in the second that began then */
    uint64_t limited_ = 0, limited_since_ = 0;         /* not reported yet */
    std::map<std::string, Count, std::less<>> counts_; /* by kinds, directory and process */
};

}  // namespace output

#endif
