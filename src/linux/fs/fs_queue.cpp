#include "linux/fs/fs_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "linux/descriptor.h"

namespace
{

/* An event in a block: this, the path and its terminator, up to the next multiple of its alignment. */
struct head {
    uint32_t size, kinds, pid;
};

/* A small limit must have room for several blocks, a big one is for many events. */
constexpr size_t kBlockMax = size_t{64} * 1024, kBlocksInLimit = 16;

uint32_t size_of_event(uint32_t path_len)
{
    constexpr uint32_t kAlign = alignof(struct head);
    return (static_cast<uint32_t>(sizeof(struct head)) + path_len + 1 + kAlign - 1) / kAlign * kAlign;
}

}  // namespace

struct fs_block {
    struct fs_block *next;
    uint32_t size, end; /* bytes of data; those with events in them */
};

namespace
{

char *data_of(struct fs_block *block) { return reinterpret_cast<char *>(block + 1); }

size_t block_size(const struct fs_queue *queue, uint32_t event)
{
    const size_t share = queue->limit / kBlocksInLimit;
    const size_t size = share < kBlockMax ? share : kBlockMax;
    return size > event ? size : event;
}

/* The counter is written at most once between two reads: neither call can block or fail. */
void write_counter(const struct fs_queue *queue)
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(queue->event_fd, &one, sizeof one);
}

/* With the lock. Whether the counter is to be written, which whoever is woken by it should not have to wait for: it may
 * come after the read that it is meant for, and causes a look in vain then. */
bool is_call_due(struct fs_queue *queue) { return !std::exchange(queue->called, true); }

void call(struct fs_queue *queue)
{
    if (is_call_due(queue))
        write_counter(queue);
}

/* A block with room for the event behind the others; null: there is no memory. */
struct fs_block *room_for(struct fs_queue *queue, uint32_t event)
{
    struct fs_block *last = queue->last;
    if (last && last->size - last->end >= event)
        return last;
    const size_t size = block_size(queue, event);
    if (sizeof(struct fs_block) + size > fs_queue_room(queue))
        return nullptr;
    auto *made = static_cast<struct fs_block *>(malloc(sizeof(struct fs_block) + size));
    if (!made)
        return nullptr;
    *made = {nullptr, static_cast<uint32_t>(size), 0};
    fs_queue_count(queue, sizeof(struct fs_block) + size);
    if (last) {
        last->next = made;
        call(queue); /* held back or not: a block full of events waits */
    } else {
        queue->first = made;
    }
    queue->last = made;
    return made;
}

void free_first(struct fs_queue *queue)
{
    struct fs_block *block = queue->first;
    queue->first = block->next;
    if (!queue->first)
        queue->last = nullptr;
    fs_queue_uncount(queue, sizeof(struct fs_block) + block->size);
    free(block);
}

/* What was put in since the last look. False: nothing waits. */
bool look(struct fs_queue *queue)
{
    const bool done = queue->first && queue->begin == queue->first->end;
    if (done && queue->first != queue->last)
        free_first(queue);
    else if (done)
        queue->first->end = 0; /* the only one: it is kept for what comes */
    if (done)
        queue->begin = 0;
    queue->seen = queue->first ? queue->first->end : 0;
    return queue->begin < queue->seen;
}

void answer(struct fs_queue *queue)
{
    uint64_t count;
    if (queue->called && read(queue->event_fd, &count, sizeof count) == sizeof count)
        queue->called = false;
}

}  // namespace

int fs_queue_open(struct fs_queue *queue, size_t limit)
{
    queue->first = queue->last = nullptr;
    queue->begin = queue->seen = 0;
    queue->called = queue->held = queue->due = false;
    queue->memory = 0;
    queue->limit = limit;
    queue->event_fd = descriptor_settle(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (queue->event_fd < 0)
        return -1;
    pthread_mutex_init(&queue->lock, nullptr);
    return 0;
}

void fs_queue_close(struct fs_queue *queue)
{
    if (queue->event_fd < 0)
        return;
    while (queue->first)
        free_first(queue);
    pthread_mutex_destroy(&queue->lock);
    close(queue->event_fd);
    queue->event_fd = -1;
}

bool fs_queue_put(struct fs_queue *queue, const char *path, uint32_t path_len, uint32_t kinds, uint32_t pid)
{
    const struct head head = {size_of_event(path_len), kinds, pid};
    pthread_mutex_lock(&queue->lock);
    struct fs_block *block = room_for(queue, head.size);
    if (block) {
        char *at = data_of(block) + block->end;
        memcpy(at, &head, sizeof head);
        memcpy(at + sizeof head, path, path_len);
        at[sizeof head + path_len] = '\0';
        block->end += head.size;
        if (queue->held)
            queue->due = true;
        else
            call(queue);
    }
    pthread_mutex_unlock(&queue->lock);
    return block != nullptr;
}

bool fs_queue_take(struct fs_queue *queue, struct fs_queued *out)
{
    if (queue->begin == queue->seen) {
        pthread_mutex_lock(&queue->lock);
        const bool waits = look(queue);
        if (!waits)
            answer(queue);
        pthread_mutex_unlock(&queue->lock);
        if (!waits)
            return false;
    }
    struct head head;
    const char *at = data_of(queue->first) + queue->begin;
    memcpy(&head, at, sizeof head);
    *out = {at + sizeof head, head.kinds, head.pid};
    queue->begin += head.size;
    return true;
}

size_t fs_queue_waiting(struct fs_queue *queue)
{
    size_t bytes = 0;
    pthread_mutex_lock(&queue->lock);
    for (const struct fs_block *block = queue->first; block; block = block->next)
        bytes += block->end;
    pthread_mutex_unlock(&queue->lock);
    return bytes - queue->begin;
}

void fs_queue_hold(struct fs_queue *queue)
{
    pthread_mutex_lock(&queue->lock);
    queue->held = true;
    pthread_mutex_unlock(&queue->lock);
}

void fs_queue_release(struct fs_queue *queue)
{
    pthread_mutex_lock(&queue->lock);
    const bool is_due = queue->due && is_call_due(queue);
    queue->held = queue->due = false;
    pthread_mutex_unlock(&queue->lock);
    if (is_due)
        write_counter(queue);
}

void fs_queue_call(struct fs_queue *queue)
{
    pthread_mutex_lock(&queue->lock);
    call(queue);
    pthread_mutex_unlock(&queue->lock);
}
