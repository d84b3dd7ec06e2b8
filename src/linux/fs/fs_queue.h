/*
 * fs_queue.h: events with their paths on the way from the reader thread to the monitor thread, in memory that has a
 * limit. Whoever puts events in never waits for whoever takes them out.
 *
 * A descriptor can be read while anything waits; but whoever puts many in may hold that back until it is done, so that
 * the other thread is woken once. Any thread may call; events are put in by one thread at a time, and taken out by one
 * thread at a time.
 */
#ifndef FMON_FS_QUEUE_H
#define FMON_FS_QUEUE_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

struct fs_block; /* a piece of memory with events in it */

struct fs_queue {
    pthread_mutex_t lock;
    struct fs_block *first, *last;
    uint32_t begin, seen;       /* in the first block, of whoever takes out: the next event, and up to where it may look
                                   without the lock */
    int event_fd;               /* -1: none */
    bool called;                /* event_fd can be read */
    bool held, due;             /* it is not to be yet; it is, then */
    std::atomic<size_t> memory; /* bytes held here, and by others that count theirs in */
    size_t limit;
};

/* What is taken out: valid until the next call. */
struct fs_queued {
    const char *path;
    uint32_t kinds, pid;
};

/* -1 and errno: no descriptor. */
int fs_queue_open(struct fs_queue *queue, size_t limit);

/* Frees what waits. An unopened queue (event_fd -1) is left alone. */
void fs_queue_close(struct fs_queue *queue);

/* False: no memory, or at the limit; the event is not in. */
bool fs_queue_put(struct fs_queue *queue, const char *path, uint32_t path_len, uint32_t kinds, uint32_t pid);

/* The oldest event; false: none waits. */
bool fs_queue_take(struct fs_queue *queue, struct fs_queued *out);

/* Bytes of events that wait. Of whoever takes out. */
size_t fs_queue_waiting(struct fs_queue *queue);

/* Until the release a descriptor that cannot be read stays so, but for a block full of events. */
void fs_queue_hold(struct fs_queue *queue);
void fs_queue_release(struct fs_queue *queue);

/* Makes the descriptor readable: there is something else to look at. */
void fs_queue_call(struct fs_queue *queue);

/* Bytes that others hold under the same limit, which only holds back what is put in. */
inline void fs_queue_count(struct fs_queue *queue, size_t more) { queue->memory += more; }
inline void fs_queue_uncount(struct fs_queue *queue, size_t less) { queue->memory -= less; }
inline size_t fs_queue_room(const struct fs_queue *queue)
{
    const size_t held = queue->memory;
    return held < queue->limit ? queue->limit - held : 0;
}

#endif
