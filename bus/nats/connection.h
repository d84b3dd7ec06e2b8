/*
 * connection.h: one connection to a cluster of NATS servers, which its library keeps up.
 */
#ifndef BUS_NATS_CONNECTION_H
#define BUS_NATS_CONNECTION_H

#include <nats/nats.h>

#include <atomic>
#include <mutex>
#include <string>

#include "bus/settings.h"

namespace bus
{

class NatsConnection
{
public:
    NatsConnection() = default;
    ~NatsConnection() { close(); }
    NatsConnection(const NatsConnection &) = delete;
    NatsConnection &operator=(const NatsConnection &) = delete;

    /* False, with one line in `error`. A server that does not answer is no reason: it is tried until it does. */
    bool open(const Settings &settings, std::string &error);
    void close();

    natsConnection *get() const { return connection_; }
    natsSubscription *answers() const { return answers_; }
    const std::string &reply_prefix() const { return prefix_; } /* ends in "." */

    bool connected() const { return connection_ && natsConnection_Status(connection_) == NATS_CONN_STATUS_CONNECTED; }
    bool ended() const { return !connection_ || natsConnection_IsClosed(connection_); }
    unsigned interruptions() const { return interruptions_; }
    std::string last_error();

private:
    struct Shared {
        std::mutex mutex;
        std::string error;
    };

    bool subscribe(std::string &error);
    static void on_disconnect(natsConnection *connection, void *self);
    static void on_error(natsConnection *connection, natsSubscription *, natsStatus status, void *self);
    void note(const char *text);

    natsConnection *connection_ = nullptr;
    natsSubscription *answers_ = nullptr;
    std::string prefix_;
    std::atomic<unsigned> interruptions_ = 0;
    Shared shared_;
};

}  // namespace bus

#endif
