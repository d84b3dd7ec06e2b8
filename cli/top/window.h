/*
 * window.h: how many events there were lately: in this second and the four before.
 *
 * Times are milliseconds of a clock that does not run backwards, and always the caller's.
 */
#ifndef CLI_TOP_WINDOW_H
#define CLI_TOP_WINDOW_H

#include <algorithm>
#include <cstdint>

namespace cli
{

class Window
{
public:
    static constexpr uint64_t kSeconds = 5;

    void add(uint64_t now_ms, uint32_t events)
    {
        advance(now_ms / 1000);
        slots_[second_ % kSeconds] += events;
    }

    /* What the other saw, seconds by seconds. */
    void add(const Window &other)
    {
        advance(other.second_);
        for (uint64_t age = 0; age < kSeconds; age++)
            if (other.second_ >= age && other.second_ - age + kSeconds > second_)
                slots_[(other.second_ - age) % kSeconds] += other.slots_[(other.second_ - age) % kSeconds];
    }

    uint64_t sum(uint64_t now_ms) const
    {
        uint64_t events = 0;
        for (uint64_t age = 0; age < kSeconds && age <= second_; age++)
            if (second_ - age + kSeconds > now_ms / 1000)
                events += slots_[(second_ - age) % kSeconds];
        return events;
    }

    /* How much time the sum is about, when counting began at 0; a second at least. */
    static uint64_t span_ms(uint64_t now_ms)
    {
        return std::max<uint64_t>(1000, std::min(now_ms, (kSeconds - 1) * 1000 + now_ms % 1000));
    }

private:
    void advance(uint64_t second)
    {
        for (uint64_t next = second_ + 1; next <= second && next <= second_ + kSeconds; next++)
            slots_[next % kSeconds] = 0;
        second_ = std::max(second_, second);
    }

    uint64_t second_ = 0; /* the latest */
    uint32_t slots_[kSeconds] = {};
};

}  // namespace cli

#endif
