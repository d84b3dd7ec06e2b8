/*
 * sink.h: what takes an instance's records to where they are wanted: a file, a socket, a log, a message bus.
 *
 * A record belongs to its sink from the moment that accept() has counted it: it arrives, or is counted as dropped.
 * accept(), flush(), drain() and open() are called by one thread; condition(), safe() and figures() by any.
 */
#ifndef OUTPUT_SINK_H
#define OUTPUT_SINK_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "agent/queue.h"

namespace output
{

/* Where an instance's records come from. */
struct Origin {
    std::string host;     /* its name */
    std::string boot;     /* id of this run of the kernel */
    std::string instance; /* name */
};

/* The views are valid as long as the call that they are given to. */
struct Record {
    /* Grows from record to record of an instance within a boot, by at least 1; with boot and instance it is the
     * record's name everywhere. */
    uint64_t number;
    uint64_t time_ns;          /* wall clock */
    const char *type;          /* "event", "loss", "established", ... */
    std::string_view text;     /* in the form that the output asks for, with what ends a record */
    const agent::Event *event; /* null: of another type */
};

struct SinkFigures {
    uint64_t accepted = 0; /* records */
    uint64_t bytes = 0;    /* of them, before compression */
    uint64_t dropped = 0;  /* records that will not arrive */
    uint64_t retries = 0;  /* attempts beyond the first */
    uint64_t waiting = 0;  /* records that are accepted and not safe */
};

/* What an end has left behind. */
struct Leftover {
    uint64_t lost = 0; /* records that will not arrive */
    uint64_t kept = 0; /* records on disk, which go on their way when the output is opened again */

    void add(const Leftover &other)
    {
        lost += other.lost;
        kept += other.kept;
    }
};

struct Condition {
    bool stuck = false;    /* nothing gets on, or the last attempt failed */
    uint64_t since_ms = 0; /* of a clock that does not run backwards (agent::steady_ms) */
    std::string text;      /* why, one line for a person, without secrets */
};

class Sink
{
public:
    virtual ~Sink() = default;

    /* Once, before everything else. False, with one line in `error`: there is no point in going on. What may be there
     * later (a broker, a reader) is no reason. */
    virtual bool open(std::string &error) = 0;

    /* Takes records in their order and returns how many it took; fewer than all: it has no room now. Waits 100 ms at
     * most. */
    virtual size_t accept(std::span<const Record> records) = 0;

    /* Nothing follows for now: what has gathered goes on its way. Waits 100 ms at most. */
    virtual void flush() = 0;

    /* At the end: until all is safe or `timeout_ms` have passed. True: all is. */
    virtual bool drain(uint64_t timeout_ms) = 0;
    /* Whether what waits outlives the process. */
    virtual bool keeps_waiting() const { return false; }

    /* The number up to which all records are where they belong, or were dropped and counted; 0: none yet. */
    virtual uint64_t safe() const = 0;
    virtual Condition condition() const = 0;
    virtual SinkFigures figures() const = 0;
};

}  // namespace output

#endif
