#include "linux/fs/fs_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

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
    uint32_t size, begin, end; /* bytes of data; those that wait */
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
    *made = {nullptr, static_cast<uint32_t>(size), 0, 0};
    fs_queue_count(queue, sizeof(struct fs_block) + size);
    if (last)
        last->next = made;
    else
        queue->first = made;
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

/* The counter is written at most once between two reads: neither call can block or fail. */
void call(struct fs_queue *queue)
{
    const uint64_t one = 1;
    if (!queue->called && write(queue->event_fd, &one, sizeof one) == sizeof one)
        queue->called = true;
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
    queue->called = false;
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
        call(queue);
    }
    pthread_mutex_unlock(&queue->lock);
    return block != nullptr;
}

bool fs_queue_take(struct fs_queue *queue, struct fs_queued *out)
{
    pthread_mutex_lock(&queue->lock);
    while (queue->first != queue->last && queue->first->begin == queue->first->end)
        free_first(queue);
    struct fs_block *block = queue->first;
    if (block && block->begin == block->end)
        block->begin = block->end = 0; /* the only one: it is kept for what comes */
    const bool waits = block && block->end > 0;
    if (waits) {
        struct head head;
        const char *at = data_of(block) + block->begin;
        memcpy(&head, at, sizeof head);
        *out = {at + sizeof head, head.kinds, head.pid};
        block->begin += head.size;
    } else {
        answer(queue);
    }
    pthread_mutex_unlock(&queue->lock);
    return waits;
}

void fs_queue_call(struct fs_queue *queue)
{
    pthread_mutex_lock(&queue->lock);
    call(queue);
    pthread_mutex_unlock(&queue->lock);
}
