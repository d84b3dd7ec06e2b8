/*
 * proxy.h: a connection to a server that a test can cut: broken at once, or as if a cable were pulled.
 */
#ifndef BUS_PROXY_H
#define BUS_PROXY_H

#include <atomic>
#include <list>
#include <thread>

#include "common/fd.h"

namespace bus_testing
{

class Proxy
{
public:
    /* Listens on this machine and hands on to its port `to`. */
    explicit Proxy(int to);
    ~Proxy();
    int port() const { return port_; }

    enum class State {
        kOpen,
        kSilent,  /* nothing is handed on, and nobody is told */
        kRefused, /* connections are closed, and new ones, too */
    };
    void set(State state) { state_ = state; }

private:
    struct Pair {
        common::Fd client, server;
        bool ended = false;
    };
    void run();
    void accept_one();
    static void hand_on(int from, int to, bool &ended);

    const int to_;
    int port_ = 0;
    common::Fd listener_;
    std::atomic<State> state_ = State::kOpen;
    std::atomic<bool> ending_ = false;
    std::list<Pair> pairs_;
    std::thread thread_;
};

}  // namespace bus_testing

#endif
