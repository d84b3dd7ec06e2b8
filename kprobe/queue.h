/*
 * queue.h: records of one CPU that wait for the monitor: a ring of bytes of fixed size, oldest first.
 *
 * No lock of its own. Memory is touched as records come, and given back when the queue has run empty.
 */
#ifndef KPROBE_QUEUE_H
#define KPROBE_QUEUE_H

#include <cstddef>
#include <cstdint>

namespace kprobe
{

struct QueuedRecord {
    uint64_t time;
    uint32_t probe;  // index in its instance
    uint32_t pid;    // 0: of a thread that is left out
    const unsigned char *raw;
    uint32_t raw_size;
};

class RecordQueue
{
public:
    RecordQueue() = default;
    ~RecordQueue();
    RecordQueue(const RecordQueue &) = delete;
    RecordQueue &operator=(const RecordQueue &) = delete;

    bool open(size_t bytes);

    // Copies the record. False: no room.
    bool push(const QueuedRecord &record);

    // The oldest record; it stays valid until it is popped. False: none.
    bool peek(QueuedRecord &out) const;
    void pop();
    uint64_t clear();  // returns how many there were

    bool empty() const { return count_ == 0; }
    uint64_t count() const { return count_; }

private:
    struct Head {
        uint64_t time;
        uint32_t probe, pid, raw_size, entry_size;  // entry_size: with what is skipped at the end of the memory
    };

    unsigned char *bytes_ = nullptr;
    size_t size_ = 0, first_ = 0, next_ = 0, used_ = 0, peak_ = 0, last_ = 0;
    uint64_t count_ = 0;
};

}  // namespace kprobe

#endif
