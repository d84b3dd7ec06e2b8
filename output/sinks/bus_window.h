/*
 * bus_window.h: records between being read from the spool and being acknowledged by a bus, in the order of the spool.
 */
#ifndef OUTPUT_SINKS_BUS_WINDOW_H
#define OUTPUT_SINKS_BUS_WINDOW_H

#include <cstdint>
#include <deque>
#include <string>

#include "fmon_bus.h"
#include "output/spool/spool.h"

namespace output
{

struct BusRecord {
    enum class State { kWaiting, kSent, kDone };

    SpoolEntry entry;
    std::string id, subject;
    State state = State::kWaiting;
    bool again = false; /* was sent before */
};

class BusWindow
{
public:
    /* The ordinals grow. */
    void push(BusRecord record);

    size_t size() const { return records_.size(); }
    size_t bytes() const { return bytes_; }
    size_t sent() const { return sent_; } /* without an outcome */
    bool empty() const { return records_.empty(); }

    /* Index of the first record that waits to be sent, from the index `from` on; size(): none does. */
    size_t next_waiting(size_t from) const;
    size_t first_waiting() { return scan_ = next_waiting(scan_); }
    const BusRecord &at(size_t index) const { return records_[index]; }
    void mark_sent(size_t index);
    void take_back(size_t index); /* it was not sent after all */

    /* What a bus says of the record with this ordinal; of one that is not in the window, or that is done: nothing
     * happens. */
    void settle(uint64_t ordinal, enum fmon_bus_outcome outcome);

    /* Takes the records away that are done with, from the first on to one that is not; false: there is none. */
    bool pop_done(BusRecord &out);

private:
    size_t find(uint64_t ordinal) const; /* index; size(): it is not there */

    std::deque<BusRecord> records_;
    size_t bytes_ = 0, sent_ = 0;
    size_t scan_ = 0; /* no record before this index waits */
};

}  // namespace output

#endif
