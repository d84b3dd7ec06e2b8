#include "queue.h"

#include <sys/mman.h>

#include <cstring>

namespace kprobe
{

namespace
{

constexpr size_t kAlign = 8, kKeep = size_t{1} << 18;  // what an empty queue keeps of its memory

}  // namespace

RecordQueue::~RecordQueue()
{
    if (bytes_)
        munmap(bytes_, size_);
}

bool RecordQueue::open(size_t bytes)
{
    void *map = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (map == MAP_FAILED)
        return false;
    bytes_ = static_cast<unsigned char *>(map);
    size_ = bytes;
    return true;
}

// An entry is never split. Where the rest of the memory is too small for it, it begins anew at the front, and the rest
// belongs to the entry before it (or, when there is none, the queue simply starts at the front).
bool RecordQueue::push(const QueuedRecord &record)
{
    const size_t need = (sizeof(Head) + record.raw_size + kAlign - 1) / kAlign * kAlign;
    if (count_ == 0)
        first_ = next_ = used_ = 0;
    size_t at = next_, gap = 0;
    if (size_ - at < need) {
        gap = size_ - at;
        at = 0;
    }
    if (size_ - used_ < need + gap)
        return false;
    if (gap != 0 && count_ != 0) {
        Head before;
        memcpy(&before, bytes_ + last_, sizeof(before));
        before.entry_size += static_cast<uint32_t>(gap);
        memcpy(bytes_ + last_, &before, sizeof(before));
        used_ += gap;
    }
    const Head head = {record.time, record.probe, record.pid, record.raw_size, static_cast<uint32_t>(need)};
    memcpy(bytes_ + at, &head, sizeof(head));
    memcpy(bytes_ + at + sizeof(head), record.raw, record.raw_size);
    last_ = at;
    next_ = at + need;
    used_ += need;
    peak_ = next_ > peak_ ? next_ : peak_;
    count_++;
    return true;
}

bool RecordQueue::peek(QueuedRecord &out) const
{
    if (count_ == 0)
        return false;
    Head head;
    memcpy(&head, bytes_ + first_, sizeof(head));
    out = {head.time, head.probe, head.pid, bytes_ + first_ + sizeof(head), head.raw_size};
    return true;
}

void RecordQueue::pop()
{
    Head head;
    memcpy(&head, bytes_ + first_, sizeof(head));
    first_ += head.entry_size;
    if (first_ >= size_)
        first_ = 0;
    used_ -= head.entry_size;
    if (--count_ == 0 && peak_ > kKeep) {
        madvise(bytes_ + kKeep, size_ - kKeep, MADV_DONTNEED);
        peak_ = 0;
    }
}

uint64_t RecordQueue::clear()
{
    const uint64_t had = count_;
    while (count_ != 0)
        pop();
    return had;
}

}  // namespace kprobe
