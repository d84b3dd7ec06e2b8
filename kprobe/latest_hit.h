/*
 * latest_hit.h: the latest hit of a CPU, by which one that several events record counts once.
 */
#ifndef KPROBE_LATEST_HIT_H
#define KPROBE_LATEST_HIT_H

#include <cstdint>
#include <vector>

#include "perf.h"

namespace kprobe
{

// No lock of its own.
class LatestHit
{
public:
    // Several events of a probe record a hit one behind the other. An event that has recorded this one already records
    // the next.
    bool is_again(const Sample &sample);

private:
    bool is_same(const Sample &sample) const;

    uint32_t tid_ = 0;
    std::vector<unsigned char> raw_;
    std::vector<uint64_t> streams_;  // the events that recorded it
};

}  // namespace kprobe

#endif
