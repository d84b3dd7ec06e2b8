#include "reader.h"

#include <sys/socket.h>

#include <cerrno>

#include "agent/dump_protocol.h"

namespace output
{

Reader::Reader(common::Fd socket)
    : socket_(std::move(socket)), name_("process " + std::to_string(agent::peer_of(socket_.get()).pid))
{
}

size_t Reader::room(const Packets &packets, size_t bound) const
{
    const size_t fit = pending_.size() < bound ? packets.whole_in(bound - pending_.size()) : 0;
    return fit == 0 && pending_.empty() ? 1 : fit;
}

void Reader::give(const Packets &packets, uint64_t now_ms)
{
    if (pending_.empty())
        since_ms_ = now_ms;
    pending_ += packets.bytes();
    for (size_t i = 1; i <= packets.size(); i++)
        ends_.push_back(given_ + packets.end_of(i));
    given_ += packets.bytes().size();
}

bool Reader::send(uint64_t now_ms)
{
    size_t sent = 0;
    ssize_t n = 0;
    while (sent < pending_.size() && n >= 0) {
        n = ::send(socket_.get(), pending_.data() + sent, pending_.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        sent += n > 0 ? static_cast<size_t>(n) : 0;
    }
    const bool has_gone = n < 0 && errno != EAGAIN && errno != EINTR;
    if (sent > 0)
        since_ms_ = now_ms;
    pending_.erase(0, sent);
    sent_ += sent;
    while (!ends_.empty() && ends_.front() <= sent_)
        ends_.pop_front();
    return !has_gone;
}

void Reader::hear()
{
    char bytes[256];
    if (!is_silent_ && recv(socket_.get(), bytes, sizeof bytes, MSG_DONTWAIT) == 0)
        is_silent_ = true;
}

struct pollfd Reader::polled() const
{
    const int events = (is_silent_ ? 0 : POLLIN) | (is_behind() ? POLLOUT : 0);
    return {socket_.get(), static_cast<short>(events), 0};
}

}  // namespace output
