/*
 * connection.h: one connection to a server of a NATS cluster, from its beginning to its end. The library's own way of
 * connecting again is left out: it does not say why it fails, and reads no file anew.
 */
#ifndef BUS_NATS_CONNECTION_H
#define BUS_NATS_CONNECTION_H

#include <nats/nats.h>

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

    /* Whether the settings can be used at all. False, with one line in `error`. */
    static bool check(const Settings &settings, std::string &error);
    /* Tries each server; may take some seconds. False, with one line in `error`. */
    bool open(const Settings &settings, std::string &error);
    void close();

    natsConnection *get() const { return connection_; }
    natsSubscription *answers() const { return answers_; }
    const std::string &reply_prefix() const { return prefix_; } /* ends in "." */

    bool connected() const { return connection_ && natsConnection_Status(connection_) == NATS_CONN_STATUS_CONNECTED; }
    std::string last_error();

private:
    bool subscribe(std::string &error);

    natsConnection *connection_ = nullptr;
    natsSubscription *answers_ = nullptr;
    std::string prefix_;
};

}  // namespace bus

#endif
