/*
 * kafka_gate.h: TLS and SASL before a broker that has neither: what an encrypted connection brings is handed on,
 * request by request, once the client has logged in where that is asked for.
 */
#ifndef BUS_KAFKA_GATE_H
#define BUS_KAFKA_GATE_H

#include <openssl/ssl.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "common/fd.h"
#include "common/mutex.h"

namespace bus_testing
{

class KafkaGate
{
public:
    struct Plan {
        std::string certificate, key; /* files */
        std::string mechanism;        /* of SASL; empty: who connects need not log in */
        std::string login;            /* what PLAIN must bring: "\0USER\0PASSWORD" */
    };
    /* Listens on this machine before its port `to`. */
    KafkaGate(int to, const Plan &plan);
    ~KafkaGate();
    KafkaGate(const KafkaGate &) = delete;
    KafkaGate &operator=(const KafkaGate &) = delete;

    std::string address(const std::string &host) const { return host + ":" + std::to_string(port_); }
    std::string asked_for() const EXCLUDES(lock_); /* the mechanism that a client named last */

private:
    struct FreeTls {
        void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
        void operator()(SSL *session) const { SSL_free(session); }
    };
    struct Connection {
        common::Fd client;
        std::unique_ptr<SSL, FreeTls> session;
        std::thread thread;
    };

    void run();
    void serve(SSL *session);
    std::string answer(int broker, const std::string &request, bool &logged_in);
    std::string handshake(const std::string &request);
    void move_address(std::string &answer) const;

    const int to_;
    const Plan plan_;
    int port_ = 0;
    common::Fd listener_;
    std::unique_ptr<SSL_CTX, FreeTls> context_;
    std::list<Connection> connections_; /* the accepting thread's, then the destructor's */
    mutable common::Mutex lock_;
    std::string asked_for_ GUARDED_BY(lock_);
    std::thread thread_;
};

}  // namespace bus_testing

#endif
