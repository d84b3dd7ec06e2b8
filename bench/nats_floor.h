/*
 * nats_floor.h: what is the least that records into a JetStream cost: the engine's own asynchronous call.
 */
#ifndef BENCH_NATS_FLOOR_H
#define BENCH_NATS_FLOOR_H

#include <cstddef>
#include <cstdint>

/* Publishes `count` messages of that many bytes, with the subject and headers that an output gives them, and waits
 * until each is acknowledged. Null, or what went wrong. */
const char *publish_floor(const char *server, const char *boot, size_t length, uint64_t count);

#endif
