#include "rename_pairs.h"

#include "orx_fmon.h"

namespace agent
{

namespace
{

bool is_half(const Event &event) { return event.move && (event.mask & (FMON_MOVED_FROM | FMON_MOVED_TO)); }

}  // namespace

void RenamePairs::gather(Batch &batch, uint64_t now, bool last)
{
    const bool has_waited = last || (batch.empty() && now >= due_);
    if (batch.empty() && !has_waited)
        return;
    if (!held_.empty()) {
        held_.append(batch);
        std::swap(batch, held_);
        held_.clear();
    }
    if (has_waited || batch.empty() || !ends_in_a_half(batch))
        return;
    batch.move_last(held_);
    due_ = now + kPatienceMs;
}

// The other half may stand before it, in the record of an earlier event of its path.
bool RenamePairs::ends_in_a_half(const Batch &batch) const
{
    const Event last = batch.event(batch.size() - 1);
    if (!is_half(last) || !(last.mask & FMON_MOVED_FROM))
        return false;
    for (size_t i = 0; i + 1 < batch.size(); i++)
        if (batch.event(i).move == last.move && batch.event(i).source == last.source)
            return false;
    return true;
}

void RenamePairs::begin(const Batch &batch)
{
    batch_ = &batch;
    renames_.clear();
    for (size_t i = 0; i < batch.size(); i++) {
        const Event event = batch.event(i);
        if (!is_half(event))
            continue;
        Halves &halves = renames_[{event.source, event.move}];
        note(event.mask & FMON_MOVED_FROM ? halves.from : halves.to, i);
    }
}

// Through several mounts a rename has several paths: which old one belongs to which new one is not known.
const RenamePairs::Halves *RenamePairs::find(const Event &event) const
{
    const auto found = is_half(event) ? renames_.find({event.source, event.move}) : renames_.end();
    const bool is_pair = found != renames_.end() && found->second.from < kSeveral && found->second.to < kSeveral;
    return is_pair ? &found->second : nullptr;
}

void RenamePairs::join(Event &event) const
{
    const Halves *const halves = find(event);
    if (!halves)
        return;
    if (event.mask & FMON_MOVED_FROM)
        event.mask &= ~uint32_t{FMON_MOVED_FROM};
    else
        event.from = batch_->event(halves->from).path;
}

}  // namespace agent
