#include "queued_sink.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>

#include "agent/descriptors.h"
#include "agent/time_format.h"

namespace output
{

namespace
{

constexpr auto kRoomMs = std::chrono::milliseconds(50); /* accept() waits for room that long */
constexpr uint64_t kFirstPauseMs = 100;
constexpr uint64_t kHangMs = 5000;         /* transports come back within a second, unless the kernel holds them */
constexpr uint64_t kBeyondDeadlineMs = 50; /* so that the thread, which keeps the deadline, says first how it went */

/* While it lives the calling thread has all signals blocked, and so have threads that it starts. */
class NoSignals
{
public:
    NoSignals()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    NoSignals(const NoSignals &) = delete;
    NoSignals &operator=(const NoSignals &) = delete;

private:
    sigset_t before_ = {};
};

uint64_t until(uint64_t when_ms, uint64_t now_ms) { return when_ms > now_ms ? when_ms - now_ms : 0; }

}  // namespace

QueueLimits limits_of(const Settings &settings)
{
    QueueLimits limits;
    if (const uint64_t bytes = settings.number(kBufferSetting.key))
        limits.capacity = bytes;
    limits.batch_bytes = std::min(limits.batch_bytes, limits.capacity);
    return limits;
}

QueuedSink::QueuedSink(std::unique_ptr<Transport> transport, const QueueLimits &limits)
    : transport_(std::move(transport)), limits_(limits)
{
}

QueuedSink::~QueuedSink()
{
    ending_ = true;
    if (!thread_.joinable())
        return;
    eventfd_write(end_.get(), 1);
    thread_.join();
}

bool QueuedSink::open(std::string &error)
{
    wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    end_.reset(wake_ ? eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1);
    if (!end_) {
        error = "no descriptor for an output: " + agent::reason_text(errno);
        return false;
    }
    const NoSignals blocked;
    return transport_->open(error) && start_thread(error);
}

bool QueuedSink::start_thread(std::string &error)
{
    try {
        thread_ = std::thread([this]() { run(); });
        return true;
    } catch (const std::system_error &failed) {
        error = std::string("no thread for an output: ") + failed.what();
        return false;
    }
}

// ---- whoever has the records ----

size_t QueuedSink::accept(std::span<const Record> records)
{
    const common::Lock lock(lock_);
    size_t taken = append(records);
    if (taken == 0 && !records.empty() &&
        changed_.wait_for(lock_, kRoomMs, [this]() REQUIRES(lock_) { return has_room(); }))
        taken = append(records);
    return taken;
}

size_t QueuedSink::append(std::span<const Record> records)
{
    size_t taken = 0;
    while (taken < records.size() && has_room()) {
        const Record &record = records[taken++];
        if (state_.incoming.empty())
            state_.first_ms = agent::steady_ms();
        state_.last = record.number;
        state_.figures.accepted++;
        state_.figures.bytes += record.text.size();
        if (transport_->encode(record, state_.incoming.text())) {
            state_.incoming.close(record.number);
            state_.figures.waiting++;
        } else {
            state_.figures.dropped++;
        }
    }
    if (state_.figures.waiting == 0)
        state_.safe = state_.last;
    wake_if_due();
    return taken;
}

bool QueuedSink::has_room() const
{
    const size_t held = state_.incoming.bytes() + state_.outgoing_bytes;
    return (held < limits_.capacity || held == 0) && !state_.draining;
}

void QueuedSink::flush()
{
    const common::Lock lock(lock_);
    state_.flushed = !state_.incoming.empty();
    wake_if_due();
}

// A sleeper that waits for less than the whole time has to know what it waits for, too.
void QueuedSink::wake_if_due()
{
    if (!state_.wants_wake || state_.incoming.empty())
        return;
    if (!is_due(agent::steady_ms()) && !(state_.flushed && limits_.linger_ms > 0))
        return;
    state_.wants_wake = false;
    wake();
}

void QueuedSink::wake() const { eventfd_write(wake_.get(), 1); }

bool QueuedSink::is_due(uint64_t now_ms) const
{
    const PacketList &waiting = state_.incoming;
    if (waiting.empty())
        return false;
    if (state_.draining || waiting.bytes() >= limits_.batch_bytes || waiting.size() >= limits_.batch_records)
        return true;
    return state_.flushed && now_ms >= state_.first_ms + limits_.linger_ms;
}

bool QueuedSink::drain(uint64_t timeout_ms)
{
    const common::Lock lock(lock_);
    if (!thread_.joinable())
        return state_.figures.waiting == 0;
    state_.draining = true;
    state_.deadline_ms = agent::steady_ms() + timeout_ms;
    state_.not_before_ms = 0;
    wake();
    changed_.wait_for(lock_, std::chrono::milliseconds(timeout_ms + kBeyondDeadlineMs),
                      [this]() REQUIRES(lock_) { return state_.finished; });
    return state_.finished && state_.all_safe;
}

uint64_t QueuedSink::safe() const
{
    const common::Lock lock(lock_);
    return state_.safe;
}

Condition QueuedSink::condition() const
{
    const common::Lock lock(lock_);
    const uint64_t since = state_.carrying_ms;
    if (!state_.condition.stuck && since != 0 && agent::steady_ms() >= since + kHangMs)
        return {true, since, "what was begun has not ended yet: the disk or the far side takes its time"};
    return state_.condition;
}

SinkFigures QueuedSink::figures() const
{
    const common::Lock lock(lock_);
    return state_.figures;
}

// ---- the thread ----

void QueuedSink::run()
{
    while (!ending_) {
        const bool has_packets = take();
        if (has_packets)
            carry();
        const int idle_ms = transport_->idle();
        hear();
        finish_if_drained();
        if (!has_packets)
            sleep(idle_ms);
    }
    transport_.reset();  // here, where no signal can come of what that writes
}

// Whether there are packets that are due, and no pause.
bool QueuedSink::take()
{
    const common::Lock lock(lock_);
    const uint64_t now = agent::steady_ms();
    if (now < state_.not_before_ms)
        return false;
    if (outgoing_.empty() && is_due(now)) {
        std::swap(outgoing_, state_.incoming);
        state_.outgoing_bytes = outgoing_.bytes();
        state_.flushed = false;
    }
    if (!outgoing_.empty())
        state_.carrying_ms = now;
    return !outgoing_.empty();
}

void QueuedSink::carry()
{
    const Packets packets = outgoing_.front(limits_.batch_records, limits_.batch_bytes);
    const Carried carried = transport_->carry(packets, Patience(end_.get()));
    const size_t gone = carried.done + carried.dropped;
    const uint64_t last = gone > 0 ? packets.number(gone - 1) : 0;
    outgoing_.drop_front(gone);
    const common::Lock lock(lock_);
    account(carried, last);
    judge(carried);
    changed_.notify_all();
}

void QueuedSink::account(const Carried &carried, uint64_t last)
{
    state_.carrying_ms = 0;
    state_.outgoing_bytes = outgoing_.bytes();
    state_.figures.waiting -= carried.done + carried.dropped;
    state_.figures.dropped += carried.dropped;
    state_.figures.retries += failures_ > 0;
    if (last != 0)
        state_.safe = last;
    if (state_.figures.waiting == 0)
        state_.safe = state_.last;
}

// A pause of its own length is none of an attempt that failed: the far side is there, and slow.
void QueuedSink::judge(const Carried &carried)
{
    Condition &condition = state_.condition;
    const uint64_t now = agent::steady_ms();
    if (carried.trouble.empty()) {
        failures_ = 0;
        condition = {};
        state_.not_before_ms = carried.again_ms == 0 ? 0 : now + carried.again_ms;
        return;
    }
    if (!condition.stuck)
        condition.since_ms = now;
    condition.stuck = true;
    condition.text = carried.trouble;
    const uint64_t pause = std::min(kFirstPauseMs << std::min<uint64_t>(failures_, 20), limits_.longest_pause_ms);
    const bool failed = carried.pause_ms == Carried::kBackOff;
    failures_ = failed ? failures_ + 1 : 0;
    state_.not_before_ms = now + (failed ? pause : carried.pause_ms);
}

void QueuedSink::hear()
{
    const common::Lock lock(lock_);
    state_.figures.dropped += transport_->take_lost();
    if (!state_.condition.stuck && state_.condition.text != transport_->note())
        state_.condition.text = transport_->note();
}

// Until records are due, the pause is over, the transport has something to do, or the sink ends.
void QueuedSink::sleep(int idle_ms)
{
    std::vector<struct pollfd> polled = {{end_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    transport_->descriptors(polled);
    int ms;
    {
        const common::Lock lock(lock_);
        ms = sleep_ms(idle_ms);
        state_.wants_wake = agent::steady_ms() >= state_.not_before_ms;
    }
    poll(polled.data(), polled.size(), ms);
    eventfd_t ignored;
    eventfd_read(wake_.get(), &ignored);
    const common::Lock lock(lock_);
    state_.wants_wake = false;
}

int QueuedSink::sleep_ms(int idle_ms) const
{
    const uint64_t now = agent::steady_ms();
    uint64_t ms = idle_ms < 0 ? UINT64_MAX : static_cast<uint64_t>(idle_ms);
    const bool waits = !outgoing_.empty() || is_due(now);
    if (waits)
        ms = std::min(ms, until(state_.not_before_ms, now));
    else if (!state_.incoming.empty() && state_.flushed)
        ms = std::min(ms, until(state_.first_ms + limits_.linger_ms, now));
    return ms == UINT64_MAX ? -1 : static_cast<int>(std::min<uint64_t>(ms, INT32_MAX));
}

void QueuedSink::finish_if_drained()
{
    uint64_t deadline;
    {
        const common::Lock lock(lock_);
        if (!state_.draining || state_.finished || state_.figures.waiting != 0)
            return;
        deadline = state_.deadline_ms;
    }
    const bool all_safe = transport_->finish(deadline, Patience(end_.get()));
    const common::Lock lock(lock_);
    state_.finished = true;
    state_.all_safe = all_safe;
    changed_.notify_all();
}

}  // namespace output
