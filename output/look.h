/*
 * look.h: what no source says of an event, and a look at its path does.
 */
#ifndef OUTPUT_LOOK_H
#define OUTPUT_LOOK_H

#include "agent/paths.h"
#include "agent/queue.h"
#include "format.h"

namespace output
{

/* What is wanted of a look. */
struct Look {
    bool dir = false;  /* whether it is a directory, where the source does not say so */
    bool file = false; /* what it is, in `event.file` */

    bool operator==(const Look &) const = default;
};

inline Look look_of(const Formatter &form) { return {form.wants_dir(), form.wants_file()}; }

/* Puts into the event what is at its path now, which `there` keeps; nothing where that went or nothing is there.
 * `happened`: all kinds of the event, shown or not. */
void look_at_path(agent::Event &event, uint32_t happened, const Look &wanted, agent::Identity &there);

}  // namespace output

#endif
