/* A Unix socket: whoever connects reads the records from then on. */

#include <algorithm>
#include <cerrno>
#include <list>

#include "agent/descriptors.h"
#include "agent/time_format.h"
#include "listener.h"
#include "queued_sink.h"
#include "reader.h"
#include "rows.h"
#include "stream.h"

namespace output
{

namespace
{

constexpr const char *kNoReader = "no reader is connected: records are dropped";
constexpr uint64_t kListenAgainMs = 500, kAcceptAgainMs = 500;

struct SocketOptions {
    std::string path;
    uint64_t readers = 0;     /* at most */
    size_t reader_bytes = 0;  /* what may wait for each */
    uint64_t patience_ms = 0; /* with one that reads nothing */
};

class SocketTransport : public Transport
{
public:
    explicit SocketTransport(SocketOptions options) : options_(std::move(options)) {}

    bool open(std::string &error) override { return listener_.open(options_.path, error) != Listener::Opened::kNever; }
    Carried carry(const Packets &packets, const Patience &patience) override;
    int idle() override;
    void descriptors(std::vector<struct pollfd> &polled) override;
    bool finish(uint64_t deadline_ms, const Patience &patience) override;

private:
    void take_new_readers();
    int until_next() const;
    void serve();
    void drop(std::list<Reader>::iterator reader);
    size_t room(const Packets &packets) const;
    const Reader *slowest() const;
    Carried wait_for_room(const Packets &packets, const Patience &patience);

    const SocketOptions options_;
    Listener listener_;
    std::list<Reader> readers_;
    uint64_t accept_ms_ = 0; /* none is accepted before: there was no descriptor */
};

// Records that nobody is there to read are not kept for whoever may come.
Carried SocketTransport::carry(const Packets &packets, const Patience &patience)
{
    std::string error = "no socket";
    if (!listener_ && listener_.open(options_.path, error) != Listener::Opened::kYes)
        return {.trouble = error};
    take_new_readers();
    serve();
    if (readers_.empty()) {
        say(kNoReader);
        return {.dropped = packets.size()};
    }
    if (note() == kNoReader)
        say("");
    if (room(packets) == 0)
        return wait_for_room(packets, patience);
    const Packets given = packets.first(room(packets));
    for (Reader &reader : readers_)
        reader.give(given, agent::steady_ms());
    serve();
    return {.done = given.size()};
}

size_t SocketTransport::room(const Packets &packets) const
{
    size_t room = packets.size();
    for (const Reader &reader : readers_)
        room = std::min(room, reader.room(packets, options_.reader_bytes));
    return room;
}

const Reader *SocketTransport::slowest() const
{
    const Reader *slowest = nullptr;
    for (const Reader &reader : readers_)
        if (reader.is_behind() && (!slowest || reader.since_ms() < slowest->since_ms()))
            slowest = &reader;
    return slowest;
}

Carried SocketTransport::wait_for_room(const Packets &packets, const Patience &patience)
{
    const Reader *const full = slowest();
    const uint64_t now = agent::steady_ms(), end = full ? full->since_ms() + options_.patience_ms : now;
    if (full && end > now)
        patience.wait(full->fd(), POLLOUT, std::min(end - now, kSlowMs));
    serve();
    if (readers_.empty() || room(packets) > 0 || !slowest())
        return {};
    return {.trouble = "a reader does not keep up: " + slowest()->name(), .pause_ms = 0};
}

// Where no descriptor is left who waits is taken later: that somebody does would be said again and again.
void SocketTransport::take_new_readers()
{
    if (agent::steady_ms() < accept_ms_)
        return;
    errno = 0;
    for (common::Fd next = listener_.accept(); next; next = listener_.accept()) {
        if (readers_.size() < options_.readers)
            readers_.emplace_back(std::move(next));
        else
            say("a reader was turned away: there are " + std::to_string(readers_.size()) + " already");
        errno = 0;
    }
    if (errno == EAGAIN || errno == ECONNABORTED || errno == EINTR)
        return;
    say("a reader cannot be taken: " + agent::reason_text(errno));
    accept_ms_ = agent::steady_ms() + kAcceptAgainMs;
}

void SocketTransport::serve()
{
    const uint64_t now = agent::steady_ms();
    for (auto next = readers_.begin(); next != readers_.end();) {
        const auto reader = next++;
        struct pollfd state = reader->polled();
        poll(&state, 1, 0);
        reader->hear();
        const bool has_gone = !reader->send(now) || (state.revents & (POLLHUP | POLLERR)) != 0;
        const bool is_late = reader->is_behind() && now >= reader->since_ms() + options_.patience_ms;
        if (is_late && !has_gone)
            say("a reader was dropped, which read nothing for " + std::to_string(options_.patience_ms / 1000) +
                " s: " + reader->name());
        if (has_gone || is_late)
            drop(reader);
    }
}

void SocketTransport::drop(std::list<Reader>::iterator reader)
{
    lose(reader->unsent());
    readers_.erase(reader);
}

int SocketTransport::idle()
{
    std::string error;
    if (!listener_ && listener_.open(options_.path, error) != Listener::Opened::kYes) {
        say(error);
        return kListenAgainMs;
    }
    take_new_readers();
    serve();
    return until_next();
}

int SocketTransport::until_next() const
{
    const Reader *const behind = slowest();
    const uint64_t now = agent::steady_ms();
    uint64_t next = behind ? behind->since_ms() + options_.patience_ms : UINT64_MAX;
    if (accept_ms_ > now)
        next = std::min(next, accept_ms_);
    if (next == UINT64_MAX)
        return -1;
    return next > now ? static_cast<int>(std::min<uint64_t>(next - now, INT32_MAX)) : 0;
}

void SocketTransport::descriptors(std::vector<struct pollfd> &polled)
{
    if (listener_ && agent::steady_ms() >= accept_ms_)
        polled.push_back({listener_.fd(), POLLIN, 0});
    for (const Reader &reader : readers_)
        polled.push_back(reader.polled());
}

bool SocketTransport::finish(uint64_t deadline_ms, const Patience &patience)
{
    for (serve(); slowest() && !patience.over(); serve()) {
        const uint64_t now = agent::steady_ms();
        if (now >= deadline_ms)
            return false;
        patience.wait(slowest()->fd(), POLLOUT, std::min(deadline_ms - now, kSlowMs));
    }
    return !slowest();
}

constexpr Setting kSettings[] = {
    {"path", SettingType::kText, "the socket, by its absolute path; root and its owner may connect", nullptr, true},
    {"readers", SettingType::kNumber, "how many may be connected at a time", "16"},
    {"reader_buffer", SettingType::kBytes, "how much may wait for each of them; then the output waits", "1 MiB"},
    {"reader_patience", SettingType::kTime, "one that reads nothing for so long, of what waits for it, is dropped",
     "10 s"},
    kBufferSetting,
};

std::unique_ptr<Sink> make(const Settings &settings, const Origin &, std::string &error)
{
    SocketOptions options = {settings.text("path"), settings.number("readers"),
                             static_cast<size_t>(settings.number("reader_buffer")), settings.number("reader_patience")};
    if (!options.path.starts_with('/') || options.path.ends_with('/'))
        error = "path: the absolute path of a socket is needed";
    else if (options.readers == 0 || options.readers > 1000)
        error = "readers: 1 to 1000";
    else
        return std::make_unique<QueuedSink>(std::make_unique<SocketTransport>(options), limits_of(settings));
    return nullptr;
}

}  // namespace

constinit const SinkRow kSocketRow = {"socket", "a Unix socket that readers join and leave", kSettings, make};

}  // namespace output
