#include "proxy.h"

#include <poll.h>
#include <sys/socket.h>

#include <vector>

#include "bus_testing.h"

namespace bus_testing
{

Proxy::Proxy(int to) : to_(to), listener_(listen_locally(port_))
{
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
    if (!client || state_ == State::kRefused)
        return;
    if (common::Fd server = connect_locally(to_))
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
