#include "bus_sink.h"

#include <algorithm>

#include "agent/time_format.h"

namespace output
{

namespace
{

constexpr uint64_t kSettleMs = 200, kTellMs = 1000;

/* On a bus a record is a message, which needs nothing to end it. */
std::string_view without_end(std::string_view text)
{
    if (!text.empty() && (text.back() == '\n' || text.back() == '\0'))
        text.remove_suffix(1);
    return text;
}

SpoolRecord spooled(const Record &record)
{
    SpoolRecord out;
    out.number = record.number;
    out.kind = bus_kind(record);
    if (record.event)
        out.key = record.event->path.substr(0, kMaxSpoolKey);
    out.text = without_end(record.text);
    return out;
}

}  // namespace

BusSink::BusSink(const BusPlan &plan)
    : plan_(plan),
      spool_(plan.spool, plan.bus.origin.boot + ":" + plan.bus.origin.instance, plan.limits),
      sender_(plan_.bus, spool_, [this](uint64_t now) { tick(now); })
{
}

bool BusSink::open(std::string &error)
{
    if (!spool_.open(error))
        return false;
    const uint64_t now = agent::steady_ms();
    own_.settle_at = now + kSettleMs;
    own_.beat_at = now + plan_.heartbeat_ms;
    if (!sender_.start())
        error = "the system gives no thread";
    return error.empty();
}

size_t BusSink::accept(std::span<const Record> records)
{
    records_.clear();
    for (const Record &record : records)
        records_.push_back(spooled(record));
    std::string error;
    const size_t taken = spool_.append(records_, error);
    note_disk(taken == records.size(), error);
    uint64_t bytes = 0, losses = 0;
    for (const Record &record : records.first(taken)) {
        bytes += record.text.size();
        losses += std::string_view(record.type) == "loss";
    }
    counts_.accepted += taken;
    counts_.bytes += bytes;
    counts_.losses += losses;
    sender_.wake();
    return taken;
}

void BusSink::note_disk(bool works, const std::string &error)
{
    const common::Lock lock(disk_lock_);
    if (!works && !disk_.stuck)
        disk_.since_ms = agent::steady_ms();
    disk_.stuck = !works;
    disk_.text = error;
}

uint64_t BusSink::dropped() const
{
    const SpoolFigures figures = spool_.figures();
    return figures.dropped + figures.damaged + sender_.figures().refused;
}

bool BusSink::drain(uint64_t timeout_ms) { return sender_.wait_until_empty(timeout_ms); }

uint64_t BusSink::safe() const { return sender_.figures().safe; }

Condition BusSink::condition() const
{
    {
        const common::Lock lock(disk_lock_);
        if (disk_.stuck)
            return disk_;
    }
    return sender_.condition();
}

SinkFigures BusSink::figures() const
{
    SinkFigures figures;
    figures.accepted = counts_.accepted;
    figures.bytes = counts_.bytes;
    figures.dropped = dropped();
    figures.retries = sender_.figures().retries;
    figures.waiting = spool_.figures().waiting;
    return figures;
}

void BusSink::tick(uint64_t now)
{
    if (now >= own_.tell_at) {
        own_.tell_at = now + kTellMs;
        tell_dropped();
    }
    if (plan_.heartbeat_ms != 0 && now >= own_.beat_at) {
        own_.beat_at = now + plan_.heartbeat_ms;
        beat();
    }
    if (now < own_.settle_at)
        return;
    own_.settle_at = now + kSettleMs;
    std::string error;
    if (!spool_.settle(now, error))
        note_disk(false, error);
}

/* The time is a number that no other record of ours had, neither before a crash nor after it. False: the disk takes
 * none. */
bool BusSink::append_own(const char *kind, uint64_t time_ns, const std::string &text)
{
    SpoolRecord record;
    record.number = own_.number = std::max(own_.number + 1, time_ns);
    record.own = true;
    record.kind = kind;
    record.text = text;
    std::string error;
    const bool taken = spool_.append({&record, 1}, error) != 0;
    if (!taken)
        note_disk(false, error);
    return taken;
}

/* A record that says so may itself be dropped: that counts, too, so that another one follows, whose total is right. */
void BusSink::tell_dropped()
{
    const uint64_t all = dropped();
    if (all == own_.told)
        return;
    const uint64_t time = agent::wall_clock_ns();
    if (append_own("loss", time, dropped_text(plan_.bus.origin, time, all - own_.told, all)))
        own_.told = all;
}

void BusSink::beat()
{
    const SinkFigures all = figures();
    const uint64_t time = agent::wall_clock_ns();
    BusFigures told;
    told.accepted = all.accepted;
    told.acknowledged = sender_.figures().acknowledged;
    told.dropped = all.dropped;
    told.waiting = all.waiting;
    told.losses = counts_.losses;
    told.spool_bytes = spool_.figures().bytes;
    append_own("heartbeat", time, heartbeat_text(plan_.bus.origin, time, told));
}

}  // namespace output
