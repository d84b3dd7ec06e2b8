/*
 * count.h: a count that one thread raises while another waits for it.
 */
#ifndef TESTLIB_COUNT_H
#define TESTLIB_COUNT_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace testlib
{

class Count
{
public:
    void raise(int by = 1)
    {
        const std::lock_guard guard(lock_);
        value_ += by;
        changed_.notify_all();
    }
    void reset()
    {
        const std::lock_guard guard(lock_);
        value_ = 0;
    }
    int now() const
    {
        const std::lock_guard guard(lock_);
        return value_;
    }
    /* Waits until it is that; false: it was not within ten seconds. */
    bool becomes(int wanted) const
    {
        std::unique_lock guard(lock_);
        return changed_.wait_for(guard, std::chrono::seconds(10), [&] { return value_ == wanted; });
    }

private:
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    int value_ = 0;
};

}  // namespace testlib

#endif
