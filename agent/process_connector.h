/*
 * process_connector.h: the kernel's process events: a netlink socket, by which every process that is made, executes a
 * program, changes or ends is reported as it happens. Root's, in the machine's own namespaces of processes and network.
 */
#ifndef AGENT_PROCESS_CONNECTOR_H
#define AGENT_PROCESS_CONNECTOR_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "common/fd.h"
#include "process_event.h"

namespace agent
{

/* The system calls, so that tests can answer in their place. */
struct ConnectorCalls {
    int (*socket)(int domain, int type, int protocol);
    int (*setsockopt)(int fd, int level, int name, const void *value, socklen_t size);
    int (*bind)(int fd, const struct sockaddr *address, socklen_t size);
    ssize_t (*send)(int fd, const void *data, size_t size, int flags);
    int (*recvmmsg)(int fd, struct mmsghdr *messages, unsigned count, int flags, struct timespec *timeout);
};
extern const ConnectorCalls kConnectorCalls;

class ProcessConnector
{
public:
    explicit ProcessConnector(const ConnectorCalls &calls = kConnectorCalls) : calls_(calls) {}
    ~ProcessConnector() { close(); }
    ProcessConnector(const ProcessConnector &) = delete;
    ProcessConnector &operator=(const ProcessConnector &) = delete;

    /* False, with the reason in `error`: the kernel reports no processes to this one. */
    bool open(std::string &error);
    void close();
    int fd() const { return fd_.get(); } /* -1: not open; to be waited for, and read by receive() */

    enum class Result { kAll, kMore, kLoss, kEnd };
    /* What waits, at most kMost messages, without waiting for more. kMore: that many, and there may be more. kLoss: the
     * kernel's queue was full before what it holds now, and an unknown number of events is missing. kEnd: nothing more
     * comes, which the kernel has no reason for. */
    Result receive(const std::function<void(const ProcessEvent &)> &take);

    static constexpr unsigned kMost = 64;
    static constexpr int kQueueBytes = 16 << 20; /* the kernel doubles it: some 40,000 events */

private:
    bool fail(std::string &error, std::string text, int code);
    bool ask(uint32_t operation);
    int answer();

    const ConnectorCalls calls_;
    common::Fd fd_;
};

}  // namespace agent

#endif
