/*
 * pending.h: messages without an outcome, by number, and since when they wait for it.
 */
#ifndef BUS_NATS_PENDING_H
#define BUS_NATS_PENDING_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>
#include <utility>
#include <vector>

namespace bus
{

class Pending
{
public:
    void add(uint64_t number, uint64_t now)
    {
        since_[number] = now;
        order_.emplace_back(number, now);
    }
    /* False: it does not wait. */
    bool remove(uint64_t number) { return since_.erase(number) > 0; }
    size_t size() const { return since_.size(); }

    /* Takes those out that wait from a time up to `until` on. */
    std::vector<uint64_t> take(uint64_t until)
    {
        std::vector<uint64_t> numbers;
        for (; !order_.empty() && order_.front().second <= until; order_.pop_front()) {
            const auto found = since_.find(order_.front().first);
            if (found == since_.end() || found->second != order_.front().second)
                continue;
            numbers.push_back(found->first);
            since_.erase(found);
        }
        return numbers;
    }

private:
    std::unordered_map<uint64_t, uint64_t> since_;
    std::deque<std::pair<uint64_t, uint64_t>> order_; /* as they were added; some are answered */
};

}  // namespace bus

#endif
