#include "testlib/kernel_double/library_thread.h"

#include <poll.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace testlib
{

namespace
{

std::mutex lock;
std::condition_variable changed;
unsigned long rests; /* since the start of the process */
bool resting;
int waits_for = -1;

bool is_asleep()
{
    pollfd polled = {waits_for, POLLIN, 0};
    return resting && waits_for >= 0 && poll(&polled, 1, 0) == 0;
}

template <typename Condition>
bool await(std::unique_lock<std::mutex> &held, const Condition &condition)
{
    return changed.wait_for(held, std::chrono::seconds(10), condition);
}

}  // namespace

bool await_turn()
{
    std::unique_lock held(lock);
    const unsigned long before = rests; /* the turn under way may have looked already; the next one has not */
    return await(held, [&] { return rests >= before + 2 || is_asleep(); });
}

bool await_sleep()
{
    std::unique_lock held(lock);
    return await(held, is_asleep);
}

bool at_rest(const std::function<void()> &body)
{
    std::unique_lock held(lock);
    if (!await(held, [] { return resting; }))
        return false;
    body();
    return true;
}

Rest::Rest(int epoll)
{
    const std::lock_guard held(lock);
    rests++;
    resting = true;
    waits_for = epoll;
    changed.notify_all();
}

Rest::~Rest()
{
    const std::lock_guard held(lock);
    resting = false;
}

}  // namespace testlib
