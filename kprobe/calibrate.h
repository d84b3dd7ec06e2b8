/*
 * calibrate.h: finds structure offsets on a kernel that does not describe its types.
 *
 * A probe fetches every candidate at once while this thread does something whose outcome it knows; what must be there
 * is then looked for.
 */
#ifndef KPROBE_CALIBRATE_H
#define KPROBE_CALIBRATE_H

#include "facts.h"

namespace kprobe
{

// Fills what it can find; the rest stays unknown.
void calibrate(const Tracefs &tracefs, Facts &out);

// Whether the kernel counts a fetch that fails as a hit that it could not serve. False also where that does not show.
bool counts_failed_fetches(const Tracefs &tracefs, const Facts &facts);

}  // namespace kprobe

#endif
