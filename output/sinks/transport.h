/*
 * transport.h: how packets get where they are wanted. A QueuedSink has one, and calls all but open() and encode() on
 * its own thread.
 */
#ifndef OUTPUT_SINKS_TRANSPORT_H
#define OUTPUT_SINKS_TRANSPORT_H

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "output/sink.h"
#include "packets.h"

namespace output
{

/* What a transport waits with: a wait ends when the sink does. */
class Patience
{
public:
    /* `end` becomes readable when the sink ends. */
    explicit Patience(int end) : end_(end) {}

    /* The events of `fd` that came within `ms`; 0: none, or the sink ends. */
    short wait(int fd, short events, uint64_t ms) const;
    bool over() const;
    int end() const { return end_; }

private:
    int end_;
};

/* What became of packets. */
struct Carried {
    static constexpr uint64_t kBackOff = UINT64_MAX;

    size_t done = 0;              /* arrived, from the first on */
    size_t dropped = 0;           /* of those behind: they never will, and are not to be tried again */
    std::string trouble = {};     /* why no more than these; empty: there is none. One line, without secrets */
    uint64_t pause_ms = kBackOff; /* after trouble, before the next attempt; else as the sink thinks */
    uint64_t again_ms = 0; /* without trouble: the packets behind are on their way; when to look whether they arrived */
};

class Transport
{
public:
    virtual ~Transport() = default;

    /* As of a Sink. */
    virtual bool open(std::string &) { return true; }

    /* Appends what is sent for a record. Called by accept(), while other packets may be carried: touches nothing that
     * carry() changes. False: it cannot be sent, and counts as dropped; nothing was appended. */
    virtual bool encode(const Record &record, std::string &out)
    {
        out += record.text;
        return true;
    }

    /* Packets, never none; those that are neither done nor dropped come again, first and the same. Waits a second at
     * most without getting on, and what a far side needs to be reached. */
    virtual Carried carry(const Packets &packets, const Patience &patience) = 0;

    /* What else there is to do, after packets and whenever there are none: in steps of some milliseconds. The
     * milliseconds until there is more; -1: nothing but what descriptors() tell. */
    virtual int idle() { return -1; }
    /* Adds those that idle() is to be called for. */
    virtual void descriptors(std::vector<struct pollfd> &) {}

    /* At the end, when all packets are carried: what makes them safe. Waits until the deadline (steady_ms) at most. */
    virtual bool finish(uint64_t /*deadline_ms*/, const Patience &) { return true; }

    /* What a person should hear though nothing is stuck; empty: nothing. */
    const std::string &note() const { return note_; }
    /* Records that were thought to have arrived and did not, since the last call. */
    uint64_t take_lost() { return std::exchange(lost_, 0); }

protected:
    void say(std::string text) { note_ = std::move(text); }
    void lose(uint64_t records) { lost_ += records; }

private:
    std::string note_;
    uint64_t lost_ = 0;
};

}  // namespace output

#endif
