/*
 * look.h: what no source says of an event, and a look at its path does.
 */
#ifndef OUTPUT_LOOK_H
#define OUTPUT_LOOK_H

#include "agent/queue.h"

namespace output
{

/* Where the source does not say whether the event is about a directory, says what is at its path now; nothing where
 * that went or nothing is there. `happened`: all kinds of the event, shown or not. */
void look_for_directory(agent::Event &event, uint32_t happened);

}  // namespace output

#endif
