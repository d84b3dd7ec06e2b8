#include "pacing.h"

#include <algorithm>
#include <utility>

namespace output
{

namespace
{

std::string_view directory_of(std::string_view path)
{
    const size_t slash = path.rfind('/');
    return path.substr(0, slash == 0 ? 1 : slash);
}

// A path holds no NUL.
std::string key_of(const agent::Event &event)
{
    std::string key(directory_of(event.path));
    key.push_back('\0');
    key += std::to_string(event.mask);
    key.push_back('\0');
    if (event.process)
        key += event.process->name;
    return key;
}

}  // namespace

// What is left out by one rule is not offered to the next.
Pacing::Verdict Pacing::judge(const agent::Event &event, uint64_t now)
{
    if (options_.sample > 1 && seen_++ % options_.sample != 0)
        return Verdict::kSampled;
    if (options_.burst_ms != 0 && sums_up(event, now))
        return Verdict::kSummarised;
    if (options_.rate_limit == 0 || has_room(now))
        return Verdict::kShown;
    if (limited_++ == 0)
        limited_since_ = now;
    return Verdict::kLimited;
}

bool Pacing::sums_up(const agent::Event &event, uint64_t now)
{
    const std::string key = key_of(event);
    const auto found = counts_.find(key);
    if (found != counts_.end() && now < found->second.start + options_.burst_ms) {
        found->second.burst.count++;
        return true;
    }
    if (found == counts_.end() && counts_.size() < kMostBursts) {
        const std::string process = event.process ? event.process->name : std::string();
        counts_[key] = {{std::string(directory_of(event.path)), process, event.mask, 0, options_.burst_ms}, now};
    }
    return false;
}

bool Pacing::has_room(uint64_t now)
{
    if (now >= second_ + kSecondMs) {
        second_ = now;
        shown_ = 0;
    }
    return shown_++ < options_.rate_limit;
}

std::vector<Burst> Pacing::take_bursts(uint64_t now, bool end)
{
    std::vector<Burst> over;
    std::erase_if(counts_, [&](const auto &each) {
        const Count &count = each.second;
        if (!end && now < count.start + options_.burst_ms)
            return false;
        if (count.burst.count) {
            over.push_back(count.burst);
            over.back().ms = std::min(now - count.start, options_.burst_ms);
        }
        return true;
    });
    return over;
}

uint64_t Pacing::take_limited(uint64_t now, bool end)
{
    return limited_ && (end || now >= limited_since_ + kSecondMs) ? std::exchange(limited_, 0) : 0;
}

uint64_t Pacing::next() const
{
    uint64_t next = limited_ ? limited_since_ + kSecondMs : UINT64_MAX;
    for (const auto &[key, count] : counts_)
        next = std::min(next, count.start + options_.burst_ms);
    return next;
}

}  // namespace output
