/*
 * bus_sink.h: an output into a message bus: what it accepts goes into a spool, and from there to the bus.
 *
 * By itself it adds a heartbeat every minute or so, and a loss record where records were dropped.
 */
#ifndef OUTPUT_SINKS_BUS_SINK_H
#define OUTPUT_SINKS_BUS_SINK_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "bus_sender.h"
#include "common/mutex.h"
#include "output/sink.h"
#include "output/spool/spool.h"

namespace output
{

struct BusPlan {
    BusOptions bus;
    std::string spool; /* its directory */
    SpoolLimits limits;
    uint64_t heartbeat_ms = 60'000; /* 0: none */
};

class BusSink : public Sink
{
public:
    explicit BusSink(const BusPlan &plan);

    bool open(std::string &error) override;
    size_t accept(std::span<const Record> records) override;
    void flush() override {} /* what was accepted is on its way */
    bool drain(uint64_t timeout_ms) override;
    bool keeps_waiting() const override { return true; } /* in the spool */
    uint64_t safe() const override;
    Condition condition() const override;
    SinkFigures figures() const override;

private:
    struct Counts {
        std::atomic<uint64_t> accepted = 0, bytes = 0, losses = 0;
    };
    /* The sending thread's. */
    struct Own {
        uint64_t settle_at = 0, tell_at = 0, beat_at = 0;
        uint64_t told = 0; /* dropped records that a record of ours told of */
        uint64_t number = 0;
    };

    void tick(uint64_t now);
    bool append_own(const char *kind, uint64_t time_ns, const std::string &text);
    void tell_dropped();
    void beat();
    uint64_t dropped() const;
    void note_disk(bool works, const std::string &error);

    const BusPlan plan_;
    Spool spool_;
    std::vector<SpoolRecord> records_;
    Counts counts_;
    Own own_;
    mutable common::Mutex disk_lock_;
    Condition disk_ GUARDED_BY(disk_lock_);
    BusSender sender_; /* last: its thread ends before what it uses does */
};

}  // namespace output

#endif
