/*
 * fs_reader.h: the thread that takes records from the kernel at once, whatever clients do meanwhile. Between two passes
 * that found something lies a short rest, so that records are taken many at a time and the kernel may join them.
 */
#ifndef FMON_FS_READER_H
#define FMON_FS_READER_H

#include <pthread.h>

struct fs_reader_work {
    void *arg;
    int group_fd;            /* can be read: there are records */
    int mounts_fd;           /* an exception: the mount table changed; -1: nobody asks */
    bool (*pass)(void *arg); /* takes what waits; false: there was nothing */
    void (*mounts)(void *arg);
    int rest_ms; /* between two passes that found something */
};

struct fs_reader {
    struct fs_reader_work work;
    pthread_t thread;
    int stop_fd; /* -1: no thread */
};

/* Starts the thread, which lets no signal interrupt the agent's own handling. -1 and errno. */
int fs_reader_start(struct fs_reader *reader, const struct fs_reader_work *work);

/* Ends the thread and waits until it has: what it works with may go then. Without one nothing happens. */
void fs_reader_stop(struct fs_reader *reader);

#endif
