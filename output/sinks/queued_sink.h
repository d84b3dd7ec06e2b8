/*
 * queued_sink.h: the base of the sinks here: records wait in a buffer with a bound, and a thread carries them.
 *
 * So neither a disk nor a far side can hold up who has the records: accept() copies, and takes no more while the buffer
 * is full.
 */
#ifndef OUTPUT_SINKS_QUEUED_SINK_H
#define OUTPUT_SINKS_QUEUED_SINK_H

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "common/fd.h"
#include "common/mutex.h"
#include "output/settings.h"
#include "output/sink.h"
#include "packets.h"
#include "transport.h"

namespace output
{

struct QueueLimits {
    size_t capacity = 4 << 20;          /* bytes that wait at most; one record may always */
    size_t batch_bytes = 64 << 10;      /* as much is carried at a time, and without being asked for by flush() */
    size_t batch_records = SIZE_MAX;    /* the same */
    uint64_t linger_ms = 0;             /* how long fewer wait for more after a flush() */
    uint64_t longest_pause_ms = 30'000; /* between attempts; the first comes after a tenth of a second */
};

/* The setting that all have, and what it says. */
inline constexpr Setting kBufferSetting = {"buffer", SettingType::kBytes, "how much may wait to be sent, in memory",
                                           "4 MiB"};
QueueLimits limits_of(const Settings &settings);

class QueuedSink : public Sink
{
public:
    QueuedSink(std::unique_ptr<Transport> transport, const QueueLimits &limits);
    ~QueuedSink() override; /* what still waits is gone */
    QueuedSink(const QueuedSink &) = delete;
    QueuedSink &operator=(const QueuedSink &) = delete;

    bool open(std::string &error) override;
    size_t accept(std::span<const Record> records) override;
    void flush() override;
    bool drain(uint64_t timeout_ms) override;
    uint64_t safe() const override;
    Condition condition() const override;
    SinkFigures figures() const override;

private:
    struct State {
        PacketList incoming;
        uint64_t first_ms = 0; /* when the first of them came */
        bool flushed = false, draining = false, finished = false, all_safe = false;
        bool wants_wake = false;    /* the thread sleeps, and records that are due are to wake it */
        uint64_t not_before_ms = 0; /* the next attempt; 0: at any time */
        uint64_t deadline_ms = 0;   /* of drain() */
        uint64_t carrying_ms = 0;   /* since when packets are being carried; 0: they are not */
        size_t outgoing_bytes = 0;
        uint64_t last = 0, safe = 0;
        Condition condition;
        SinkFigures figures;
    };

    bool start_thread(std::string &error);
    size_t append(std::span<const Record> records) REQUIRES(lock_);
    bool has_room() const REQUIRES(lock_);
    bool is_due(uint64_t now_ms) const REQUIRES(lock_);
    void wake_if_due() REQUIRES(lock_);
    void wake() const;
    void run();
    bool take();
    void carry();
    void account(const Carried &carried, uint64_t last) REQUIRES(lock_);
    void judge(const Carried &carried) REQUIRES(lock_);
    void hear();
    void sleep(int idle_ms);
    int sleep_ms(int idle_ms) const REQUIRES(lock_);
    void finish_if_drained();

    std::unique_ptr<Transport> transport_; /* ends on the thread */
    const QueueLimits limits_;
    common::Fd wake_, end_; /* eventfds */
    std::atomic<bool> ending_ = false;
    std::thread thread_;
    PacketList outgoing_;   /* the thread's own, as the next */
    uint64_t failures_ = 0; /* attempts in turn */
    mutable common::Mutex lock_;
    common::Condition changed_;
    State state_ GUARDED_BY(lock_);
};

}  // namespace output

#endif
