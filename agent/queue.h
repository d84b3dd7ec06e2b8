/*
 * queue.h: events on their way from the monitor thread to the main thread.
 *
 * Bounded, one producer, one consumer. The producer appends to a batch under a lock held for a copy's time; the
 * consumer takes the whole batch and gives an empty one back, so that neither allocates once both batches have grown
 * to what the load needs. The consumer is woken only when it has said that it sleeps.
 */
#ifndef AGENT_QUEUE_H
#define AGENT_QUEUE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/mutex.h"
#include "process_info.h"

namespace agent
{

struct Identity; /* paths.h */

enum class Known : uint8_t { kUnknown, kNo, kYes };

/* One event as the formatters see it. The views are valid as long as the batch that holds it; `path` ends in a NUL. */
struct Event {
    uint64_t time_ns;
    uint32_t mask;
    uint32_t pid;
    uint32_t source; /* index of the instance that delivered it */
    std::string_view path;
    std::string_view container;     /* empty where there is none */
    const ProcessInfo *process;     /* null where not known */
    bool deleted = false;           /* the path's name was gone already */
    bool found = false;             /* no record said so: it was there when its directory was looked into */
    Known dir = Known::kUnknown;    /* whether it is about a directory */
    std::string_view from{};        /* of a rename: the old path; empty: not known, or told by an event of its own */
    uint64_t move = 0;              /* of the halves of one rename the same; 0: not known */
    const Identity *file = nullptr; /* what is at the path by now; null: not looked at, or it went */
};

class Batch
{
public:
    size_t size() const { return rows_.size(); }
    bool empty() const { return rows_.empty(); }
    size_t bytes() const { return text_.size(); }
    Event event(size_t i) const;
    void append(const Event &event, ProcessPtr process);
    void append(const Batch &other);
    void move_last(Batch &to); /* behind what is there; there is an event */
    void clear();

private:
    struct Row {
        uint64_t time_ns;
        uint32_t mask, pid, source;
        uint32_t path, path_length, container_length; /* the container's text follows the path and its NUL */
        Known dir;
        uint64_t move;
        ProcessPtr process;
    };
    std::vector<Row> rows_;
    std::string text_;
};

/* Where a session takes its events from. */
class EventSource
{
public:
    virtual ~EventSource() = default;

    /* Replaces `batch` by everything that has come; false when that is nothing. */
    virtual bool take(Batch &batch) = 0;
    /* Before the session waits for more. False: an event has come, do not wait. */
    virtual bool prepare_to_sleep() = 0;
};

class EventQueue : public EventSource
{
public:
    EventQueue(size_t max_events, size_t max_bytes);
    ~EventQueue() override;
    EventQueue(const EventQueue &) = delete;
    EventQueue &operator=(const EventQueue &) = delete;

    /* Producer. False: the queue is full and the event is not in it. */
    bool push(const Event &event, ProcessPtr process);
    bool full() const { return full_.load(std::memory_order_relaxed); } /* any thread */
    size_t size() const;                                                /* any thread */

    /* Any thread, and signal handlers: makes wake_fd() readable, which stays so until clear_wake(). */
    void wake() const;

    /* Consumer. After prepare_to_sleep() the next event makes wake_fd() readable. */
    bool take(Batch &batch) override;
    bool prepare_to_sleep() override;
    void clear_wake() const;
    int wake_fd() const { return wake_fd_; } /* -1: the kernel gave none */

private:
    const size_t max_events_, max_bytes_;
    const int wake_fd_;
    mutable common::Mutex lock_;
    Batch incoming_ GUARDED_BY(lock_);
    bool sleeping_ GUARDED_BY(lock_) = false; /* the next push wakes the consumer */
    std::atomic<bool> full_ = false;          /* written under the lock */
};

}  // namespace agent

#endif
