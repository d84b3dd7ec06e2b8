/*
 * stream.h: packets into what takes bytes as they come: pipes, terminals, connections.
 */
#ifndef OUTPUT_SINKS_STREAM_H
#define OUTPUT_SINKS_STREAM_H

#include <sys/types.h>

#include <string_view>

#include "common/fd.h"
#include "transport.h"

namespace output
{

/* What takes bytes and never blocks. */
class ByteStream
{
public:
    virtual ~ByteStream() = default;

    /* How many it took; -1 and errno, which is EAGAIN when it takes none before `awaited` comes at fd(). */
    virtual ssize_t write(std::string_view bytes, short &awaited) = 0;
    virtual int fd() const = 0;
    /* How many bytes of what it took the other end has not, as far as the kernel knows; 0 where it does not. */
    virtual size_t unread() const { return 0; }
};

/* A descriptor. One that others share is left as it is, though it blocks. */
class FdStream : public ByteStream
{
public:
    /* A stream of ours, which does not block. */
    explicit FdStream(common::Fd own) : fd_(std::move(own)) {}

    /* The other end of one that is not ours: opened anew where the kernel lets, else copied. False: errno. */
    bool share(int fd);
    void close() { fd_.reset(); }
    explicit operator bool() const { return static_cast<bool>(fd_); }

    ssize_t write(std::string_view bytes, short &awaited) override;
    int fd() const override { return fd_.get(); }

private:
    enum class Kind { kNeverBlocks, kSocket, kBlocks };

    common::Fd fd_;
    Kind kind_ = Kind::kNeverBlocks;
};

/* Remembers how much of the packets a stream has, of which those have arrived that the other end has read. */
class PacketWriter
{
public:
    /* As Transport::carry(), but for the trouble: `error` is 0, EAGAIN when nothing has been taken or read for a
     * second, or what has ended the stream. */
    Carried write(ByteStream &stream, const Packets &packets, const Patience &patience, int &error);
    /* The stream has ended, and these bytes in it will never be read: what was read is for settle(), and what follows
     * goes to another stream, whole. */
    void restart(size_t unread);
    bool is_settling() const { return read_ != 0; }
    /* The packets that a stream had read when it ended. */
    Carried settle(const Packets &packets) { return {packets.whole_in(std::exchange(read_, 0))}; }

private:
    void judge(Carried &carried, bool all_sent, int &error);

    size_t sent_ = 0;         /* bytes from the first of the packets that come the next time */
    size_t read_ = 0;         /* of these, by a stream that has ended */
    uint64_t look_ms_ = 0;    /* until what was sent is looked after again */
    uint64_t slow_since_ = 0; /* nothing was read since; 0: there is nothing to read, or it goes on */
};

inline constexpr uint64_t kSlowMs = 1000; /* what takes nothing for so long is said to be slow */

}  // namespace output

#endif
