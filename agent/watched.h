/*
 * watched.h: what a session watches: paths (watched_paths.h) or the whole system (watched_system.h).
 */
#ifndef AGENT_WATCHED_H
#define AGENT_WATCHED_H

#include <cstdint>
#include <string>

#include "intake.h"
#include "queue.h"

namespace agent
{

/* Not for more than one thread at a time. */
class Watched
{
public:
    virtual ~Watched() = default;

    /* Puts the watches in place, with callbacks of `intake`. Everything is in place before the first event is shown;
     * what comes meanwhile waits in the queue. False: the reason was reported. */
    virtual bool place(Intake &intake) = 0;
    /* Reports that all is in place. */
    virtual void report_start() = 0;

    /* Around the events of a batch: before the first is shown; what of an event is still to be shown, 0: nothing;
     * after each, after the last. */
    virtual void before(const Batch &) {}
    virtual uint32_t news(const Event &event) { return event.mask; }
    virtual void shown(const Event &) {}
    virtual void after() {}

    /* The regular look for what makes no event. */
    virtual void look() = 0;
    virtual void mounts_changed() = 0;
    /* Marks what is new in the trees. */
    virtual void complete_trees() {}
    /* Readable while there is something to complete; -1: there never is. */
    virtual int new_directories_fd() const { return -1; }

    struct LeftOut {
        uint64_t reported = 0; /* in loss records */
        std::string latest;    /* the latest of them that is known by its path */
    };
    /* `count` directories could not be watched: a record for each that is known by name and was not reported before,
     * and a single record for all others. */
    virtual LeftOut report_left_out(uint64_t count) = 0;

    /* After a loss: whether a directory found no room, and whether that one finds room by now; a walk that brings
     * everything in line with the disk, in steps (true: there is more); and that all is as it should be from now on. */
    virtual bool lacks_room() const { return false; }
    virtual bool has_room() { return true; }
    virtual void start_walk() {}
    virtual bool walk() { return false; }
    virtual void report_resynced() {}

    /* At the end, where the monitor goes on: takes all back. Nothing comes any more once it has returned. */
    virtual void leave() {}

    virtual bool is_expecting() const { return false; } /* something that only look() finds */
    virtual bool all_ended() const { return false; }    /* nothing can come any more */
};

}  // namespace agent

#endif
