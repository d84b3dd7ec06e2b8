#include "queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace agent
{

Event Batch::event(size_t i) const
{
    const Row &row = rows_[i];
    const std::string_view text(text_);
    return {row.time_ns,
            row.mask,
            row.pid,
            row.source,
            text.substr(row.path, row.path_length),
            text.substr(row.path + row.path_length + 1, row.container_length),
            row.process.get(),
            false,
            false,
            row.dir,
            {},
            row.move};
}

// Views would not survive the growth of the text, so rows hold offsets. Memory that runs out leaves all as it was.
void Batch::append(const Event &event, ProcessPtr process)
{
    text_.reserve(text_.size() + event.path.size() + 1 + event.container.size());
    rows_.push_back({event.time_ns, event.mask, event.pid, event.source, static_cast<uint32_t>(text_.size()),
                     static_cast<uint32_t>(event.path.size()), static_cast<uint32_t>(event.container.size()), event.dir,
                     event.move, std::move(process)});
    text_.append(event.path);
    text_.push_back('\0');
    text_.append(event.container);
}

void Batch::append(const Batch &other)
{
    for (size_t i = 0; i < other.size(); i++)
        append(other.event(i), other.rows_[i].process);
}

void Batch::move_last(Batch &to)
{
    to.append(event(size() - 1), rows_.back().process);
    text_.resize(rows_.back().path);
    rows_.pop_back();
}

void Batch::clear()
{
    rows_.clear();
    text_.clear();
}

EventQueue::EventQueue(size_t max_events, size_t max_bytes)
    : max_events_(max_events), max_bytes_(max_bytes), wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

EventQueue::~EventQueue()
{
    if (wake_fd_ >= 0)
        close(wake_fd_);
}

bool EventQueue::push(const Event &event, ProcessPtr process)
{
    bool wanted;
    {
        const common::Lock hold(lock_);
        if (full())
            return false;
        incoming_.append(event, std::move(process));
        full_ = incoming_.size() >= max_events_ || incoming_.bytes() >= max_bytes_;
        wanted = std::exchange(sleeping_, false);
    }
    if (wanted)
        wake();
    return true;
}

size_t EventQueue::size() const
{
    const common::Lock hold(lock_);
    return incoming_.size();
}

void EventQueue::wake() const
{
    // Failure means that the counter is at its limit: then the consumer has been woken already.
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wake_fd_, &one, sizeof one);
}

bool EventQueue::take(Batch &batch)
{
    batch.clear();
    const common::Lock hold(lock_);
    std::swap(batch, incoming_);
    sleeping_ = full_ = false;
    return !batch.empty();
}

// Emptiness and the flag change under one lock: an event that comes right after is sure to find the flag.
bool EventQueue::prepare_to_sleep()
{
    const common::Lock hold(lock_);
    sleeping_ = incoming_.empty();
    return sleeping_;
}

void EventQueue::clear_wake() const
{
    uint64_t count;
    [[maybe_unused]] const ssize_t n = read(wake_fd_, &count, sizeof count);
}

}  // namespace agent
