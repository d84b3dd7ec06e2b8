/*
 * notify.h: what a service tells the manager that started it: datagrams to the socket that $NOTIFY_SOCKET names.
 */
#ifndef AGENT_NOTIFY_H
#define AGENT_NOTIFY_H

#include <cstdint>
#include <deque>
#include <string>

#include "common/fd.h"

namespace agent
{

/* One thread's. Without a manager everything is accepted and nothing done. What the manager cannot take at once (a
 * socket holds ten messages) is kept, in order. */
class Notify
{
public:
    /* Reads $NOTIFY_SOCKET (a path, or with "@" in front an abstract name), $WATCHDOG_USEC and $WATCHDOG_PID, and takes
     * them out of the environment, so that no child believes that it is the service. */
    Notify();

    void ready() { send("READY=1"); }
    void status(const std::string &status); /* nothing is sent where it is the same as before */
    void reloading();
    void stopping() { send("STOPPING=1"); }
    void watchdog() { send("WATCHDOG=1"); }
    /* The start, or the end, may take so much longer from now. Nothing is sent where the last time granted nearly as
     * much. */
    void extend(uint64_t ms);
    /* Sends what the manager could not take before: to be called now and then. */
    void retry();

    uint64_t watchdog_ms() const { return watchdog_ms_; } /* within which watchdog() is awaited; 0: not at all */

private:
    static constexpr size_t kMostWaiting = 32;

    void send(const std::string &text);
    bool try_to_send(const std::string &text) const;

    std::string address_; /* empty: there is no manager */
    common::Fd socket_;
    uint64_t watchdog_ms_ = 0;
    std::string told_;                /* the last status */
    uint64_t extended_until_ = 0;     /* by steady_ms() */
    std::deque<std::string> waiting_; /* messages; the oldest go where there are too many */
};

}  // namespace agent

#endif
