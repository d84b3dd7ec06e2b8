#include "delivery.h"

#include <exception>

namespace kprobe
{

Delivery::Delivery(Records &records, Groups &groups, CurrentMounts &mounts)
    : records_(records), groups_(groups), mounts_(mounts)
{
}

void Delivery::expect(size_t probe, Recipe recipe)
{
    const common::Lock lock(lock_);
    if (recipes_.size() <= probe)
        recipes_.resize(probe + 1);
    recipes_[probe] = std::move(recipe);
}

void Delivery::lay_out(size_t probe, Layout layout) noexcept
{
    const common::Lock lock(lock_);
    recipes_[probe].layout = std::move(layout);
}

// The record as its probe's plan says. False: it cannot be read.
bool Delivery::make(const QueuedRecord &record, std::vector<unsigned char> &out, Made &made)
{
    const common::Lock lock(lock_);
    const Recipe &recipe = recipes_[record.probe];
    out.resize(recipe.layout.size());
    if (!recipe.layout.fill(record.raw, record.raw_size, out.data()))
        return false;
    made = {recipe.callback, recipe.by_device, recipe.inotify,
            recipe.names_group ? recipe.layout.group(record.raw) : 0};
    return true;
}

Delivery::Outcome Delivery::hand_on(const QueuedRecord &record, std::vector<unsigned char> &out)
{
    Made made;
    if (!make(record, out, made))
        return Outcome::kUnreadable;
    if (made.inotify && !groups_.has(made.group))
        return Outcome::kLeftOut;
    if (made.by_device && !mounts_.name_mount(out.data()))
        return Outcome::kUnreadable;
    if (made.inotify && record.pid == 0 && !ends_.passes(out.data()))
        return Outcome::kLeftOut;
    made.callback(record.pid, out.data(), static_cast<uint32_t>(out.size()));
    return Outcome::kDelivered;
}

int Delivery::parse(size_t budget)
{
    if (!parsing_.try_lock())  // from inside a callback
        return 0;
    const common::Lock parsing(parsing_, common::kAdopt);
    records_.gather(budget, batch_);
    groups_.forget_closed();  // after the records were made: none of them can be of who got the memory afterwards
    std::vector<unsigned char> out;
    uint64_t good = 0, bad = 0;
    for (const QueuedRecord &record : batch_.records) {
        Outcome outcome = Outcome::kUnreadable;
        try {
            outcome = hand_on(record, out);
        } catch (const std::exception &) {  // out of memory: counted as unreadable
        }
        good += outcome == Outcome::kDelivered;
        bad += outcome == Outcome::kUnreadable;
    }
    const common::Lock lock(lock_);
    delivered_ += good;
    unreadable_ += bad;
    return static_cast<int>(good);
}

void Delivery::add_counts(kp_losses &out)
{
    const common::Lock lock(lock_);
    out.delivered += delivered_;
    out.unreadable += unreadable_;
}

}  // namespace kprobe
