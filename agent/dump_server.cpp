#include "dump_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <new>
#include <system_error>

#include "orx_base.h"
#include "orx_host.h"
#include "signals.h"
#include "time_format.h"

namespace agent
{

namespace
{

constexpr int kBacklog = 8;
constexpr int kLookMs = 100; /* how often a hold looks at how much has gathered */
constexpr uint32_t kEvents = 4;

/* The records of one dump, made on the thread that dumps. */
struct Collector {
    std::string &out;
    bool cut = false;

    static void take(int, const char *, int, const char *text, void *arg)
    {
        static_cast<Collector *>(arg)->append(text);
    }

    // Called from the monitor, through which no exception may pass.
    void append(std::string_view text)
    {
        cut |= out.size() + text.size() > kMaxAnswer;
        if (cut)
            return;
        try {
            append_record(kRecordLine, text, out);
        } catch (const std::bad_alloc &) {
            cut = true;
        }
    }
};

/* Lets the calling thread's log lines go to a collector while it lives. */
class Capture
{
public:
    explicit Capture(Collector &collector) { orx_host_log_capture(Collector::take, &collector); }
    ~Capture() { orx_host_log_capture(nullptr, nullptr); }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
};

/* Makes events wait while it lives. */
class Hold
{
public:
    Hold(const std::function<void(bool)> &hold, std::atomic<bool> &state, bool wanted) : hold_(hold), state_(state)
    {
        set(wanted);
    }
    ~Hold() { set(false); }
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;

private:
    void set(bool on)
    {
        if (state_.exchange(on) != on)
            hold_(on);
    }
    const std::function<void(bool)> &hold_;
    std::atomic<bool> &state_;
};

bool may_ask(const Peer &peer) { return peer.uid == 0 || peer.uid == geteuid(); }

}  // namespace

uint64_t max_records()
{
    constexpr uint64_t kDefault = 10000;
    char path[512];
    if (orx_dirutils_path_transform("@/../config/fmon.ini", path, sizeof path) != 0)
        return kDefault;
    void *const ini = orx_ini_file_load(path);
    const char *const text = ini ? orx_ini_file_get(ini, "fmon", "max_events") : nullptr;
    const uint64_t number = text ? strtoull(text, nullptr, 10) : 0;
    if (ini)
        orx_ini_file_free(ini);
    return number ? number : kDefault;
}

DumpServer::~DumpServer() { stop(); }

bool DumpServer::start()
{
    stop_ = common::Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (directory_.empty() || !stop_ || !(listener_ = listen_in(directory_, kBacklog)))
        return false;
    const SignalsBlocked blocked;
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error &) {
        return false;
    }
    return true;
}

bool DumpServer::stop()
{
    if (!thread_.joinable())
        return false;
    const bool held = holding_;
    eventfd_write(stop_.get(), 1);
    thread_.join();
    unlink((directory_ + "/" + socket_name(getpid())).c_str());
    return held;
}

void DumpServer::run()
{
    prctl(PR_SET_NAME, "fmon-dump");
    while (wait(listener_.get(), POLLIN, -1)) {
        const int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            // Out of descriptors: the asker stays in the queue, and would be reported without end.
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM)
                wait(stop_.get(), POLLIN, kLookMs);
            continue;
        }
        try {
            serve(fd);
        } catch (const std::bad_alloc &) {
            // The asker sees an answer without an end.
        }
        close(fd);
    }
}

void DumpServer::serve(int fd)
{
    std::string line, refusal;
    DumpRequest request;
    if (!may_ask(peer_of(fd)))
        append_record(kRecordError, "only root and the user who runs it may ask it", refusal);
    else if (!receive(fd, line))
        return;
    else if (!parse_request(line, request))
        append_record(kRecordError, "the request is not understood: both ends must be of one version", refusal);
    if (refusal.empty())
        answer(fd, request);
    else
        send(fd, refusal);
}

void DumpServer::answer(int fd, const DumpRequest &request)
{
    std::string records;
    int code;
    {
        const Hold hold(hold_, holding_, request.hold_ms > 0);
        if (request.hold_ms)
            let_gather(fd, request.hold_ms);
        code = collect(request.type, records);
    }
    if (code == 0)
        append_record(kRecordEnd, "", records);
    else
        append_record(kRecordError, "the monitor knows no type " + std::to_string(request.type), records);
    send(fd, records);
}

int DumpServer::collect(uint32_t type, std::string &out)
{
    if (type == kDumpLosses) {
        for (const std::string &line : losses_())
            append_record(kRecordLine, line, out);
        return 0;
    }
    Collector collector = {out};
    int code;
    {
        const Capture capture(collector);
        code = dump_(type, nullptr);
    }
    if (collector.cut)
        append_record(kRecordCut, "", out);
    return code;
}

// Ends early when the asker goes, and before the monitor, which stops reading when it is full, could lose anything.
void DumpServer::let_gather(int fd, uint32_t ms)
{
    const uint64_t until = steady_ms() + ms, limit = max_records() / 2;
    for (uint64_t now = steady_ms(); now < until && waiting_records() < limit; now = steady_ms()) {
        struct pollfd fds[] = {{fd, POLLRDHUP, 0}, {stop_.get(), POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(std::min<uint64_t>(until - now, kLookMs))) > 0)
            return;
    }
}

// The count is the line behind the heading, before any name.
uint64_t DumpServer::waiting_records()
{
    constexpr std::string_view kCount = "Lcount: ";
    std::string records;
    collect(kEvents, records);
    const size_t start = records.find(kCount);
    uint64_t count = 0;
    if (start != std::string::npos)
        std::from_chars(records.data() + start + kCount.size(), records.data() + records.size(), count);
    return count;
}

// False: the time is up, or the thread is to end.
bool DumpServer::wait(int fd, short events, int ms)
{
    struct pollfd fds[] = {{fd, events, 0}, {stop_.get(), POLLIN, 0}};
    int ready;
    do
        ready = poll(fds, 2, ms);
    while (ready < 0 && errno == EINTR);
    return ready > 0 && fds[1].revents == 0;
}

// One line, within one time for all of it.
bool DumpServer::receive(int fd, std::string &line)
{
    const uint64_t until = steady_ms() + kPatienceMs;
    char bytes[kMaxRequest];
    while (line.size() < kMaxRequest) {
        const uint64_t now = steady_ms();
        if (now >= until || !wait(fd, POLLIN, static_cast<int>(until - now)))
            return false;
        const ssize_t n = recv(fd, bytes, kMaxRequest - line.size(), 0);
        if (n <= 0)
            return false;
        line.append(bytes, static_cast<size_t>(n));
        if (line.back() == '\n') {
            line.pop_back();
            return true;
        }
    }
    return true;  // too long, which parsing it will find
}

void DumpServer::send(int fd, const std::string &bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n > 0)
            sent += static_cast<size_t>(n);
        else if (errno != EAGAIN || !wait(fd, POLLOUT, kPatienceMs))
            return;
    }
}

}  // namespace agent
