/*
 * notify.h: what a service tells the manager that started it: datagrams to the socket that $NOTIFY_SOCKET names.
 */
#ifndef AGENT_NOTIFY_H
#define AGENT_NOTIFY_H

#include <cstdint>
#include <string>

#include "common/fd.h"

namespace agent
{

/* One thread's. Without a manager everything is accepted and nothing done. */
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
    /* The start, or the end, may take so much longer from now. */
    void extend(uint64_t ms) { send("EXTEND_TIMEOUT_USEC=" + std::to_string(ms * 1000)); }

    uint64_t watchdog_ms() const { return watchdog_ms_; } /* within which watchdog() is awaited; 0: not at all */

private:
    void send(const std::string &text);

    std::string address_; /* empty: there is no manager */
    common::Fd socket_;
    uint64_t watchdog_ms_ = 0;
    std::string told_; /* the last status */
};

}  // namespace agent

#endif
