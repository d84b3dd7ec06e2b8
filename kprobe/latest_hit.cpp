#include "latest_hit.h"

#include <algorithm>

namespace kprobe
{

bool LatestHit::is_same(const Sample &sample) const
{
    return tid_ == sample.tid && std::equal(raw_.begin(), raw_.end(), sample.raw, sample.raw + sample.raw_size);
}

bool LatestHit::is_again(const Sample &sample)
{
    const bool recorded = std::find(streams_.begin(), streams_.end(), sample.stream) != streams_.end();
    const bool again = !streams_.empty() && !recorded && is_same(sample);
    if (!again) {
        streams_.clear();
        raw_.assign(sample.raw, sample.raw + sample.raw_size);
        tid_ = sample.tid;
    }
    streams_.push_back(sample.stream);
    return again;
}

}  // namespace kprobe
