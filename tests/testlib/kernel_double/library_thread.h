/*
 * library_thread.h: waiting for the thread of the kernel-probe library, which is known by the calls in which it rests:
 * nanosleep() between two turns, epoll_wait() when nothing is left to do. One such thread at a time.
 */
#ifndef TESTLIB_LIBRARY_THREAD_H
#define TESTLIB_LIBRARY_THREAD_H

#include <functional>

namespace testlib
{

/* Wait, ten seconds at most, until the thread ...
 * has looked at all there was when this was called, or has nothing to look at; */
bool await_turn();
/* has taken all there was, and sleeps until something rings. */
bool await_sleep();
/* rests; it stays so while `body` runs. */
bool at_rest(const std::function<void()> &body);

/* For the wrapped calls: one of a thread's rests. `epoll` is the descriptor that it waits for, -1: for a time only. */
class Rest
{
public:
    explicit Rest(int epoll);
    ~Rest();
    Rest(const Rest &) = delete;
    Rest &operator=(const Rest &) = delete;
};

}  // namespace testlib

#endif
