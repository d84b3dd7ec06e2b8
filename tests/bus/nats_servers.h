/*
 * nats_servers.h: nats-server processes with JetStream, a stream in them, and what it holds.
 */
#ifndef BUS_NATS_SERVERS_H
#define BUS_NATS_SERVERS_H

#include <nats/nats.h>

#include <string>
#include <vector>

#include "bus_testing.h"

namespace bus_testing
{

/* One server alone, or a cluster of several. */
class NatsServers
{
public:
    /* `more`: lines of configuration that all have. */
    explicit NatsServers(int count, const std::string &more = "");

    static bool can_run() { return !program().empty(); }
    int port(int index) const { return ports_[static_cast<size_t>(index)]; }
    std::vector<std::string> addresses() const;

    void start(int index);
    void kill(int index) { servers_[static_cast<size_t>(index)].kill(); }
    Server &server(int index) { return servers_[static_cast<size_t>(index)]; }
    std::string log(int index) const { return tree_.path("log" + std::to_string(index)); }

private:
    static std::string program() { return program_path("nats-server"); }
    void write_configuration(int index, const std::string &more);

    testlib::TempTree tree_;
    std::vector<int> ports_, routes_;
    std::vector<Server> servers_;
};

/* A test's own connection. */
class Stream
{
public:
    /* `user`: "NAME:PASSWORD@" or nothing. `tls`: encrypted, whoever the server may be. */
    explicit Stream(const NatsServers &servers, const std::string &user = "", bool tls = false);
    ~Stream();
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    /* A stream that takes fmon.> and knows a message again for ten minutes; waits until the servers can make one. */
    bool make(int replicas, bool in_memory = false, int longest = -1);

    uint64_t messages(); /* stored; 0 also while nobody answers */
    /* The ids of all that is stored, in order. */
    std::vector<std::string> ids(uint64_t count);
    std::string first_subject() const { return subject_; }
    std::string first_host() const { return host_; }

private:
    natsConnection *connection_ = nullptr;
    jsCtx *js_ = nullptr;
    std::string subject_, host_;
};

}  // namespace bus_testing

#endif
