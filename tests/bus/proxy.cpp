#include "proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <vector>

namespace bus_testing
{

namespace
{

struct sockaddr_in local(int port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

struct sockaddr *any(struct sockaddr_in &address) { return reinterpret_cast<struct sockaddr *>(&address); }

}  // namespace

Proxy::Proxy(int to) : to_(to), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    struct sockaddr_in address = local(0);
    socklen_t size = sizeof address;
    if (bind(listener_.get(), any(address), size) == 0 && listen(listener_.get(), 16) == 0 &&
        getsockname(listener_.get(), any(address), &size) == 0)
        port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

Proxy::~Proxy()
{
    ending_ = true;
    thread_.join();
}

void Proxy::accept_one()
{
    common::Fd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    common::Fd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_in address = local(to_);
    if (client && state_ != State::kRefused && connect(server.get(), any(address), sizeof address) == 0)
        pairs_.push_back({std::move(client), std::move(server)});
}

void Proxy::hand_on(int from, int to, bool &ended)
{
    char bytes[65536];
    const ssize_t got = recv(from, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got == 0)
        ended = true;
    for (ssize_t sent = 0; sent < got;) {
        const ssize_t some = send(to, bytes + sent, static_cast<size_t>(got - sent), MSG_NOSIGNAL);
        if (some <= 0) {
            ended = true;
            return;
        }
        sent += some;
    }
}

void Proxy::run()
{
    while (!ending_) {
        if (state_ == State::kRefused)
            pairs_.clear();
        std::vector<struct pollfd> fds = {{listener_.get(), POLLIN, 0}};
        for (const Pair &pair : pairs_)
            for (const int fd : {pair.client.get(), pair.server.get()})
                fds.push_back({state_ == State::kOpen ? fd : -1, POLLIN, 0});
        if (poll(fds.data(), fds.size(), 20) <= 0)
            continue;
        size_t at = 1;
        for (Pair &pair : pairs_) {
            if (fds[at++].revents)
                hand_on(pair.client.get(), pair.server.get(), pair.ended);
            if (fds[at++].revents)
                hand_on(pair.server.get(), pair.client.get(), pair.ended);
        }
        std::erase_if(pairs_, [](const Pair &pair) { return pair.ended; });
        if (fds[0].revents)
            accept_one();
    }
}

}  // namespace bus_testing
