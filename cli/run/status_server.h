/*
 * status_server.h: the service's socket, on which `fmon stats` and others ask how it does: a line each, and a line of
 * JSON for an answer.
 */
#ifndef CLI_RUN_STATUS_SERVER_H
#define CLI_RUN_STATUS_SERVER_H

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <string>

#include "common/fd.h"

namespace cli
{

class StatusServer
{
public:
    StatusServer() = default;
    ~StatusServer() { stop(); }
    StatusServer(const StatusServer &) = delete;
    StatusServer &operator=(const StatusServer &) = delete;

    /* Listens at that path, for its owner and root alone; what a service that is gone left there is replaced; or at an
     * address that only this machine reaches: "127.0.0.1:9464", "[::1]:9464". False: `error` is one line, also where
     * another service listens there. */
    bool start(const std::string &address, std::string &error);
    void stop();

    int fd() const; /* readable: somebody asks; -1: nobody can, or not now */

    /* Answers one asker, who has kPatienceMs to ask and as long to read: a line for a line. */
    void serve(const std::function<std::string(const std::string &request)> &answer);
    /* The same in HTTP: a text for GET and HEAD of /metrics, and a refusal for all else. */
    void serve_http(const std::function<std::string()> &text);

    static constexpr int kPatienceMs = 200;

private:
    bool start_local(const std::string &path, std::string &error);
    bool begin(const void *address, socklen_t size) const;
    bool refuse(const std::string &address, std::string &error);
    common::Fd take_asker();

    std::string path_; /* of the socket; empty: it has none */
    common::Fd socket_;
    uint64_t deaf_until_ = 0; /* by steady_ms() */
};

/* The port of "127.0.0.1:PORT" or "[::1]:PORT"; 0: it is neither. */
uint16_t loopback_port(const std::string &address);

/* The directory of that path may be written to by root and this user only; made, with its parents, where it is missing.
 */
bool make_own_directory(const std::string &path, std::string &error);

}  // namespace cli

#endif
