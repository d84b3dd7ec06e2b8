/*
 * counted.h: bytes that what is known of processes takes, wherever it is still held.
 */
#ifndef AGENT_COUNTED_H
#define AGENT_COUNTED_H

#include <atomic>
#include <cstddef>
#include <utility>

namespace agent
{

/* A share of the sum, given back when it ends. Any thread. */
class CountedBytes
{
public:
    explicit CountedBytes(size_t bytes = 0) : bytes_(bytes) { sum_ += bytes_; }
    ~CountedBytes() { sum_ -= bytes_; }
    CountedBytes(CountedBytes &&other) noexcept : bytes_(std::exchange(other.bytes_, 0)) {}
    CountedBytes &operator=(CountedBytes &&other) noexcept
    {
        std::swap(bytes_, other.bytes_);
        return *this;
    }

    static size_t sum() { return sum_; }

private:
    size_t bytes_;
    static inline std::atomic<size_t> sum_ = 0;
};

}  // namespace agent

#endif
