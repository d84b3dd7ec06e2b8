/*
 * dump_server.h: the end of `fmon dump` that lies in a running `fmon watch`.
 *
 * A thread of its own, asleep until somebody asks, serves one asker after the other: root and the user who runs the
 * watch, nobody else. The monitor is stopped for as long as it takes to write its state into memory; the asker, who may
 * be slow, stuck or gone, never makes it wait. What the asker does not take within a time is given up.
 */
#ifndef AGENT_DUMP_SERVER_H
#define AGENT_DUMP_SERVER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "dump_place.h"
#include "dump_protocol.h"

namespace agent
{

class DumpServer
{
public:
    using Dump = int (*)(uint32_t type, void *arg);
    using Losses = std::function<std::vector<std::string>()>; /* a line each */

    /* `dump` is the monitor's, which writes to the host's log. `hold(true)` makes events wait in the monitor until
     * `hold(false)`. `hold` and `losses` are called on the server's thread. */
    DumpServer(Dump dump, std::function<void(bool)> hold, Losses losses, std::string directory = dump_directory())
        : dump_(dump), hold_(std::move(hold)), losses_(std::move(losses)), directory_(std::move(directory))
    {
    }
    ~DumpServer();
    DumpServer(const DumpServer &) = delete;
    DumpServer &operator=(const DumpServer &) = delete;

    /* False: there is no socket or thread to be had, or the user has no directory for it; then nobody can ask. */
    bool start();
    /* Ends the thread, and a hold under way: true when there was one. The socket is gone then. */
    bool stop();

    /* How many records wait in the monitor. On the server's thread, or when that has ended. */
    uint64_t waiting_records();

    static constexpr int kPatienceMs = 2000; /* for an asker that neither sends nor reads */

private:
    void run();
    void serve(int fd);
    void answer(int fd, const DumpRequest &request);
    bool receive(int fd, std::string &line);
    void send(int fd, const std::string &bytes);
    bool wait(int fd, short events, int ms);
    void let_gather(int fd, uint32_t ms);
    int collect(uint32_t type, std::string &out);

    const Dump dump_;
    const std::function<void(bool)> hold_;
    const Losses losses_;
    const std::string directory_;
    common::Fd listener_, stop_; /* stop_: an eventfd, readable when the thread is to end */
    std::atomic<bool> holding_ = false;
    std::thread thread_;
};

/* How many records the monitor keeps before it stops reading: max_events as it is for this run. */
uint64_t max_records();

}  // namespace agent

#endif
