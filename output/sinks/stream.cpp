#include "stream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>

#include "agent/time_format.h"

namespace output
{

namespace
{

constexpr uint64_t kFirstLookMs = 4, kLastLookMs = 256;

}  // namespace

// Opening a pipe or a terminal anew makes a description of its own, so that only our end does not block. A regular file
// never blocks in that sense, and its offset is to stay shared.
bool FdStream::share(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return false;
    kind_ = S_ISSOCK(st.st_mode) ? Kind::kSocket : Kind::kNeverBlocks;
    if (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode)) {
        const std::string name = "/proc/self/fd/" + std::to_string(fd);
        fd_.reset(open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        kind_ = fd_ ? Kind::kNeverBlocks : Kind::kBlocks;
    }
    if (!fd_)
        fd_.reset(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    return static_cast<bool>(fd_);
}

// A pipe that can be written to has room for PIPE_BUF bytes.
ssize_t FdStream::write(std::string_view bytes, short &awaited)
{
    awaited = POLLOUT;
    if (kind_ == Kind::kSocket)
        return send(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (kind_ == Kind::kBlocks) {
        struct pollfd one = {fd_.get(), POLLOUT, 0};
        if (poll(&one, 1, 0) == 0) {
            errno = EAGAIN;
            return -1;
        }
        bytes = bytes.substr(0, PIPE_BUF);
    }
    return ::write(fd_.get(), bytes.data(), bytes.size());
}

Carried PacketWriter::write(ByteStream &stream, const Packets &packets, const Patience &patience, int &error)
{
    error = 0;
    std::string_view rest = packets.bytes().substr(sent_);
    while (!rest.empty() && error == 0) {
        short awaited = 0;
        const ssize_t n = stream.write(rest, awaited);
        if (n >= 0)
            rest.remove_prefix(static_cast<size_t>(n));
        else if (errno == EAGAIN)
            error = patience.wait(stream.fd(), awaited, kSlowMs) ? 0 : EAGAIN;
        else if (errno != EINTR)
            error = errno;
    }
    const size_t sent = packets.bytes().size() - rest.size();
    Carried carried = {packets.whole_in(sent - std::min(sent, stream.unread()))};
    sent_ = sent - packets.end_of(carried.done);
    judge(carried, carried.done < packets.size() && rest.empty(), error);
    return carried;
}

// A reader that reads is looked after often; one that does not, less and less.
void PacketWriter::judge(Carried &carried, bool all_sent, int &error)
{
    const uint64_t now = agent::steady_ms();
    if (carried.done > 0 || !all_sent) {
        slow_since_ = look_ms_ = 0;
    }
    if (!all_sent)
        return;
    if (slow_since_ == 0)
        slow_since_ = now;
    look_ms_ = std::clamp(look_ms_ * 2, kFirstLookMs, kLastLookMs);
    carried.again_ms = look_ms_;
    if (error == 0 && now >= slow_since_ + kSlowMs)
        error = EAGAIN;
}

void PacketWriter::restart(size_t unread)
{
    read_ += sent_ - std::min(sent_, unread);
    sent_ = look_ms_ = slow_since_ = 0;
}

}  // namespace output
