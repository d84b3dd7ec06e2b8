#include "bus_window.h"

#include <algorithm>
#include <utility>

namespace output
{

void BusWindow::push(BusRecord record)
{
    bytes_ += record.entry.bytes.size();
    records_.push_back(std::move(record));
}

size_t BusWindow::next_waiting(size_t from) const
{
    while (from < records_.size() && records_[from].state != BusRecord::State::kWaiting)
        from++;
    return from;
}

void BusWindow::mark_sent(size_t index)
{
    records_[index].state = BusRecord::State::kSent;
    sent_++;
}

void BusWindow::take_back(size_t index)
{
    if (records_[index].state != BusRecord::State::kSent)
        return;
    records_[index].state = BusRecord::State::kWaiting;
    sent_--;
    scan_ = std::min(scan_, index);
}

size_t BusWindow::find(uint64_t ordinal) const
{
    /* Ordinals are without gaps but where the spool has dropped records. */
    const uint64_t guess = records_.empty() ? 0 : ordinal - records_.front().entry.ordinal;
    if (guess < records_.size() && records_[guess].entry.ordinal == ordinal)
        return guess;
    const auto found =
        std::lower_bound(records_.begin(), records_.end(), ordinal,
                         [](const BusRecord &record, uint64_t wanted) { return record.entry.ordinal < wanted; });
    const bool there = found != records_.end() && found->entry.ordinal == ordinal;
    return there ? static_cast<size_t>(found - records_.begin()) : records_.size();
}

void BusWindow::settle(uint64_t ordinal, enum fmon_bus_outcome outcome)
{
    const size_t index = find(ordinal);
    if (index == records_.size() || records_[index].state == BusRecord::State::kDone)
        return;
    BusRecord &record = records_[index];
    sent_ -= record.state == BusRecord::State::kSent;
    if (outcome != FMON_BUS_AGAIN) {
        record.state = BusRecord::State::kDone;
        return;
    }
    record.state = BusRecord::State::kWaiting;
    record.again = true;
    scan_ = std::min(scan_, index);
}

bool BusWindow::pop_done(BusRecord &out)
{
    if (records_.empty() || records_.front().state != BusRecord::State::kDone)
        return false;
    out = std::move(records_.front());
    records_.pop_front();
    bytes_ -= out.entry.bytes.size();
    scan_ -= scan_ > 0;
    return true;
}

}  // namespace output
