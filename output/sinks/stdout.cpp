/* Standard output, which may be anything. */

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "queued_sink.h"
#include "rows.h"
#include "stream.h"

namespace output
{

namespace
{

class StdoutTransport : public Transport
{
public:
    bool open(std::string &error) override
    {
        const int flags = fcntl(STDOUT_FILENO, F_GETFL);
        if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY)
            error = "standard output is closed";
        else if (!stream_.share(STDOUT_FILENO))
            error = std::string("cannot write to standard output: ") + strerror(errno);
        return error.empty();
    }

    // What no reader will read is not kept for one.
    Carried carry(const Packets &packets, const Patience &patience) override
    {
        int failed;
        Carried carried = writer_.write(stream_, packets, patience, failed);
        if (failed == EAGAIN) {
            carried.trouble = "the reader of standard output does not read";
            carried.pause_ms = 0;
        } else if (failed == EPIPE) {
            carried.trouble = "the reader of standard output has gone";
            carried.dropped = packets.size() - carried.done;
            carried.pause_ms = 0;
            writer_ = {};
        } else if (failed != 0) {
            carried.trouble = std::string("cannot write to standard output: ") + strerror(failed);
        }
        return carried;
    }

private:
    FdStream stream_{common::Fd()};
    PacketWriter writer_;
};

constexpr Setting kSettings[] = {kBufferSetting};

std::unique_ptr<Sink> make(const Settings &settings, const Origin &, std::string &)
{
    return std::make_unique<QueuedSink>(std::make_unique<StdoutTransport>(), limits_of(settings));
}

}  // namespace

constinit const SinkRow kStdoutRow = {"stdout", "standard output", kSettings, make};

}  // namespace output
